// WebP bytes as the loader decodes them: the header and EXIF orientation first, then the decode
// scaled to a size taken from the input's first two bytes (as a share of the picture's size).
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  fuzz_util::SilenceLog();
  int w = 0, h = 0, orientation = 0;
  const uint8_t* webp = data + 2;
  const size_t bytes = size - 2;
  QImage::ReadWebPInfo(webp, bytes, &w, &h, &orientation);
  QImage img;
  img.ReadWebP(webp, bytes, "f.webp", int(int64_t(w) * data[0] / 255),
               int(int64_t(h) * data[1] / 255));
  return 0;
}
