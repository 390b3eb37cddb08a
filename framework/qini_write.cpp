// QIni: writing the tree back to a file, the debug listing, and the iterator. Every walk uses
// an explicit stack, so the depth of a tree never turns into the depth of the call stack.
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "framework/qerror.h"
#include "framework/qini.h"
#include "framework/qmessage.h"

namespace {

void Indent(std::string* s, int level) {
  if (level > 0) s->append(static_cast<size_t>(level) * 2, ' ');
}

// One open group of a walk: its next child to visit and the level of its children.
struct Frame {
  const QIniNode* next;
  int level;
  bool braces;
};

}  // namespace

void QIni::WriteNode(qstring* out, const QIniNode* group, int level) const {
  if (!out || !group) return;
  std::string s;
  std::vector<Frame> stack;
  stack.push_back({group->GetChild(), level, false});
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (!top.next) {
      bool braces = top.braces;
      int childLevel = top.level;
      stack.pop_back();
      if (braces) {
        Indent(&s, childLevel - 1);
        s += "}\n";
      }
      continue;
    }
    const QIniNode* n = top.next;
    int lv = top.level;
    top.next = n->GetNext();
    if (n->IsDeleted()) continue;
    const char* value = n->GetValue() ? n->GetValue() : "";
    switch (n->GetType()) {
      case QIniNode::COMMENT:
        Indent(&s, lv);
        s += ";";
        s += value;
        s += "\n";
        break;
      case QIniNode::SYMBOL:
        Indent(&s, lv);
        s += n->GetName();
        s += "=";
        s += value;
        s += "\n";
        break;
      case QIniNode::GROUP:
        // A group named "root" stands for its children; this is what leaves the root out.
        if (strcmp(n->GetName(), "root") == 0) {
          stack.push_back({n->GetChild(), lv + 1, false});
          break;
        }
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
        stack.push_back({n->GetChild(), lv + 1, true});
        break;
      default:
        QERR("QIni::WriteNode", "QIni:Write() internal error; unknown node type");
        break;
    }
  }
  *out += s.c_str();
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
  FILE* fp = fopen(target, "wb");
  if (!fp) return true;
  QNOTE("QIni::Write", "Writing ini file '%s'", target);
  qstring text;
  WriteToString(&text);
  size_t len = static_cast<size_t>(text.Length());
  bool ok = fwrite(text.cstr(), 1, len, fp) == len;
  ok = (fclose(fp) == 0) && ok;
  if (!ok) {
    QWARN("QIni::Write", "QIni:Write(); file (%s) can't be written", target);
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
  std::vector<Frame> stack;
  stack.push_back({root_->GetChild(), 0, false});
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (!top.next) {
      bool braces = top.braces;
      int childLevel = top.level;
      stack.pop_back();
      if (braces) {
        std::string indent;
        Indent(&indent, childLevel - 1);
        QDBG("QIni::DbgPrint", "%s}\n", indent.c_str());
      }
      continue;
    }
    const QIniNode* n = top.next;
    int lv = top.level;
    top.next = n->GetNext();
    if (n->IsDeleted()) continue;
    const char* value = n->GetValue() ? n->GetValue() : "";
    if (unusedOnly) {
      if (n->GetType() == QIniNode::SYMBOL && !(n->GetFlags() & QIniNode::USED)) {
        qstring path;
        n->GetFullPath(&path);
        QWARN("QIni::DbgPrint", "- %s (=%s)\n", path.cstr(), value);
      }
      if (n->GetType() == QIniNode::GROUP) stack.push_back({n->GetChild(), lv + 1, false});
      continue;
    }
    std::string indent;
    Indent(&indent, lv);
    QDBG("QIni::DbgPrint", "%s%s=%s\n", indent.c_str(), n->GetName(), value);
    if (n->GetType() == QIniNode::GROUP) {
      QDBG("QIni::DbgPrint", "%s{\n", indent.c_str());
      stack.push_back({n->GetChild(), lv + 1, true});
    }
  }
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
