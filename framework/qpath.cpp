// QPath: directory search list.
#include "framework/qpath.h"

#include "framework/qfile.h"
#include "framework/qmessage.h"

namespace {
// The answer of the one-argument FindFile; overwritten by the next call.
qstring g_found;
}  // namespace

bool QPath::Add(const char* directory) {
  if (!directory) return false;
  if (count_ >= MAX_PATHS) {
    QWARN("QPath::Add", "QPath:Add(); maximum (%d) reached", MAX_PATHS);
    return false;
  }
  paths_[count_++] = directory;
  return true;
}

const char* QPath::GetPath(int index) const {
  if (index < 0 || index >= count_) {
    QWARN("QPath::GetPath", "QPath:GetPath(%d) out of range", index);
    return nullptr;
  }
  return paths_[index].cstr();
}

void QPath::Clear() {
  for (int i = 0; i < count_; ++i) paths_[i].Clear();
  count_ = 0;
}

int QPath::Search(const char* name, qstring* joined) const {
  if (!name) return -1;
  for (int i = 0; i < count_; ++i) {
    joined->Format("%s/%s", paths_[i].cstr(), name);
    if (QFileExists(joined->cstr())) return i;
  }
  return -1;
}

const char* QPath::FindFile(const char* name) const {
  if (Search(name, &g_found) < 0) return name;
  return g_found.cstr();
}

bool QPath::FindFile(const char* name, qstring* fullPath, qstring* directory) const {
  qstring joined;
  int index = Search(name, &joined);
  if (index < 0) {
    if (fullPath) *fullPath = name;
    if (directory) *directory = "";
    return false;
  }
  if (fullPath) *fullPath = joined;
  if (directory) *directory = paths_[index];
  return true;
}
