// QIni: writing the tree back to a file, the debug listing, and the iterator. Every walk uses
// an explicit stack, so the depth of a tree never turns into the depth of the call stack.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "framework/qerror.h"
#include "framework/qini.h"
#include "framework/qmessage.h"

namespace {

constexpr char kBom[] = "\xEF\xBB\xBF";

void Indent(std::string* s, int level) {
  if (level > 0) s->append(static_cast<size_t>(level) * 2, ' ');
}

// What a visitor of Walk wants done with a node's children.
enum class Descend { NO, PLAIN, BRACED };

// Visits the children of `group` (at nesting `level`) depth-first in file order, deleted nodes
// skipped. `visit(node, level)` answers whether to go into a group's children; after the
// children of a BRACED group, `close(level of the group)` is called. Writing and the debug
// listing both walk this way.
template <class Visit, class Close>
void Walk(const QIniNode* group, int level, Visit visit, Close close) {
  // One open group: its next child to visit, the level of its children, and whether it closes.
  struct Frame {
    const QIniNode* next;
    int level;
    bool braces;
  };
  std::vector<Frame> stack;
  stack.push_back({group->GetChild(), level, false});
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (!top.next) {
      const Frame done = top;
      stack.pop_back();
      if (done.braces) close(done.level - 1);
      continue;
    }
    const QIniNode* n = top.next;
    const int lv = top.level;
    top.next = n->GetNext();
    if (n->IsDeleted()) continue;
    const Descend d = visit(n, lv);
    if (d != Descend::NO) stack.push_back({n->GetChild(), lv + 1, d == Descend::BRACED});
  }
}

// The file a write replaces: a symbolic link is followed to its final target, so that the link
// itself stays a link.
std::string WriteTarget(const char* name) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path p(name);
  for (int hops = 0; hops < 40 && fs::is_symlink(fs::symlink_status(p, ec)); ++hops) {
    fs::path to = fs::read_symlink(p, ec);
    if (ec) break;
    p = to.is_absolute() ? to : p.parent_path() / to;
  }
  return p.string();
}

// Replaces `path` by `size` bytes of `data` through a temporary file in the same folder that is
// flushed to the disk and renamed over it, so that a kill, a power cut or a full disk leaves the
// old text or the new one, never a cut file. Answers 0, or the errno of the step that failed (the
// old file is then untouched). A file without any write permission is left alone (EACCES): it
// was made read-only on purpose, and a rename would go past that.
int ReplaceFile(const std::string& path, const char* data, size_t size) {
  struct stat old {};
  const bool exists = stat(path.c_str(), &old) == 0;
  if (exists && access(path.c_str(), W_OK) != 0) return errno;
  if (exists && !(old.st_mode & 0222)) return EACCES;

  std::string temp = path + ".XXXXXX";
  const int fd = mkstemp(&temp[0]);
  if (fd < 0) return errno;
  int err = 0;
  mode_t mode;
  if (exists) {
    mode = old.st_mode & 07777;
    if (fchown(fd, old.st_uid, old.st_gid) != 0) {
      // Only root may give a file away; anyone else writes it as their own, as before.
    }
  } else {
    mode = umask(0);
    umask(mode);
    mode = 0666 & ~mode;
  }
  if (fchmod(fd, mode) != 0) err = errno;
  for (size_t done = 0; !err && done < size;) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) err = n < 0 ? errno : ENOSPC;
    else done += static_cast<size_t>(n);
  }
  if (!err && fsync(fd) != 0) err = errno;
  if (close(fd) != 0 && !err) err = errno;
  if (!err && rename(temp.c_str(), path.c_str()) != 0) err = errno;
  if (err) {
    unlink(temp.c_str());
    return err;
  }
  // The rename itself must reach the disk too.
  const size_t slash = path.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (dfd >= 0) {
    fsync(dfd);
    close(dfd);
  }
  return 0;
}

}  // namespace

void QIni::WriteNode(qstring* out, const QIniNode* group, int level) const {
  if (!out || !group) return;
  std::string s;
  auto visit = [&s](const QIniNode* n, int lv) {
    const char* value = n->GetValue() ? n->GetValue() : "";
    switch (n->GetType()) {
      case QIniNode::COMMENT:
        Indent(&s, lv);
        s += ";";
        s += value;
        s += "\n";
        return Descend::NO;
      case QIniNode::SYMBOL:
        Indent(&s, lv);
        s += n->GetName();
        s += "=";
        s += value;
        s += "\n";
        return Descend::NO;
      case QIniNode::GROUP:
        // A group named "root" stands for its children; this is what leaves the root out.
        if (strcmp(n->GetName(), "root") == 0) return Descend::PLAIN;
        Indent(&s, lv);
        s += n->GetName();
        if (n->GetReference()) {
          qstring path;
          n->GetReference()->GetFullPath(&path);
          s += "~";
          s += path.cstr();
          // "~" takes the rest of its line, so a value goes on a line of its own.
          if (n->GetValue()) {
            s += "\n";
            Indent(&s, lv);
          }
        }
        if (n->GetValue()) {
          s += "=";
          s += value;
        }
        s += "\n";
        Indent(&s, lv);
        s += "{\n";
        return Descend::BRACED;
      default:
        QERR("QIni::WriteNode", "QIni:Write() internal error; unknown node type");
        return Descend::NO;
    }
  };
  Walk(group, level, visit, [&s](int lv) {
    Indent(&s, lv);
    s += "}\n";
  });
  *out += s.c_str();
}

