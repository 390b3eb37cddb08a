// SGI RGB bytes, either byte order, uncompressed or run-length, read as a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.rgb", data, size);
  return 0;
}
