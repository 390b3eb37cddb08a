// Feeds arbitrary bytes to the EXIF reader both as a whole file and as an APP1 payload: no input
// may read outside the buffer, loop, or allocate beyond the size of the input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/image/qexif.h"
#include "framework/qstring.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QExif exif;
  exif.ReadFromJpeg(data, size);
  exif.ReadExifSegment(data, size);
  // The framework-string form sees the bytes up to the first zero.
  std::string text(reinterpret_cast<const char*>(data), size);
  qstring s(text.c_str());
  exif.ReadFromJpeg(s);
  return 0;
}
