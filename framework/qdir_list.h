// QListFolder: one folder's entries examined in one pass, for walking a tree of pictures. Names
// starting with '.' (and so "." and "..") are left out; links are followed, so an entry is a
// folder, a file or nothing usable (a dead link, a device), the last left out. Each real folder
// carries its device and inode, which tell a folder reached twice through links. A file whose
// name the filter refuses is not examined at all: a library of 100,000 pictures costs one
// examination per picture and one per folder.
//
// QPathListsBefore orders relative paths folder by folder, each name as QDirectory lists it, so a
// library's name order is the listing order of each of its folders.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct QFolderEntry {
  std::string name;
  bool folder = false;   // a folder (else a regular file)
  int64_t size = 0;      // bytes (files)
  int64_t modified = 0;  // nanoseconds since 1970
  uint64_t device = 0, inode = 0;
};

// Lists `folder` into `out` (cleared first) in QDirectory's order: every folder, and the files
// whose name `wantFile` accepts (null: every file). False, with `out` empty and nothing logged
// (the caller knows what the folder is to it), when the folder cannot be read.
bool QListFolder(const char* folder, bool (*wantFile)(const char* name),
                 std::vector<QFolderEntry>* out);
// A folder held open, so that its files are opened by their names without the folder's path
// being looked up again for each (see QReadPictureFactsAt). Get() is -1 when the folder could not
// be opened (nothing logged). Closed when it goes.
class QFolderHandle {
 public:
  QFolderHandle() = default;
  explicit QFolderHandle(const char* folder);
  ~QFolderHandle();
  QFolderHandle(QFolderHandle&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  QFolderHandle& operator=(QFolderHandle&& other) noexcept;
  QFolderHandle(const QFolderHandle&) = delete;
  QFolderHandle& operator=(const QFolderHandle&) = delete;
  int Get() const { return fd_; }

 private:
  int fd_ = -1;
};
// The device and inode of `folder` (links followed); false when it cannot be examined.
bool QFolderIdentity(const char* folder, uint64_t* device, uint64_t* inode);
// QDirectory's order of two names of one folder.
bool QNameListsBefore(const std::string& a, const std::string& b);
// The order of two '/'-separated relative paths: the first differing folder or name decides.
bool QPathListsBefore(const std::string& a, const std::string& b);
