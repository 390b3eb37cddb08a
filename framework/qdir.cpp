// QDirectory over opendir/readdir and stat, plus the working-directory helpers.
#include "framework/qdir.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

int DotRank(const std::string& s) {
  if (s == ".") return 0;
  if (s == "..") return 1;
  return 2;
}

// The platform of origin lists names this way; keeping it makes a slideshow's order portable.
bool ListsBefore(const std::string& a, const std::string& b) {
  int ra = DotRank(a), rb = DotRank(b);
  if (ra != rb) return ra < rb;
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    int ca = qtoupper(static_cast<unsigned char>(a[i]));
    int cb = qtoupper(static_cast<unsigned char>(b[i]));
    if (ca != cb) return ca < cb;
  }
  if (a.size() != b.size()) return a.size() < b.size();
  return a < b;
}

}  // namespace

QDirectory::QDirectory(const char* directory) { Open(directory); }

QDirectory::~QDirectory() { Close(); }

void QDirectory::Close() {
  open_ = false;
  next_ = 0;
  entries_.clear();
}

bool QDirectory::Open(const char* directory) {
  Close();
  if (!directory) return false;
  SetName(directory);
  DIR* dir = opendir(directory);
  if (!dir) return false;
  bool sawDot = false, sawDotDot = false;
  while (dirent* e = readdir(dir)) {
    entries_.emplace_back(e->d_name);
    sawDot |= entries_.back() == ".";
    sawDotDot |= entries_.back() == "..";
  }
  closedir(dir);
  // Every directory lists its two links on the platform of origin.
  if (!sawDot) entries_.emplace_back(".");
  if (!sawDotDot) entries_.emplace_back("..");
  std::sort(entries_.begin(), entries_.end(), ListsBefore);
  open_ = true;
  return true;
}

bool QDirectory::ReadNext(char* name, QDirEntryInfo* info) {
  if (name) name[0] = 0;
  if (!open_ || next_ >= entries_.size()) return false;
  const std::string& entry = entries_[next_++];
  if (name) snprintf(name, NAME_SIZE, "%s", entry.c_str());
  if (!info) return true;
  *info = QDirEntryInfo();
  int dirLength = name_.Length();
  int nameLength = static_cast<int>(entry.size());
  if (dirLength + 2 + nameLength > MAX_PATH_LENGTH) {
    QERR("QDirectory::ReadNext", "Buffer overflow; dirName (%d) or name (%d) too large.",
         dirLength, nameLength);
    return false;
  }
  char path[MAX_PATH_LENGTH + 1];
  snprintf(path, sizeof(path), "%s/%s", name_.cstr(), entry.c_str());
  struct stat st;
  if (stat(path, &st) == 0) {
    info->size = static_cast<uint32_t>(st.st_size);
    info->isDirectory = S_ISDIR(st.st_mode);
    info->modifyTime = static_cast<int64_t>(st.st_mtime);
    info->createTime = static_cast<int64_t>(st.st_ctime);
  }
  return true;
}

bool QSetCurrentDirectory(const char* path) {
  if (!path || chdir(path) != 0) {
    QWARN("QSetCurrentDirectory", "Can't set current directory to '%s': %s", path ? path : "",
          strerror(errno));
    return false;
  }
  QNOTE("QSetCurrentDirectory", "Current directory is now '%s'", path);
  return true;
}

bool QGetCurrentDirectory(qstring* out) {
  if (!out) return false;
  std::vector<char> buf(4096);
  while (!getcwd(buf.data(), buf.size())) {
    if (errno != ERANGE || buf.size() >= (1u << 20)) {
      *out = "";
      return false;
    }
    buf.resize(buf.size() * 2);
  }
  *out = buf.data();
  return true;
}

bool QGetRealPath(const char* path, qstring* out) {
  if (!out) return false;
  *out = "";
  if (!path || !*path) return false;
  char* real = realpath(path, nullptr);
  if (!real) return false;
  *out = real;
  free(real);
  return true;
}
