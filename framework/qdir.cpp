// QDirectory over opendir/readdir and stat, the working-directory helpers, and QDirWatch over
// inotify.
#include "framework/qdir.h"

#include <dirent.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "framework/qdir_list.h"
#include "framework/qevent.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"
#include "framework/qthread.h"

namespace {

int DotRank(const std::string& s) {
  if (s == ".") return 0;
  if (s == "..") return 1;
  return 2;
}

}  // namespace

// The platform of origin lists names this way; keeping it makes a slideshow's order portable.
bool QNameListsBefore(const std::string& a, const std::string& b) {
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
  std::sort(entries_.begin(), entries_.end(), QNameListsBefore);
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

bool QReenterDirectory(const char* path) {
  struct stat here, there;
  if (!path || !*path || stat(path, &there) != 0 || !S_ISDIR(there.st_mode)) return false;
  if (stat(".", &here) == 0 && here.st_dev == there.st_dev && here.st_ino == there.st_ino)
    return false;
  return QSetCurrentDirectory(path);
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

// ---------------------------------------------------------------------------------------------
// QDirWatch
// ---------------------------------------------------------------------------------------------

QDirWatch::QDirWatch() = default;

namespace {

// What the directory's watch reports. Opens only tell a writer's creation from a link's.
constexpr uint32_t kDirMask = IN_CREATE | IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE |
                              IN_CLOSE_NOWRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                              IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// An open queues its event right after the creation, within the same call: a new name that no
// open follows for this long was made by a link.
constexpr int kOpenFollowsMs = 100;
// How often a directory that went is looked for when its parent cannot tell (gone too).
constexpr int kReturnLookMs = 1000;
// What the parent's watch reports: the directory's name going and coming. A directory removed
// while some process works in it sends nothing of itself until that process leaves it.
constexpr uint32_t kParentMask = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR;

// The directory `path` is in.
std::string ParentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Whether `path` lies below the folder `folder` (both relative).
bool IsBelow(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' &&
         path.compare(0, folder.size(), folder) == 0;
}

// Forgets every key below the folder `folder`; they sort together after its name and a '/'.
template <typename T>
void EraseBelow(std::map<std::string, T>* names, const std::string& folder) {
  auto it = names->lower_bound(folder + "/");
  while (it != names->end() && IsBelow(it->first, folder)) it = names->erase(it);
}

// Ends the watcher's sleep; `fd` is its event counter.
void Kick(int fd, const std::string& name) {
  const uint64_t one = 1;
  if (fd >= 0 && write(fd, &one, sizeof(one)) != ssize_t(sizeof(one)))
    QWARN("QDirWatch::Kick", "QDirWatch(%s): can't wake the watcher: %s", name.c_str(),
          strerror(errno));
}

}  // namespace

QDirWatch::~QDirWatch() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    stop_ = true;
    Kick(kickFd_, name_);
    // The watcher may be inside poll on the descriptors closed below.
    ended_.wait(lock, [this] { return !running_; });
  }
  watcher_.reset();
  if (fd_ >= 0) close(fd_);
  if (kickFd_ >= 0) close(kickFd_);
}

