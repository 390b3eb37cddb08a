// Shared by the picture-reader fuzz targets: each input is written to a scratch file (the readers
// take file names) and read back through QImage::Read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/qimage.h"
#include "fuzz/fuzz_util.h"

namespace qimage_fuzz {

// Reads the input as `name` (whose extension picks the reader) into a fresh picture.
inline void ReadAs(const char* name, const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  const std::string path = fuzz_util::WriteInput(name, data, size);
  if (path.empty()) return;
  QImage img;
  img.Read(path.c_str());
}

}  // namespace qimage_fuzz
