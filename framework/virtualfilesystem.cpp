// QVirtualFileSystem: real files first, then members of archives lying in the path's directory.
#include "framework/virtualfilesystem.h"

#include <cstring>

#include "framework/qarchive.h"
#include "framework/qfile.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

QVirtualFileSystem* g_vfs = nullptr;

// Directory part (before the last "/" or "\\", empty when there is none), its ASCII letters
// upper-cased (UTF-8 bytes are left alone, so distinct folders stay distinct), and the name
// behind it.
void SplitPath(const char* path, qstring* dirUpper, const char** name) {
  const char* last = nullptr;
  for (const char* p = path; *p; ++p)
    if (*p == '/' || *p == '\\') last = p;
  *name = last ? last + 1 : path;
  dirUpper->Clear();
  if (last) qstring(path).GetSubstring(0, static_cast<int>(last - path), dirUpper);
  for (int i = 0; i < dirUpper->Length(); ++i) {
    char& c = (*dirUpper)[i];
    if (c >= 'a' && c <= 'z') c = char(c - 32);
  }
}

bool SameDirectory(const qstring& dirUpper, QArchive* archive) {
  qstring archiveDir;
  const char* ignored = nullptr;
  SplitPath(archive->GetName(), &archiveDir, &ignored);
  return strcmp(archiveDir.cstr(), dirUpper.cstr()) == 0;
}

bool RealFileExists(const char* path) {
  FILE* fp = qfopen(path, "rb");
  if (!fp) return false;
  qfclose(fp);
  return true;
}

}  // namespace

QVirtualFileSystem* QGetVirtualFileSystem() { return g_vfs; }
void QSetVirtualFileSystem(QVirtualFileSystem* vfs) { g_vfs = vfs; }

QVirtualFileSystem::~QVirtualFileSystem() {
  if (count_ > 0)
    QERR("QVirtualFileSystem::~QVirtualFileSystem",
         "QVirtualFileSystem: still %d archives attached upon destruction", count_);
}

bool QVirtualFileSystem::AddArchive(QArchive* archive) {
  if (!archive) return false;
  if (count_ >= MAX_ARCHIVES) {
    QWARN("QVirtualFileSystem::AddArchive", "Out of space to add archive");
    return false;
  }
  archives_[count_++] = archive;
  return true;
}

bool QVirtualFileSystem::RemoveArchive(QArchive* archive) {
  for (int i = 0; i < count_; ++i) {
    if (archives_[i] != archive) continue;
    memmove(archives_ + i, archives_ + i + 1, (count_ - i - 1) * sizeof(archives_[0]));
    archives_[--count_] = nullptr;
    return true;
  }
  return false;
}

bool QVirtualFileSystem::FileExists(const char* path) const {
  if (!path) return false;
  if (RealFileExists(path)) return true;
  qstring dir;
  const char* name = nullptr;
  SplitPath(path, &dir, &name);
  for (int i = 0; i < count_; ++i)
    if (SameDirectory(dir, archives_[i]) && archives_[i]->FindFile(name, false)) return true;
  return false;
}

QFile* QVirtualFileSystem::OpenFile(const char* path, int mode) const {
  if (!path) return nullptr;
  if (RealFileExists(path)) return new QFile(path, mode);
  qstring dir;
  const char* name = nullptr;
  SplitPath(path, &dir, &name);
  for (int i = 0; i < count_; ++i) {
    if (!SameDirectory(dir, archives_[i])) {
      QNOTE("QVirtualFileSystem::OpenFile", "Directory does not match");
      continue;
    }
    if (QFile* file = archives_[i]->OpenFile(name)) return file;
  }
  return nullptr;
}
