// QDirectory: lists the entries of one directory, for the slideshow's picture scan and tools.
//
// Every entry is returned, "." and ".." included, nothing filtered; callers filter. The order is
// the same on every machine: "." and ".." first, then the byte order of the upper-cased names
// (Latin-1), ties by the original bytes. The listing is taken when the directory is opened, so
// entries created afterwards are not seen until the next Open. Owns a copy of the directory
// name. Also holds the process's current-directory helpers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "framework/qobject.h"

// What the file system says about one entry; all zero when it cannot be examined.
struct QDirEntryInfo {
  uint32_t size = 0;        // bytes (cut to 32 bits)
  bool isDirectory = false;
  int64_t modifyTime = 0;   // seconds
  int64_t createTime = 0;   // status-change time, seconds
};

class QDirectory : public QObject {
 public:
  // Size of the name buffer that ReadNext fills; longer names are cut.
  static constexpr int NAME_SIZE = 260;
  // Longest "directory/name" examined for entry information.
  static constexpr int MAX_PATH_LENGTH = 1024;

  QDirectory() = default;
  // Opens the listing at once; test IsOpen.
  explicit QDirectory(const char* directory);
  ~QDirectory() override;

  const char* ClassName() const override { return "QDirectory"; }

  // Closes a previous listing and lists `directory`; false when it cannot be read.
  bool Open(const char* directory);
  void Close();
  bool IsOpen() const { return open_; }
  // The next entry's name (without directory) into `name` (NAME_SIZE bytes); false, with an
  // empty name, at the end or when nothing is open. With `info`, the entry is examined; a path
  // longer than MAX_PATH_LENGTH gives the error "Buffer overflow; ..." and false.
  bool ReadNext(char* name, QDirEntryInfo* info = nullptr);

 private:
  bool open_ = false;
  size_t next_ = 0;
  std::vector<std::string> entries_;
};

// Changes the process's working directory, noting the new one; false with a warning.
bool QSetCurrentDirectory(const char* path);
// The working directory into `out`; false (and `out` empty) when it cannot be taken.
bool QGetCurrentDirectory(qstring* out);
// The absolute path of an existing file or directory with every link and "." or ".." resolved,
// so that two paths of the same place compare equal; false (and `out` empty) when it does not
// exist.
bool QGetRealPath(const char* path, qstring* out);
