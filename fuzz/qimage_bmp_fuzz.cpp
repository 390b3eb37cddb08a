// Windows bitmap bytes, read from a file as the loader does, then reduced.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.bmp", data, size);
  return 0;
}
