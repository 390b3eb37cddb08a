// Targa bytes through both file readers: whole in memory (a virtual file system exists) and
// from the stdio stream (none does); then from memory as the loader decodes them, and reduced.
#include "fuzz/qimage_fuzz.h"
#include "framework/virtualfilesystem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static QVirtualFileSystem vfs;
  QSetVirtualFileSystem(&vfs);
  qimage_fuzz::ReadAs("f.tga", data, size);
  QSetVirtualFileSystem(nullptr);
  qimage_fuzz::ReadAs("f.tga", data, size);
  qimage_fuzz::LoadAs("f.tga", data, size);
  return 0;
}