bool QDirWatch::Open(const char* directory, NameFilter filter, int gapMs, bool tree) {
  if (!directory || fd_ >= 0) {
    QWARN("QDirWatch::Open", "QDirWatch(%s): already watching or no directory; '%s' refused",
          name_.c_str(), directory ? directory : "");
    return false;
  }
  name_ = directory;
  const int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    QWARN("QDirWatch::Open", "QDirWatch(%s): can't start watching: %s", directory,
          strerror(errno));
    return false;
  }
  const int wd = inotify_add_watch(fd, directory, kDirMask);
  const int kickFd = wd < 0 ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wd < 0 || kickFd < 0) {
    QWARN("QDirWatch::Open", "QDirWatch(%s): can't watch the directory: %s", directory,
          strerror(errno));
    close(fd);
    return false;
  }
  fd_ = fd;
  dirWd_ = wd;
  // Without it a deleted directory is noticed only when nobody works in it any more.
  parentWd_ = inotify_add_watch(fd, ParentOf(name_).c_str(), kParentMask);
  kickFd_ = kickFd;
  filter_ = filter;
  gapMs_ = gapMs > 0 ? gapMs : 0;
  tree_ = tree;
  int below = 0;  // folders followed below the directory
  if (tree_) {
    std::lock_guard<std::mutex> lock(mutex_);
    folders_[wd] = "";
    AddTreeLocked("", false);
    below = int(folderWds_.size());
  }
  running_ = true;
  watcher_.reset(new QThread(&QDirWatch::Watch, this, "glimra_dirwatch"));
  if (!watcher_->Create()) {
    // Changes are then seen only when the owner takes them on its own occasions.
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
  }
  if (tree_)
    QNOTE("QDirWatch::Open", "Watching '%s' and %d folders below it for changes", directory,
          below);
  else
    QNOTE("QDirWatch::Open", "Watching '%s' for changes", directory);
  return true;
}

int QDirWatch::GapLeftLocked() const {
  const auto left =
      lastTake_ + std::chrono::milliseconds(gapMs_) - std::chrono::steady_clock::now();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
  // Rounded up, so that a wait of that long always ends past the gap.
  return left.count() > 0 ? int(ms) + 1 : 0;
}

void QDirWatch::Watch(void* arg) {
  QDirWatch* self = static_cast<QDirWatch*>(arg);
  pollfd fds[2] = {{self->fd_, POLLIN, 0}, {self->kickFd_, POLLIN, 0}};
  std::unique_lock<std::mutex> lock(self->mutex_);
  while (!self->stop_) {
    // Changes waiting out the gap: sleep until it has passed, else until something happens.
    int timeout = self->PendingLocked() && !self->woken_ ? self->GapLeftLocked() : -1;
    const int own = self->OwnLookLocked();
    if (own >= 0 && (timeout < 0 || own < timeout)) timeout = own;
    lock.unlock();
    const int ready = poll(fds, 2, timeout);
    const int error = errno;
    lock.lock();
    if (self->stop_) break;
    // A broken descriptor would wake poll at once for ever.
    const bool broken = ready > 0 && (fds[0].revents & (POLLERR | POLLNVAL));
    if ((ready < 0 && error != EINTR) || broken) {
      QWARN("QDirWatch::Watch", "QDirWatch(%s): watching ends: %s", self->name_.c_str(),
            ready < 0 ? strerror(error) : "the notification failed");
      break;
    }
    if (ready > 0 && (fds[1].revents & POLLIN)) {
      uint64_t kicks;
      const ssize_t got = read(self->kickFd_, &kicks, sizeof(kicks));
      (void)got;  // a counter emptied already is just as good
    }
    if (ready > 0 && (fds[0].revents & POLLIN)) self->ReadEventsLocked();
    self->SettleCreatedLocked();
    if (self->dirWd_ < 0) self->ReturnLocked();
    if (self->PendingLocked() && !self->woken_ && self->GapLeftLocked() == 0) {
      self->woken_ = true;
      QEventWake();
    }
  }
  self->running_ = false;
  self->ended_.notify_all();
}

int QDirWatch::OwnLookLocked() const {
  if (dirWd_ < 0) return kReturnLookMs;
  int ms = -1;
  const auto now = std::chrono::steady_clock::now();
  for (const auto& w : writing_) {
    if (w.second.opened) continue;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          w.second.created + std::chrono::milliseconds(kOpenFollowsMs) - now)
                          .count() + 1;
    const int l = left > 0 ? int(left) : 0;
    if (ms < 0 || l < ms) ms = l;
  }
  return ms;
}

