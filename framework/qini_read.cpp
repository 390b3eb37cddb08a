// QIni: the reader. A tokenizer over the file's bytes with fixed-size words and texts, a
// bounded stack of open groups, and no recursion, so no input can overflow anything.
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "framework/qdebug.h"
#include "framework/qini.h"
#include "framework/qmessage.h"

namespace {

bool IsSpace(unsigned char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == 0xA0; }
// A tab does not end a word: names with tabs inside are what existing files contain.
bool EndsWord(unsigned char c) { return c == ' ' || c == '\n' || c == '\r' || c == '=' || c == '~' || c == 0xA0; }

class Tokenizer {
 public:
  Tokenizer(const char* data, size_t size, int* line)
      : p_(reinterpret_cast<const unsigned char*>(data)), end_(p_ + size), line_(line) {}

  // Skips whitespace; answers the next byte without taking it, or -1 at the end.
  int Peek() {
    while (p_ < end_ && IsSpace(*p_)) {
      if (*p_ == '\n') ++*line_;
      ++p_;
    }
    return p_ < end_ ? *p_ : -1;
  }
  void Take() { ++p_; }

  // The word at the cursor, cut at QIni::MAX_WORD bytes (the rest of it is skipped).
  void Word(std::string* out) {
    const unsigned char* start = p_;
    while (p_ < end_ && !EndsWord(*p_)) ++p_;
    Cut(start, out);
  }
  // The rest of the line, untrimmed, cut at QIni::MAX_WORD bytes; the line end stays.
  void Rest(std::string* out) {
    const unsigned char* start = p_;
    while (p_ < end_ && *p_ != '\r' && *p_ != '\n') ++p_;
    Cut(start, out);
  }

 private:
  void Cut(const unsigned char* start, std::string* out) {
    size_t n = static_cast<size_t>(p_ - start);
    if (n > static_cast<size_t>(QIni::MAX_WORD)) n = QIni::MAX_WORD;
    // Text stops at a zero byte, as every consumer of the value sees it as a C string.
    const void* zero = memchr(start, 0, n);
    if (zero) n = static_cast<size_t>(static_cast<const unsigned char*>(zero) - start);
    out->assign(reinterpret_cast<const char*>(start), n);
  }

  const unsigned char* p_;
  const unsigned char* end_;
  int* line_;
};

}  // namespace

bool QIni::ReadFile() {
  const char* name = GetFileName();
  FILE* fp = *name ? fopen(name, "rb") : nullptr;
  if (!fp) {
    flags_ &= ~FOUND;
    if (!(flags_ & SILENT)) {
      std::error_code ec;
      std::string cwd = std::filesystem::current_path(ec).string();
      QWARN("QIni::Read", "can't open ini file '%s', current directory is '%s'", name, cwd.c_str());
    }
    return false;
  }
  flags_ |= FOUND;
  std::string data;
  char chunk[65536];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), fp)) > 0) data.append(chunk, got);
  fclose(fp);
  RememberFileTime();
  Parse(data.data(), data.size());
  return true;
}

void QIni::RememberFileTime() {
  std::error_code ec;
  fileTime_ = std::filesystem::last_write_time(GetFileName(), ec);
  hasFileTime_ = !ec;
}

void QIni::ReadFromMemory(const char* data, size_t size) {
  Clear();
  Parse(data ? data : "", data ? size : 0);
}

void QIni::Parse(const char* data, size_t size) {
  line_ = 1;
  // Editors on some desktops lead a UTF-8 file with a byte-order mark; it is no part of the
  // first key, and a write puts it back.
  bom_ = size >= 3 && memcmp(data, "\xEF\xBB\xBF", 3) == 0;
  if (bom_) {
    data += 3;
    size -= 3;
  }
  Tokenizer tok(data, size, &line_);
  QIniNode* stack[MAX_LEVEL];
  int level = 0;
  long excess = 0;  // open groups beyond the nesting limit
  stack[0] = root_;
  QIniNode* sym = nullptr;  // the current symbol
  std::string text;
  const char* file = GetFileName();

  for (int c = tok.Peek(); c >= 0; c = tok.Peek()) {
    switch (c) {
      case ';':
        tok.Take();
        tok.Rest(&text);
        if (QIniNode* n = NewNode(stack[level], QIniNode::COMMENT, ";")) SetValue(n, text.c_str());
        break;

      case '=':
        tok.Take();
        if (!sym) {
          // The text after it is read as words.
          QWARN("QIni::Read", "QIni: assign without symbol in line %d", line_);
          break;
        }
        tok.Rest(&text);
        SetValue(sym, text.c_str());
        Index(sym);
        break;

      case '{':
        tok.Take();
        if (!sym) {
          QWARN("QIni::Read", "QIni: { without groupname");
          break;
        }
        sym->type_ = QIniNode::GROUP;
        if (level + 1 >= MAX_LEVEL) {
          // The group stays empty and its content lands in the deepest open group, so no tree
          // is ever deeper than MAX_LEVEL; its "}" is still counted, so the brackets after it
          // keep their meaning (and a written tree reads back the same).
          QWARN("QIni::Read", "QIni: '%s' nests too deep (max %d levels)", sym->name_.cstr(), MAX_LEVEL);
          ++excess;
        } else {
          stack[++level] = sym;
        }
        sym = nullptr;
        break;

      case '}':
        tok.Take();
        if (excess > 0)
          --excess;
        else if (level == 0)
          QERR("QIni::Read", "QIni(%s); more '}' brackets than '{' near line %d", file, line_);
        else
          --level;
        sym = nullptr;
        if (flags_ & FIRST_GROUP) return;
        break;

      case '~': {
        tok.Take();
        tok.Rest(&text);
        if (!sym) {
          QWARN("QIni::Read", "Reference without symbol in %s, line %d", file, line_);
          break;
        }
        if (qdbgStrict() && strncmp(text.c_str(), "ref_", 4) != 0)
          QWARN("QIni::Read", "Reference '%s' in '%s', line %d should preferably start with 'ref_'",
                text.c_str(), file, line_);
        QIniNode* target = FindGroupNode(text.c_str());
        if (!target || text.empty()) {
          QWARN("QIni::Read", "QIni(%s): reference (~) to unknown tree '%s' in line %d", file,
                text.c_str(), line_);
          break;
        }
        if (!target->child_)
          QWARN("QIni::Read", "QIni(%s): ref to tree '%s' without child in line %d", file,
                text.c_str(), line_);
        sym->type_ = QIniNode::GROUP;
        sym->ref_ = target;
        break;
      }

      default:
        tok.Word(&text);
        if (text.find('.') != std::string::npos) {
          QWARN("QIni::Read", "QIni(%s): key with '.' found (%s) - won't work; use { } to define subtrees (line %d)",
                file, text.c_str(), line_);
          sym = nullptr;
        } else if (text.empty()) {
          // Only a zero byte can make an empty word; there is nothing to name.
          sym = nullptr;
        } else {
          sym = NewNode(stack[level], QIniNode::SYMBOL, text.c_str());
        }
        break;
    }
  }

  if (level + excess > 0)
    QERR("QIni::Read", "QIni(%s); brackets don't match; still %ld closing bracket(s) expected at end of file.",
         file, level + excess);
  else if (level < 0)
    QERR("QIni::Read", "QIni(%s); too many closing bracket(s) found (%d).", file, -level);
}
