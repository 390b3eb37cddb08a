// PNG bytes through libpng's transformations, the row storage and the alpha composition, read as
// a file, then from memory shrunk row by row while decoding (or after the passes, interlaced).
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.png", data, size);
  int w = 0, h = 0, eighths = 0;
  qimage_fuzz::ShrinkFrom(data, size, &w, &h, &eighths);
  QImage img;
  img.ReadPNG(data, size, "f.png", w, h);
  return 0;
}
