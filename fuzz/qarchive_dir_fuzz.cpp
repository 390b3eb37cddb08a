// Fuzzes a whole archive file: open, walk the directory, find, and unpack every member both as a
// memory file and through the size counter.
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/qarchive.h"
#include "framework/qfile.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog(true);
  if (size > (1u << 20)) return 0;
  const std::string path = fuzz_util::WriteInput("f.ar", data, size);
  if (path.empty()) return 0;

  QArchive ar(path.c_str(), QArchive::READ);
  qstring name;
  int offset = 0, length = 0;
  for (bool more = ar.FirstEntry(&name, &offset, &length); more;
       more = ar.NextEntry(&name, &offset, &length)) {
    if (QFile* file = ar.OpenFile(name.cstr())) {
      uint8_t buf[256];
      while (!file->IsEOF() && file->Read(buf, sizeof(buf)) > 0) {
      }
      delete file;
    }
    if (ar.FindFile(name.cstr(), true)) ar.GetFileSize();
    ar.DecompressFile(name.cstr(), nullptr);
  }
  ar.FindFile("missing", true);
  return 0;
}
