// PNG bytes through libpng's transformations, the row storage and the alpha composition, read as
// a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.png", data, size);
  return 0;
}