void QIni::WriteToString(qstring* out) const {
  if (!out) return;
  qstring text;
  WriteNode(&text, root_, 0);
  // A first name that begins with the mark's bytes needs a mark before it, or the reader would
  // take its first three bytes for one.
  if (bom_ || strncmp(text.cstr(), kBom, 3) == 0) *out += kBom;
  *out += text.cstr();
}

bool QIni::Write(const char* fileName, bool check) {
  const char* target = fileName;
  if (!target) {
    if (!(flags_ & MODIFIED)) return true;
    target = GetFileName();
  }
  std::error_code ec;
  if (flags_ & NO_READ) {
    flags_ &= ~NO_READ;
  } else if (check && std::filesystem::exists(target, ec)) {
    auto now = std::filesystem::last_write_time(target, ec);
    if (ec || !hasFileTime_ || now != fileTime_) {
      std::string text = std::string("The file '") + target +
                         "' was modified - it will be overwritten; do you want to overwrite?";
      if (!qShowMessageBox("File was modified", text.c_str(), QMB_YESNO_QUESTION)) {
        flags_ &= ~MODIFIED;
        return false;
      }
    }
  }
  QNOTE("QIni::Write", "Writing ini file '%s'", target);
  qstring text;
  WriteToString(&text);
  const int err = ReplaceFile(WriteTarget(target), text.cstr(), static_cast<size_t>(text.Length()));
  if (err) {
    // MODIFIED stays, so a later write may still bring the change to the disk.
    QERR("QIni::Write", "Can't write %s (%s)", target, strerror(err));
    return false;
  }
  flags_ &= ~MODIFIED;
  // Only the own file's time guards the next write; a copy elsewhere does not.
  if (fileName_ == target) RememberFileTime();
  return true;
}

// ---------------------------------------------------------------------------------------------
// Debug listing
// ---------------------------------------------------------------------------------------------

void QIni::DbgPrint(const char* title, bool unusedOnly) const {
  if (!title) title = "";
  if (unusedOnly)
    QWARN("QIni::DbgPrint", "QIni(%s) [%s] - UNUSED KEYS ONLY\n", GetFileName(), title);
  else
    QDBG("QIni::DbgPrint", "QIni(%s) [%s]\n", GetFileName(), title);
  auto visit = [unusedOnly](const QIniNode* n, int lv) {
    const char* value = n->GetValue() ? n->GetValue() : "";
    const bool group = n->GetType() == QIniNode::GROUP;
    if (unusedOnly) {
      if (n->GetType() == QIniNode::SYMBOL && !(n->GetFlags() & QIniNode::USED)) {
        qstring path;
        n->GetFullPath(&path);
        QWARN("QIni::DbgPrint", "- %s (=%s)\n", path.cstr(), value);
      }
      return group ? Descend::PLAIN : Descend::NO;
    }
    std::string indent;
    Indent(&indent, lv);
    QDBG("QIni::DbgPrint", "%s%s=%s\n", indent.c_str(), n->GetName(), value);
    if (!group) return Descend::NO;
    QDBG("QIni::DbgPrint", "%s{\n", indent.c_str());
    return Descend::BRACED;
  };
  Walk(root_, 0, visit, [](int lv) {
    std::string indent;
    Indent(&indent, lv);
    QDBG("QIni::DbgPrint", "%s}\n", indent.c_str());
  });
}

// ---------------------------------------------------------------------------------------------
// Iterator
// ---------------------------------------------------------------------------------------------

QIniIterator::QIniIterator(const QIni* ini, const char* path) {
  const QIniNode* group = ini ? ini->FindGroup(path) : nullptr;
  if (group) {
    stack_[0] = group->GetChild();
    depth_ = 1;
  }
}

const QIniNode* QIniIterator::GetNext() {
  if (depth_ <= 0) return nullptr;
  depth_ = 1;
  while (const QIniNode* n = stack_[0]) {
    stack_[0] = n->GetNext();
    if (!n->IsDeleted() && n->GetType() != QIniNode::COMMENT) return n;
  }
  return nullptr;
}

const QIniNode* QIniIterator::GetNextAny() {
  while (depth_ > 0) {
    const QIniNode* n = stack_[depth_ - 1];
    if (!n) {
      --depth_;
      continue;
    }
    stack_[depth_ - 1] = n->GetNext();
    if (n->IsDeleted()) continue;
    if (n->GetType() == QIniNode::GROUP && n->GetChild()) {
      if (depth_ >= QIni::MAX_LEVEL)
        QERR("QIniIterator::GetNextAny", "nestLevel>%d (QIni::MAX_LEVEL) in QIniIterator",
             QIni::MAX_LEVEL);
      else
        stack_[depth_++] = n->GetChild();
    }
    return n;
  }
  return nullptr;
}