void QDirWatch::SettleCreatedLocked() {
  const auto due = std::chrono::steady_clock::now() - std::chrono::milliseconds(kOpenFollowsMs);
  for (auto it = writing_.begin(); it != writing_.end();) {
    if (!it->second.opened && it->second.created <= due) {
      changed_.insert(it->first);
      it = writing_.erase(it);
    } else {
      ++it;
    }
  }
}

void QDirWatch::GoneLocked() {
  QWARN("QDirWatch::ReadEvents",
        "QDirWatch(%s): the folder was deleted or moved away; waiting for a folder of that name",
        name_.c_str());
  // A folder moved away is still watched where it went.
  inotify_rm_watch(fd_, dirWd_);
  dirWd_ = -1;
  DropTreeLocked();
  writing_.clear();
  opens_.clear();
  ++lost_;
  // The parent may have gone with it (and come back).
  if (parentWd_ < 0) parentWd_ = inotify_add_watch(fd_, ParentOf(name_).c_str(), kParentMask);
  ReturnLocked();
}

void QDirWatch::ReturnLocked() {
  // The watch of a directory already watched answers its old number.
  const int wd = inotify_add_watch(fd_, name_.c_str(), kDirMask);
  if (wd < 0 || wd == dirWd_) return;
  // Replaced without a word of its own (renamed over, or deleted while worked in); GoneLocked
  // looks again.
  if (dirWd_ >= 0) {
    GoneLocked();
    return;
  }
  dirWd_ = wd;
  writing_.clear();
  ++lost_;
  if (tree_) {
    folders_[wd] = "";
    AddTreeLocked("", false);
  }
  QNOTE("QDirWatch::ReadEvents", "QDirWatch(%s): a folder of that name is there again; watching it",
        name_.c_str());
}

void QDirWatch::ReadEventsLocked() {
  // Aligned for the event records; a name may be up to NAME_MAX + 1 bytes.
  alignas(inotify_event) char buf[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
  const std::string base = name_.substr(name_.find_last_of('/') + 1);
  for (;;) {
    const ssize_t n = read(fd_, buf, sizeof(buf));
    if (n <= 0) break;  // EAGAIN: nothing queued (any other failure ends in poll too)
    for (ssize_t at = 0; at + ssize_t(sizeof(inotify_event)) <= n;) {
      const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
      at += ssize_t(sizeof(inotify_event) + e->len);
      if (e->mask & IN_Q_OVERFLOW) {
        QWARN("QDirWatch::ReadEvents", "QDirWatch(%s): changes were lost; listing again",
              name_.c_str());
        writing_.clear();
        opens_.clear();
        ++lost_;
        // New folders may be among what was lost.
        if (tree_ && dirWd_ >= 0) {
          DropTreeLocked();
          AddTreeLocked("", false);
        }
        continue;
      }
      if (e->wd == parentWd_ && parentWd_ >= 0) {
        if (e->mask & IN_IGNORED) parentWd_ = -1;
        if (!e->len || !(e->mask & IN_ISDIR) || base != e->name) continue;
        if (e->mask & (IN_DELETE | IN_MOVED_FROM)) {
          if (dirWd_ >= 0) GoneLocked();
        } else {
          ReturnLocked();
        }
        continue;
      }
      // What a watch given up on still had queued.
      if (dirWd_ < 0) continue;
      std::string folder;  // relative; "" for the directory
      if (e->wd != dirWd_) {
        const auto f = tree_ ? folders_.find(e->wd) : folders_.end();
        if (f == folders_.end()) continue;
        folder = f->second;
        // Deleted, or its file system went. One moved is dropped on its parent's word.
        if (e->mask & (IN_DELETE_SELF | IN_IGNORED)) {
          DropFolderLocked(folder);
          changed_.insert(folder);
        }
        if (e->mask & (IN_DELETE_SELF | IN_IGNORED | IN_MOVE_SELF)) continue;
      } else if (e->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
        GoneLocked();
        continue;
      }
      if (!e->len) continue;
      const std::string name = folder.empty() ? std::string(e->name) : folder + "/" + e->name;
      if (tree_ && (e->mask & (IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM)) &&
          TreeNameLocked(name, e->name, e->mask))
        continue;
      if ((e->mask & IN_ISDIR) || (filter_ && !filter_(e->name))) continue;
      const auto w = writing_.find(name);
      if (e->mask & IN_CREATE) {
        // Only a regular file of one name may have been made by an open; a link, a device, a
        // FIFO is there complete.
        struct stat st;
        const std::string path = name_ + "/" + name;
        if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1)
          writing_[name] = Writer{std::chrono::steady_clock::now()};
        else if (w != writing_.end())
          writing_.erase(w);
        changed_.insert(name);
      } else if (e->mask & IN_OPEN) {
        ++opens_[name];
        if (w != writing_.end()) w->second.opened = true;
      } else if (e->mask & IN_MODIFY) {
        // Only the first write of a file changes anything: it leaves the listing. A change
        // without an open (a new time set, a truncation by name) has no writer to wait for.
        const bool open = opens_.count(name) > 0;
        if (w == writing_.end()) {
          writing_[name] = Writer{std::chrono::steady_clock::now(), open, true};
          changed_.insert(name);
        } else {
          w->second.opened = w->second.opened || open;
          w->second.modified = true;
        }
      } else {
        if (e->mask & (IN_CLOSE_WRITE | IN_CLOSE_NOWRITE)) {
          const auto o = opens_.find(name);
          if (o != opens_.end() && --o->second <= 0) opens_.erase(o);
        }
        // Closed by a reader: only a name made by an open for reading alone is complete then.
        if (!(e->mask & IN_CLOSE_NOWRITE) || (w != writing_.end() && !w->second.modified)) {
          if (w != writing_.end()) writing_.erase(w);
          changed_.insert(name);
        }
      }
    }
  }
  SettleCreatedLocked();
}

