// QPath: a search list of up to 20 directories, tried in the order added to find a file.
//
// The directories are owned copies. Existence is the framework's file-exists check, so a file
// inside an attached archive counts. The path answered by the one-argument FindFile lives in one
// process-wide buffer that the next call overwrites. Not thread-safe.
#pragma once

#include "framework/qstring.h"

class QPath {
 public:
  static constexpr int MAX_PATHS = 20;

  QPath() = default;
  QPath(const QPath&) = delete;
  QPath& operator=(const QPath&) = delete;

  // False with the warning "QPath:Add(); maximum (20) reached" when full, or for a null path.
  bool Add(const char* directory);
  // Null with the warning "QPath:GetPath(%d) out of range" outside 0..count - 1.
  const char* GetPath(int index) const;
  int GetCount() const { return count_; }
  void Clear();

  // The first "directory/name" that exists (in the shared buffer), else `name` itself.
  const char* FindFile(const char* name) const;
  // The first existing "directory/name" into fullPath and its directory into directory; when
  // none exists, false with fullPath = name and an empty directory. Either output may be null.
  bool FindFile(const char* name, qstring* fullPath, qstring* directory) const;

 private:
  // Index of the first directory holding the name, or -1; the joined path lands in `joined`.
  int Search(const char* name, qstring* joined) const;

  qstring paths_[MAX_PATHS];
  int count_ = 0;
};
