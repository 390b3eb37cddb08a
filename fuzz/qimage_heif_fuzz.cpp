// HEIF/HEIC and AVIF bytes through libheif's container parser and decoders, with our size checks
// before them, read as a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.heic", data, size);
  return 0;
}
