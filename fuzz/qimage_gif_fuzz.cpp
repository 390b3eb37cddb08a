// GIF bytes through giflib's record reader and our composition of the first frame on the
// logical screen, from memory as the loader decodes them, then reduced.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.gif", data, size);
  return 0;
}
