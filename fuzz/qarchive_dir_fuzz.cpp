// Fuzzes a whole archive file: open, walk the directory, find, and unpack every member both as a
// memory file and through the size counter.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/qarchive.h"
#include "framework/qfile.h"
#include "framework/qmessage.h"

namespace {

void Quiet(const char*, const char*) {}

// One scratch file per process, rewritten for every input.
const std::string& ScratchPath() {
  static const std::string path = [] {
    char tmpl[] = "/tmp/qarchive_dir_fuzz_XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd >= 0) close(fd);
    return std::string(tmpl);
  }();
  static const bool cleanup = atexit([] { unlink(path.c_str()); }) == 0;
  (void)cleanup;
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool once = [] {
    qSetWarnHandler(Quiet);
    qSetErrHandler(Quiet);
    qSetDbgHandler(Quiet);
    qSetMessageHandler(Quiet);
    return true;
  }();
  (void)once;
  if (size > (1u << 20)) return 0;
  FILE* fp = fopen(ScratchPath().c_str(), "wb");
  if (!fp) return 0;
  if (size) fwrite(data, 1, size, fp);
  fclose(fp);

  QArchive ar(ScratchPath().c_str(), QArchive::READ);
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
