// Arbitrary bytes through the picture facts as the catalogue reads them from a file's head: the
// first byte chooses the kind's name (so the corpus holds each kind's files behind one byte),
// the rest are the head. No input may read outside it or leak.
#include <cstddef>
#include <cstdint>

#include "framework/image/qpicturefacts.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kNames[] = {"f.jpg", "f.heic", "f.tif", "f.png", "f.webp"};
  if (size < 1) return 0;
  fuzz_util::SilenceLog();
  QPictureFacts facts;
  QReadPictureFactsFromMemory(data + 1, size - 1, kNames[data[0] % 5], &facts);
  return 0;
}
