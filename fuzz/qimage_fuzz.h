// Shared by the picture-reader fuzz targets: each input is written to a scratch file (the readers
// take file names), read back through QImage::Read and taken to sRGB by its colour profile. The
// PNG and JPEG targets also decode the input from memory shrunk while decoding, to a size taken
// from its first bytes (so the corpus stays plain picture files, and a mutation of the header
// changes the size too).
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
  // A profile found in the file goes on to lcms2 as it would on screen.
  if (img.Read(path.c_str())) img.ConvertToSRGB();
}

// A reduced size of 1..256 each way from the first 32 bytes, and a scale of 1..8 eighths.
inline void ShrinkFrom(const uint8_t* data, size_t size, int* width, int* height, int* eighths) {
  unsigned a = 0, b = 0;
  for (size_t i = 0; i < size && i < 32; ++i) {
    unsigned& sum = i < 16 ? a : b;
    sum = sum * 31 + data[i];
  }
  *width = int(1 + a % 256);
  *height = int(1 + b % 256);
  *eighths = int(1 + (a >> 8) % 8);
}

}  // namespace qimage_fuzz
