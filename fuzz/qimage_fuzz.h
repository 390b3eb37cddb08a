// Shared by the picture-reader fuzz targets: each input is decoded the way the picture loader
// decodes a file of its kind, through the kind's row of the picture table: from memory at a
// scale and a reduced size taken from the input's first bytes (so the corpus stays plain picture
// files, and a mutation of the header changes the size too), or from a scratch file for the kinds
// read only from files; what decoded whole is then area-reduced to that size and taken to sRGB by its
// colour profile, as on screen.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/image/qimage.h"
#include "framework/image/qpicturekinds.h"
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

// From the first 32 bytes: the share of the picture's size it is reduced to (1..256 of 256) and
// the library's scale (1..8 eighths).
inline void ShrinkFrom(const uint8_t* data, size_t size, int* share, int* eighths) {
  unsigned a = 0, b = 0;
  for (size_t i = 0; i < size && i < 32; ++i) {
    unsigned& sum = i < 16 ? a : b;
    sum = sum * 31 + data[i];
  }
  *share = int(1 + a % 256);
  *eighths = int(1 + b % 8);
}

// `full` reduced to `share` / 256, at least 1.
inline int Share(int full, int share) { return std::max(1, int(int64_t(full) * share / 256)); }

// Decodes the input as the loader does a file called `name` (see above).
inline void LoadAs(const char* name, const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  const QPictureKind* kind = qPictureKindOf(name);
  if (!kind) return;
  int share = 256, eighths = 8;
  ShrinkFrom(data, size, &share, &eighths);
  QImage img;
  bool read = false;
  if (kind->readMemory) {
    QPictureKind::Target target;
    int w = 0, h = 0, orientation = 0;
    if (kind->scaled && kind->readSize && kind->readSize(data, size, &w, &h, &orientation) &&
        w > 0 && h > 0) {
      if (kind->eighths) {
        target.eighths = eighths;
        w = int((int64_t(w) * eighths + 7) / 8), h = int((int64_t(h) * eighths + 7) / 8);
      }
      target.width = Share(w, share), target.height = Share(h, share);
    }
    read = kind->readMemory(&img, data, size, name, target, &orientation);
  } else {
    const std::string path = fuzz_util::WriteInput(name, data, size);
    read = !path.empty() && img.Read(path.c_str());
  }
  const int w = img.GetWidth(), h = img.GetHeight();
  if (!read || w <= 0 || h <= 0 || !img.GetBuffer() ||
      int64_t(img.GetSize()) < int64_t(w) * h * 4)
    return;
  const int tw = Share(w, share), th = Share(h, share);
  if (tw < w || th < h) img.AreaReduce(tw, th);
  img.ConvertToSRGB();
}

}  // namespace qimage_fuzz
