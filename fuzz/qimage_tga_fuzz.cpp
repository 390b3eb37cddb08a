// Targa bytes through both readers: whole in memory (a virtual file system exists) and from the
// stdio stream (none does).
#include "fuzz/qimage_fuzz.h"
#include "framework/virtualfilesystem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static QVirtualFileSystem vfs;
  QSetVirtualFileSystem(&vfs);
  qimage_fuzz::ReadAs("f.tga", data, size);
  QSetVirtualFileSystem(nullptr);
  qimage_fuzz::ReadAs("f.tga", data, size);
  return 0;
}
