// JPEG bytes through libjpeg and the scanline storage, read as a file, then from memory at a
// scale and shrunk row by row while decoding.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.jpg", data, size);
  int w = 0, h = 0, eighths = 0;
  qimage_fuzz::ShrinkFrom(data, size, &w, &h, &eighths);
  QImage img;
  img.ReadJPG(data, size, "f.jpg", eighths, w, h);
  return 0;
}
