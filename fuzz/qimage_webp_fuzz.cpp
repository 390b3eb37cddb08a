// WebP bytes as the loader decodes them: the header and EXIF orientation first, then the decode
// scaled by the library to a size taken from the input's first bytes.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.webp", data, size);
  return 0;
}
