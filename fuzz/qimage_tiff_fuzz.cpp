// TIFF bytes through libtiff's directory reader and RGBA interface, with our strip, tile and
// size checks before them, read as a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.tif", data, size);
  return 0;
}
