// The virtual file system: real files first, then the members of attached archives.
//
// Holds up to 100 archive pointers (not owned; their owners attach and detach them). An archive
// serves only paths in the directory where the archive file itself lies; names inside it are
// taken relative to that directory. Members come back as read-only memory QFiles.
#pragma once

class QArchive;
class QFile;

class QVirtualFileSystem {
 public:
  static constexpr int MAX_ARCHIVES = 100;

  QVirtualFileSystem() = default;
  // Reports "QVirtualFileSystem: still %d archives attached upon destruction" when some are.
  ~QVirtualFileSystem();
  QVirtualFileSystem(const QVirtualFileSystem&) = delete;
  QVirtualFileSystem& operator=(const QVirtualFileSystem&) = delete;

  // False with "Out of space to add archive" when 100 are attached.
  bool AddArchive(QArchive* archive);
  // Detaches by pointer; later ones move up. False when it was not attached.
  bool RemoveArchive(QArchive* archive);
  int GetArchiveCount() const { return count_; }

  // A real file that opens "rb", or a member of an archive lying in the path's directory.
  bool FileExists(const char* path) const;
  // A new QFile over the real file with `mode` (QFile modes), else an archive member as a
  // read-only memory file, else null. The caller deletes the QFile.
  QFile* OpenFile(const char* path, int mode) const;

 private:
  QArchive* archives_[MAX_ARCHIVES] = {};
  int count_ = 0;
};

// The process's virtual file system (owned by the application object), or null when none exists.
QVirtualFileSystem* QGetVirtualFileSystem();
void QSetVirtualFileSystem(QVirtualFileSystem* vfs);