bool QDirWatch::TreeNameLocked(const std::string& name, const char* last, uint32_t mask) {
  bool folder = mask & IN_ISDIR;
  if (mask & (IN_DELETE | IN_MOVED_FROM)) {
    // A link to a folder goes as a file does, taking the folder followed through it along.
    folder = DropFolderLocked(name) || folder;
  } else if (!folder) {
    // And it comes as a file does.
    struct stat st;
    const std::string path = name_ + "/" + name;
    folder = lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode) &&
             stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }
  if (!folder) return false;
  if (last[0] == '.') return true;
  if (mask & (IN_CREATE | IN_MOVED_TO)) AddTreeLocked(name, true);
  changed_.insert(name);
  return true;
}

void QDirWatch::AddTreeLocked(const std::string& top, bool report) {
  std::vector<std::string> pending{top};
  while (!pending.empty()) {
    const std::string folder = std::move(pending.back());
    pending.pop_back();
    if (!folder.empty()) {
      if (AddFolderLocked(folder) < 0) continue;
      if (report) changed_.insert(folder);
    }
    const std::string path = folder.empty() ? name_ : name_ + "/" + folder;
    const std::string prefix = folder.empty() ? folder : folder + "/";
    // Gone again or unreadable: the owner's listing finds nothing there either.
    DIR* dir = opendir(path.c_str());
    if (!dir) continue;
    while (const dirent* d = readdir(dir)) {
      if (!strcmp(d->d_name, ".") || !strcmp(d->d_name, "..")) continue;
      // Only links and file systems that do not tell the type cost a look.
      bool isFolder = d->d_type == DT_DIR;
      if (d->d_type == DT_LNK || d->d_type == DT_UNKNOWN) {
        struct stat st;
        isFolder = stat((path + "/" + d->d_name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
      }
      if (isFolder) {
        if (d->d_name[0] != '.') pending.push_back(prefix + d->d_name);
      } else if (report && (!filter_ || filter_(d->d_name))) {
        changed_.insert(prefix + d->d_name);
      }
    }
    closedir(dir);
  }
}

int QDirWatch::AddFolderLocked(const std::string& folder) {
  const std::string path = name_ + "/" + folder;
  const int wd = inotify_add_watch(fd_, path.c_str(), kDirMask);
  if (wd < 0) {
    const int error = errno;
    if (error == ENOSPC || error == EMFILE || error == ENOMEM) {
      if (complete_.exchange(false))
        QWARN("QDirWatch::AddFolder",
              "QDirWatch(%s): no room to follow folder '%s' (%s); the limit is "
              "/proc/sys/fs/inotify/max_user_watches, folders not followed are seen only when "
              "listed again",
              name_.c_str(), folder.c_str(), strerror(error));
    } else if (error != ENOENT && error != ENOTDIR) {  // not a folder (any more)
      QWARN("QDirWatch::AddFolder", "QDirWatch(%s): can't follow folder '%s': %s",
            name_.c_str(), folder.c_str(), strerror(error));
    }
    return -1;
  }
  // Reached before by another way: through a link, or round a loop of them.
  if (wd == parentWd_ || folders_.count(wd)) return -1;
  folders_[wd] = folder;
  folderWds_[folder] = wd;
  return wd;
}

bool QDirWatch::DropFolderLocked(const std::string& folder) {
  const auto drop = [this](std::map<std::string, int>::iterator it) {
    // Answers nothing when the kernel dropped the watch with its folder already.
    inotify_rm_watch(fd_, it->second);
    folders_.erase(it->second);
    return folderWds_.erase(it);
  };
  const auto it = folderWds_.find(folder);
  if (it == folderWds_.end()) return false;
  drop(it);
  for (auto below = folderWds_.lower_bound(folder + "/");
       below != folderWds_.end() && IsBelow(below->first, folder);)
    below = drop(below);
  EraseBelow(&writing_, folder);
  EraseBelow(&opens_, folder);
  return true;
}

void QDirWatch::DropTreeLocked() {
  for (const auto& f : folderWds_) inotify_rm_watch(fd_, f.second);
  folderWds_.clear();
  folders_.clear();
  if (dirWd_ >= 0) folders_[dirWd_] = "";
}

int QDirWatch::TakeChanges(std::vector<std::string>* changed, std::vector<std::string>* writing) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fd_ >= 0) ReadEventsLocked();
  if (fd_ >= 0 && dirWd_ < 0) ReturnLocked();
  // What was read here may hold a new name to settle, of which the watcher, asleep, knows nothing.
  if (fd_ >= 0 && OwnLookLocked() >= 0) Kick(kickFd_, name_);
  WritingLocked(writing);
  if (changed) changed->clear();
  if (!PendingLocked()) return 0;
  if (GapLeftLocked() > 0) {
    // The watcher may not know of changes read here; it wakes the owner when the gap is over.
    if (!woken_) Kick(kickFd_, name_);
    return 0;
  }
  const int count = int(changed_.size()) + lost_;
  if (changed) changed->assign(changed_.begin(), changed_.end());
  changed_.clear();
  lost_ = 0;
  woken_ = false;
  lastTake_ = std::chrono::steady_clock::now();
  return count;
}

void QDirWatch::Writing(std::vector<std::string>* writing) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fd_ >= 0) ReadEventsLocked();
  // Changes read here would otherwise wait for the owner's next occasion.
  if ((PendingLocked() && !woken_) || (fd_ >= 0 && OwnLookLocked() >= 0)) Kick(kickFd_, name_);
  WritingLocked(writing);
}

void QDirWatch::WritingLocked(std::vector<std::string>* writing) const {
  if (!writing) return;
  writing->clear();
  for (const auto& w : writing_) writing->push_back(w.first);
}
