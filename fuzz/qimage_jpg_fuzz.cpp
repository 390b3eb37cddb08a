// JPEG bytes through libjpeg and the scanline storage, from memory as the loader decodes them:
// at a scale and shrunk row by row while decoding.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.jpg", data, size);
  return 0;
}
