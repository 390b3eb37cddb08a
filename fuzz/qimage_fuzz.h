// Shared by the picture-reader fuzz targets: each input is written to a file in a private
// temporary directory (the readers take file names) and read back through QImage::Read.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "framework/qimage.h"
#include "framework/qmessage.h"

namespace qimage_fuzz {

inline void Quiet(const char*, const char*) {}

// The input under `name` in this process's directory; answers the path.
inline std::string WriteInput(const char* name, const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    qSetWarnHandler(Quiet);
    qSetErrHandler(Quiet);
    qSetDbgHandler(Quiet);
    char tmpl[] = "/tmp/qimage_fuzz_XXXXXX";
    const char* made = mkdtemp(tmpl);
    return std::string(made ? made : "/tmp");
  }();
  const std::string path = dir + "/" + name;
  unlink(path.c_str());  // a fresh file each time is much cheaper than truncating one
  if (FILE* f = fopen(path.c_str(), "wb")) {
    if (size) fwrite(data, 1, size, f);
    fclose(f);
  }
  return path;
}

// Reads the input as `name` (whose extension picks the reader) into a fresh picture.
inline void ReadAs(const char* name, const uint8_t* data, size_t size) {
  const std::string path = WriteInput(name, data, size);
  QImage img;
  img.Read(path.c_str());
}

}  // namespace qimage_fuzz
