// TIFF bytes through libtiff's directory reader and RGBA interface, with our strip, tile and
// size checks before them, from memory as the loader decodes them, then reduced.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.tif", data, size);
  return 0;
}
