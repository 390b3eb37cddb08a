// QListFolder: a folder's entries with what a tree walk needs, from one listing.
#include "framework/qdir_list.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "framework/qstring.h"

bool QListFolder(const char* folder, bool (*wantFile)(const char* name),
                 std::vector<QFolderEntry>* out) {
  out->clear();
  DIR* dir = opendir(folder);
  if (!dir) return false;
  const int fd = dirfd(dir);
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    // The listing's own type spares an examination for files of no interest.
    const bool maybeFile = e->d_type != DT_DIR;
    if (e->d_type == DT_REG && wantFile && !wantFile(e->d_name)) continue;
    struct stat st;
    if (fstatat(fd, e->d_name, &st, 0) != 0) continue;  // gone, or a dead link
    QFolderEntry entry;
    if (S_ISDIR(st.st_mode)) {
      entry.folder = true;
    } else if (!S_ISREG(st.st_mode) || !maybeFile || (wantFile && !wantFile(e->d_name))) {
      continue;
    }
    entry.name = e->d_name;
    entry.size = int64_t(st.st_size);
    entry.modified = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    entry.device = uint64_t(st.st_dev);
    entry.inode = uint64_t(st.st_ino);
    out->push_back(std::move(entry));
  }
  closedir(dir);
  std::sort(out->begin(), out->end(), [](const QFolderEntry& a, const QFolderEntry& b) {
    return QNameListsBefore(a.name, b.name);
  });
  return true;
}

QFolderHandle::QFolderHandle(const char* folder)
    : fd_(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

QFolderHandle::~QFolderHandle() {
  if (fd_ >= 0) close(fd_);
}

QFolderHandle& QFolderHandle::operator=(QFolderHandle&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) close(fd_);
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

bool QFolderIdentity(const char* folder, uint64_t* device, uint64_t* inode) {
  struct stat st;
  if (stat(folder, &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  *device = uint64_t(st.st_dev);
  *inode = uint64_t(st.st_ino);
  return true;
}

bool QPathListsBefore(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  for (;;) {
    const size_t ea = std::min(a.find('/', i), a.size());
    const size_t eb = std::min(b.find('/', j), b.size());
    // QNameListsBefore on the two names, without copying them (a sort calls this a lot).
    const size_t la = ea - i, lb = eb - j, n = std::min(la, lb);
    for (size_t k = 0; k < n; ++k) {
      const int ca = qtoupper(static_cast<unsigned char>(a[i + k]));
      const int cb = qtoupper(static_cast<unsigned char>(b[j + k]));
      if (ca != cb) return ca < cb;
    }
    if (la != lb) return la < lb;
    const int c = a.compare(i, la, b, j, lb);
    if (c != 0) return c < 0;
    if (ea == a.size() || eb == b.size()) return ea == a.size() && eb != b.size();
    i = ea + 1;
    j = eb + 1;
  }
}
