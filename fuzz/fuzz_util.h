// Shared by the fuzz targets: silencing the log, and handing the input to readers that take a
// file name. Every scratch file lives in one private temporary directory per process, made on
// first use and removed with its files when the process ends; each call rewrites the file.
#pragma once

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "framework/qmessage.h"

namespace fuzz_util {

inline void Quiet(const char*, const char*) {}

// Routes warnings, errors and debug lines (and plain messages when `messages`) to nowhere; safe
// to call for every input, only the first call does anything.
inline void SilenceLog(bool messages = false) {
  static const bool once = [messages] {
    qSetWarnHandler(Quiet);
    qSetErrHandler(Quiet);
    qSetDbgHandler(Quiet);
    if (messages) qSetMessageHandler(Quiet);
    return true;
  }();
  (void)once;
}

// The process's scratch directory; aborts when none can be made, since every input would then
// test nothing.
inline const std::string& ScratchDir() {
  // Never destroyed, so that the removal at exit still has the name.
  static const std::string* dir = [] {
    char tmpl[] = "/tmp/glimra_fuzz_XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    auto* made = new std::string(tmpl);
    atexit([] {
      const std::string& d = ScratchDir();
      if (DIR* dp = opendir(d.c_str())) {
        while (dirent* e = readdir(dp))
          if (e->d_name[0] != '.') unlink((d + "/" + e->d_name).c_str());
        closedir(dp);
      }
      rmdir(d.c_str());
    });
    return made;
  }();
  return *dir;
}

// Writes the input to `name` in the scratch directory and answers its path; "" when the file
// cannot be written.
inline std::string WriteInput(const char* name, const uint8_t* data, size_t size) {
  const std::string path = ScratchDir() + "/" + name;
  unlink(path.c_str());  // a fresh file each time is much cheaper than truncating one
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return std::string();
  const bool ok = size == 0 || fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok ? path : std::string();
}

}  // namespace fuzz_util
