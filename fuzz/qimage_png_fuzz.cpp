// PNG bytes through libpng's transformations, the row storage and the alpha composition, from
// memory as the loader decodes them: shrunk row by row while decoding (or after the passes,
// interlaced).
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.png", data, size);
  return 0;
}
