// JPEG bytes through libjpeg and the scanline storage, read as a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.jpg", data, size);
  return 0;
}
