// qstring: storage, assignment and the 8-bit operations.
#include "framework/qstring.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {
const char kEmpty[] = "";
const char kUnicodeNyi[] = "<unicodestr-nyi>";
}  // namespace

// ---------------------------------------------------------------------------------------------
// Latin-1 case conversion
// ---------------------------------------------------------------------------------------------

int qtoupper(int c) {
  c &= 0xFF;
  if (c >= 'a' && c <= 'z') return c - 32;
  // Latin-1 letters a-grave..thorn, except the division sign.
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
  return c;
}

int qtolower(int c) {
  c &= 0xFF;
  if (c >= 'A' && c <= 'Z') return c + 32;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;
  return c;
}

void qstrupr(char* s) {
  if (!s) return;
  for (; *s; ++s) *s = static_cast<char>(qtoupper(static_cast<unsigned char>(*s)));
}

void qstrlwr(char* s) {
  if (!s) return;
  for (; *s; ++s) *s = static_cast<char>(qtolower(static_cast<unsigned char>(*s)));
}

int qnamecmp(const char* a, const char* b) {
  const unsigned char* x = reinterpret_cast<const unsigned char*>(a ? a : "");
  const unsigned char* y = reinterpret_cast<const unsigned char*>(b ? b : "");
  for (;; ++x, ++y) {
    // ASCII letters only: a UTF-8 byte folded as Latin-1 would turn one name into another.
    const int cx = *x >= 'A' && *x <= 'Z' ? *x + 32 : *x;
    const int cy = *y >= 'A' && *y <= 'Z' ? *y + 32 : *y;
    if (cx != cy || !cx) return cx - cy;
  }
}

// ---------------------------------------------------------------------------------------------
// UTF-8
// ---------------------------------------------------------------------------------------------

int32_t qutf8decode(const unsigned char** text, const unsigned char* end) {
  const unsigned char* s = *text;
  const uint32_t c = *s;
  int extra = 0;
  uint32_t min = 0;
  if (c >= 0xC2 && c < 0xE0) {
    extra = 1, min = 0x80;
  } else if (c >= 0xE0 && c < 0xF0) {
    extra = 2, min = 0x800;
  } else if (c >= 0xF0 && c < 0xF5) {
    extra = 3, min = 0x10000;
  } else {
    *text = s + 1;
    return c < 0x80 ? int32_t(c) : -1;
  }
  uint32_t cp = c & (0x3Fu >> extra);
  int i = 1;
  // Without an end, the terminating zero (no continuation byte) stops the sequence.
  for (; i <= extra && (!end || s + i < end) && (s[i] & 0xC0) == 0x80; ++i)
    cp = (cp << 6) | (s[i] & 0x3F);
  // Cut short, overlong, a surrogate or past U+10FFFF: only the first byte is used up.
  if (i <= extra || cp < min || (cp >= 0xD800 && cp < 0xE000) || cp > 0x10FFFF) {
    *text = s + 1;
    return -1;
  }
  *text = s + extra + 1;
  return int32_t(cp);
}

uint32_t qutf8next(const unsigned char** text) {
  const unsigned char first = **text;
  const int32_t cp = qutf8decode(text, nullptr);
  return cp < 0 ? first : uint32_t(cp);
}

// ---------------------------------------------------------------------------------------------
// Storage
// ---------------------------------------------------------------------------------------------

qstring::qstring(const char* s) { *this = s; }

qstring::qstring(const qstring& o) { *this = o; }

qstring::qstring(qstring&& o) noexcept
    : flags_(o.flags_), text_(o.text_), wide_(o.wide_), capacity_(o.capacity_) {
  o.flags_ = 0;
  o.text_ = nullptr;
  o.wide_ = nullptr;
  o.capacity_ = 0;
}

qstring::~qstring() {
  qfree(text_);
  qfree(wide_);
}

qstring& qstring::operator=(qstring&& o) noexcept {
  if (this == &o) return *this;
  qfree(text_);
  qfree(wide_);
  flags_ = o.flags_;
  text_ = o.text_;
  wide_ = o.wide_;
  capacity_ = o.capacity_;
  o.flags_ = 0;
  o.text_ = nullptr;
  o.wide_ = nullptr;
  o.capacity_ = 0;
  return *this;
}

qstring& qstring::operator=(const qstring& o) {
  if (this == &o) return *this;
  if (o.IsUnicode()) {
    SetWide(o.wide_);
    return *this;
  }
  return *this = o.text_ ? o.text_ : kEmpty;
}

qstring& qstring::operator=(const char* s) {
  if (IsUnicode()) {
    qfree(wide_);
    wide_ = nullptr;
    flags_ &= ~UNICODE;
  }
  if (!s) {
    // A null pointer leaves an empty string.
    if (text_) text_[0] = 0;
    return *this;
  }
  if (s >= text_ && text_ && s < text_ + capacity_) {
    // Assigning a part of ourselves.
    qstring copy(s);
    return *this = static_cast<qstring&&>(copy);
  }
  int n = static_cast<int>(strlen(s)) + 1;
  if (capacity_ != n) {
    char* buf = static_cast<char*>(qmalloc(n));
    if (!buf) qfatal("qstring:Resize realloc failed");
    qfree(text_);
    text_ = buf;
    capacity_ = n;
  }
  memcpy(text_, s, n);
  return *this;
}

void qstring::SetWide(const uint16_t* w) {
  int n = 0;
  while (w && w[n]) ++n;
  uint16_t* buf = static_cast<uint16_t*>(qcalloc((n + 1) * sizeof(uint16_t)));
  if (!buf) qfatal("qstring:Resize realloc failed");
  if (n) memcpy(buf, w, n * sizeof(uint16_t));
  qfree(wide_);
  wide_ = buf;
  flags_ |= UNICODE;
}

const char* qstring::cstr() const {
  if (IsUnicode()) return kUnicodeNyi;
  return text_ ? text_ : kEmpty;
}

int qstring::Length() const {
  if (IsUnicode()) {
    int n = 0;
    while (wide_ && wide_[n]) ++n;
    return n;
  }
  return text_ ? static_cast<int>(strlen(text_)) : 0;
}

void qstring::Resize(int n) {
  if (capacity_ >= n) return;
  char* buf = static_cast<char*>(qcalloc(n));
  if (!buf) qfatal("qstring:Resize realloc failed");
  if (text_) memcpy(buf, text_, capacity_);
  qfree(text_);
  text_ = buf;
  capacity_ = n;
}

void qstring::Clear() { *this = kEmpty; }

qstring& qstring::operator+=(const char* s) {
  if (RefuseUnicode("qstring:+=() NYI for Unicode") || !s) return *this;
  int len = Length();
  int add = static_cast<int>(strlen(s));
  if (text_ && s >= text_ && s < text_ + capacity_) {
    qstring copy(s);
    return *this += copy.cstr();
  }
  Resize(len + add + 1);
  memcpy(text_ + len, s, add + 1);
  return *this;
}

qstring& qstring::operator+=(char c) {
  char s[2] = {c, 0};
  return *this += s;
}

qstring& qstring::operator+=(const void* p) {
  char buf[32];
  snprintf(buf, sizeof(buf), "%p", p);
  return *this += buf;
}

bool qstring::operator==(const char* s) const { return strcmp(cstr(), s ? s : kEmpty) == 0; }

char& qstring::operator[](int i) {
  static char scratch;
  int len = Length();
  if (IsUnicode() || i < 0 || i >= len) {
    qwarn("qstring.cpp", "qstring::operator[]", __LINE__,
          "qstring(%s): ([]) index %d out of range (0..%d)", cstr(), i, len - 1);
    scratch = 0;
    return scratch;
  }
  return text_[i];
}

char qstring::operator[](int i) const {
  int len = Length();
  if (IsUnicode() || i < 0 || i >= len) {
    qwarn("qstring.cpp", "qstring::operator[]", __LINE__,
          "qstring(%s): (const[]) index %d out of range (0..%d)", cstr(), i, len - 1);
    return 0;
  }
  return text_[i];
}

void qstring::Format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list ap2;
  va_copy(ap2, ap);
  int n = vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  if (n < 0) {
    va_end(ap2);
    Clear();
    return;
  }
  char* buf = static_cast<char*>(qmalloc(n + 1));
  if (!buf) qfatal("qstring:Resize realloc failed");
  vsnprintf(buf, n + 1, fmt, ap2);
  va_end(ap2);
  *this = buf;
  qfree(buf);
}

bool qstring::RefuseUnicode(const char* what) const {
  if (!IsUnicode()) return false;
  qwarn("qstring.cpp", "qstring", __LINE__, "%s", what);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Path, search and conversion helpers
// ---------------------------------------------------------------------------------------------

namespace {

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

bool IsAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// A Latin-1 letter is anything the case tables move one way or the other.
bool IsLatin1Letter(char c) {
  int u = static_cast<unsigned char>(c);
  return qtoupper(u) != u || qtolower(u) != u || u == 0xDF || u == 0xFF;
}

// Index of the last separator of either kind, or -1.
int LastSeparator(const char* s) {
  int last = -1;
  for (int i = 0; s[i]; ++i)
    if (IsSeparator(s[i])) last = i;
  return last;
}

// Digits, at least one.
bool ScanDigits(const char*& p) {
  const char* start = p;
  while (IsDigit(*p)) ++p;
  return p != start;
}

// ConvertEnv builds its result here; longer results are cut.
constexpr int kEnvBufSize = 10240;

}  // namespace

bool qstring::CutPath() {
  if (RefuseUnicode("qstring:CutPath() NYI for Unicode")) return false;
  int sep = LastSeparator(cstr());
  if (sep < 0) return false;
  int len = Length();
  memmove(text_, text_ + sep + 1, len - sep);
  return true;
}

bool qstring::CutFile() {
  if (RefuseUnicode("qstring:CutFile() NYI for Unicode")) return false;
  int sep = LastSeparator(cstr());
  if (sep < 0) return false;
  text_[sep] = 0;
  return true;
}

bool qstring::CutFirstDirectory() {
  if (RefuseUnicode("qstring:CutFirstDirectory() NYI for Unicode")) return false;
  const char* s = cstr();
  int sep = -1;
  for (int i = 0; s[i]; ++i) {
    if (IsSeparator(s[i])) {
      sep = i;
      break;
    }
  }
  if (sep < 0) return false;
  int len = Length();
  memmove(text_, text_ + sep + 1, len - sep);
  return true;
}

bool qstring::CutExtension() {
  if (RefuseUnicode("qstring:CutExtension() NYI for Unicode")) return false;
  // The whole string is searched, separators included: callers rely on that.
  int dot = FindLast('.');
  if (dot < 0) return false;
  text_[dot] = 0;
  return true;
}

bool qstring::CutUnderscoredNumber() {
  if (RefuseUnicode("qstring:CutUnderscoredNumber() NYI for Unicode")) return false;
  // Scans back from the end; position 0 is never looked at, so "_12" stays.
  for (int i = Length() - 1; i > 0; --i) {
    if (text_[i] == '_') {
      text_[i] = 0;
      return true;
    }
    if (!IsDigit(text_[i])) return false;
  }
  return false;
}

void qstring::CutLeadingSpaces() {
  if (RefuseUnicode("qstring:CutLeadingSpaces() NYI for Unicode") || !text_) return;
  int n = 0;
  while (IsBlank(text_[n])) ++n;
  if (n) memmove(text_, text_ + n, Length() - n + 1);
}

void qstring::CutTrailingSpaces() {
  if (RefuseUnicode("qstring:CutTrailingSpaces() NYI for Unicode") || !text_) return;
  int len = Length();
  while (len > 0 && IsBlank(text_[len - 1])) text_[--len] = 0;
}

void qstring::CutTrailingLF() {
  if (RefuseUnicode("qstring:CutTrailingLF() NYI for Unicode") || !text_) return;
  int len = Length();
  while (len > 0 && (text_[len - 1] == '\n' || text_[len - 1] == '\r')) text_[--len] = 0;
}

void qstring::ConvertEnv() {
  if (RefuseUnicode("qstring:ConvertEnv() NYI for Unicode") || !text_) return;
  char buf[kEnvBufSize];
  int out = 0;
  bool cut = false;
  // Copies up to n bytes, keeping room for the terminator.
  auto put = [&](const char* s, int n) {
    int room = kEnvBufSize - 1 - out;
    if (n > room) {
      n = room;
      cut = true;
    }
    memcpy(buf + out, s, n);
    out += n;
  };
  const char* s = text_;
  while (*s) {
    const char* open = strchr(s, '%');
    if (!open) {
      put(s, static_cast<int>(strlen(s)));
      break;
    }
    const char* close = strchr(open + 1, '%');
    if (!close) {
      // A lone "%" is ordinary text.
      put(s, static_cast<int>(strlen(s)));
      break;
    }
    put(s, static_cast<int>(open - s));
    qstring name;
    name.Resize(static_cast<int>(close - open));
    memcpy(name.text_, open + 1, close - open - 1);
    const char* value = getenv(name.cstr());
    if (value) put(value, static_cast<int>(strlen(value)));
    s = close + 1;
  }
  buf[out] = 0;
  if (cut)
    QWARN("qstring::ConvertEnv", "qstring: result longer than %d characters, cut at '%.40s...'",
          kEnvBufSize - 1, text_);
  *this = buf;
}

// ---------------------------------------------------------------------------------------------
// Searching
// ---------------------------------------------------------------------------------------------

int qstring::Find(const char* s, int start) const {
  if (RefuseUnicode("qstring:Find() NYI for Unicode") || !s) return -1;
  int len = Length();
  if (start < 0) start = 0;
  if (start > len) return -1;
  const char* hit = strstr(cstr() + start, s);
  return hit ? static_cast<int>(hit - cstr()) : -1;
}

int qstring::Find(char c, int start) const {
  if (RefuseUnicode("qstring:Find(c) NYI for UC") || c == 0) return -1;
  int len = Length();
  if (start < 0) start = 0;
  if (start > len) return -1;
  const char* hit = strchr(cstr() + start, c);
  return hit ? static_cast<int>(hit - cstr()) : -1;
}

int qstring::FindLast(const char* s) const {
  if (RefuseUnicode("qstring:FindLast() NYI for Unicode") || !s) return -1;
  const char* t = cstr();
  int len = Length();
  int n = static_cast<int>(strlen(s));
  for (int i = len - n; i >= 0; --i)
    if (memcmp(t + i, s, n) == 0) return i;
  return -1;
}

int qstring::FindLast(char c) const {
  if (RefuseUnicode("qstring:FindLast(c) NYI for UC") || c == 0) return -1;
  const char* hit = strrchr(cstr(), c);
  return hit ? static_cast<int>(hit - cstr()) : -1;
}

bool qstring::ContainsUppercase() const {
  if (RefuseUnicode("qstring:ContainsUppercase() NYI for Unicode")) return false;
  for (const char* p = cstr(); *p; ++p) {
    int c = static_cast<unsigned char>(*p);
    if (qtolower(c) != c) return true;
  }
  return false;
}

int qstring::Count(char c) const {
  if (RefuseUnicode("qstring:Count(c) NYI for UC")) return 0;
  int n = 0;
  for (const char* p = cstr(); *p; ++p)
    if (*p == c) ++n;
  return n;
}

bool qstring::BeginsWith(const char* s) const {
  if (RefuseUnicode("qstring:BeginsWith() NYI for Unicode") || !s) return false;
  return strncmp(cstr(), s, strlen(s)) == 0;
}

bool qstring::EndsWith(const char* s) const {
  if (RefuseUnicode("qstring:EndsWith() NYI for Unicode") || !s) return false;
  int len = Length();
  int n = static_cast<int>(strlen(s));
  return n <= len && memcmp(cstr() + len - n, s, n) == 0;
}

bool qstring::GetSubstring(int start, int n, qstring* out) const {
  if (RefuseUnicode("qstring:GetSubstring() NYI for Unicode") || !out) return false;
  int len = Length();
  if (start < 0 || start > len) return false;
  if (n < 0 || n > len - start) n = len - start;
  qstring part;
  part.Resize(n + 1);
  memcpy(part.text_, cstr() + start, n);
  *out = static_cast<qstring&&>(part);
  return true;
}

char qstring::GetFirstChar() const {
  if (RefuseUnicode("qstring:GetFirstChar() NYI for Unicode")) return 0;
  return cstr()[0];
}

char qstring::GetLastChar() const {
  if (RefuseUnicode("qstring:GetLastChar() NYI for Unicode")) return 0;
  int len = Length();
  return len ? text_[len - 1] : 0;
}

bool qstring::GetLine(int n, qstring* out) const {
  if (RefuseUnicode("qstring:GetLine() NYI for Unicode") || !out || n < 0) return false;
  const char* p = cstr();
  for (int line = 0; *p; ++line) {
    const char* end = strchr(p, '\n');
    int size = end ? static_cast<int>(end - p) : static_cast<int>(strlen(p));
    if (line == n) {
      if (size > 0 && p[size - 1] == '\r') --size;
      return GetSubstring(static_cast<int>(p - cstr()), size, out);
    }
    if (!end) break;
    p = end + 1;
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// Editing and classification
// ---------------------------------------------------------------------------------------------

int qstring::ReplaceAll(const char* what, const char* with) {
  if (RefuseUnicode("qstring:ReplaceAll() NYI for Unicode") || !what || !*what) return 0;
  if (!with) with = kEmpty;
  const char* t = cstr();
  int whatLen = static_cast<int>(strlen(what));
  int withLen = static_cast<int>(strlen(with));
  int count = 0;
  for (const char* p = strstr(t, what); p; p = strstr(p + whatLen, what)) ++count;
  if (!count) return 0;
  long long size = Length() + static_cast<long long>(count) * (withLen - whatLen) + 1;
  if (size > INT32_MAX) {
    QWARN("qstring::ReplaceAll", "qstring: replacing '%s' by '%.40s' gives more than %d characters",
          what, with, INT32_MAX);
    return 0;
  }
  qstring result;
  result.Resize(static_cast<int>(size));
  char* out = result.text_;
  const char* p = t;
  for (const char* hit = strstr(p, what); hit; hit = strstr(p, what)) {
    memcpy(out, p, hit - p);
    out += hit - p;
    memcpy(out, with, withLen);
    out += withLen;
    p = hit + whatLen;
  }
  memcpy(out, p, strlen(p) + 1);
  *this = static_cast<qstring&&>(result);
  return count;
}

void qstring::Capitalize() {
  if (RefuseUnicode("qstring:Capitalize() NYI for Unicode") || !text_) return;
  bool wordStart = true;
  for (char* p = text_; *p; ++p) {
    int c = static_cast<unsigned char>(*p);
    bool letter = IsLatin1Letter(*p);
    if (letter) *p = static_cast<char>(wordStart ? qtoupper(c) : qtolower(c));
    // Digits and apostrophes continue a word ("4th", "o'clock").
    wordStart = !(letter || IsDigit(*p) || *p == '\'');
  }
}

bool qstring::LeavePostfix(char c) {
  if (RefuseUnicode("qstring:LeavePostfix() NYI for Unicode")) return false;
  int at = FindLast(c);
  if (at < 0) return false;
  memmove(text_, text_ + at + 1, Length() - at);
  return true;
}

void qstring::MakeID() {
  if (RefuseUnicode("qstring:MakeID() NYI for Unicode") || !text_) return;
  for (char* p = text_; *p; ++p)
    if (!IsAsciiLetter(*p) && !IsDigit(*p) && *p != '_') *p = '_';
  if (IsDigit(text_[0])) {
    qstring id("_");
    id += text_;
    *this = static_cast<qstring&&>(id);
  }
}

bool qstring::IsFileName() const {
  if (RefuseUnicode("qstring:IsFileName() NYI for Unicode")) return false;
  const char* s = cstr();
  if (!*s || strcmp(s, ".") == 0 || strcmp(s, "..") == 0) return false;
  for (; *s; ++s) {
    if (static_cast<unsigned char>(*s) < 32 || strchr("/\\:*?\"<>|", *s)) return false;
  }
  return true;
}

bool qstring::IsNumber() const {
  if (RefuseUnicode("qstring:IsNumber() NYI for Unicode")) return false;
  const char* p = cstr();
  if (*p == '+' || *p == '-') ++p;
  return ScanDigits(p) && *p == 0;
}

bool qstring::IsFloat() const {
  if (RefuseUnicode("qstring:IsFloat() NYI for Unicode")) return false;
  const char* p = cstr();
  if (*p == '+' || *p == '-') ++p;
  bool whole = ScanDigits(p);
  bool fraction = false;
  if (*p == '.') {
    ++p;
    fraction = ScanDigits(p);
  }
  if (!whole && !fraction) return false;
  if (*p == 'e' || *p == 'E') {
    ++p;
    if (*p == '+' || *p == '-') ++p;
    if (!ScanDigits(p)) return false;
  }
  return *p == 0;
}

void qstring::ToUpper() {
  if (RefuseUnicode("qstring:ToUpper() NYI for Unicode")) return;
  qstrupr(text_);
}

void qstring::ToLower() {
  if (RefuseUnicode("qstring:ToLower() NYI for Unicode")) return;
  qstrlwr(text_);
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

namespace {
struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
}  // namespace

bool qstring::FromFile(const char* fileName) {
  if (RefuseUnicode("qstring:FromFile() NYI for Unicode")) return false;
  FilePtr f(fileName ? fopen(fileName, "rb") : nullptr);
  if (!f) {
    QWARN("qstring::FromFile", "qstring: can't open '%s'", fileName ? fileName : "(null)");
    return false;
  }
  // Read in chunks: the size of pipes and special files is not known in advance.
  std::vector<char> data;
  char chunk[16384];
  size_t got;
  while ((got = fread(chunk, 1, sizeof(chunk), f.get())) > 0) {
    if (data.size() + got >= static_cast<size_t>(INT32_MAX)) {
      QWARN("qstring::FromFile", "qstring: file '%s' is too large", fileName);
      return false;
    }
    data.insert(data.end(), chunk, chunk + got);
  }
  if (ferror(f.get())) {
    QWARN("qstring::FromFile", "qstring: read error in '%s'", fileName);
    return false;
  }
  data.push_back(0);
  *this = data.data();
  return true;
}

bool qstring::ToFile(const char* fileName) const {
  if (RefuseUnicode("qstring:ToFile() NYI for Unicode")) return false;
  FilePtr f(fileName ? fopen(fileName, "wb") : nullptr);
  if (!f) {
    QWARN("qstring::ToFile", "qstring: can't create '%s'", fileName ? fileName : "(null)");
    return false;
  }
  size_t len = static_cast<size_t>(Length());
  if (fwrite(cstr(), 1, len, f.get()) != len || fclose(f.release()) != 0) {
    QWARN("qstring::ToFile", "qstring: write error in '%s'", fileName);
    return false;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Validation of configuration values
// ---------------------------------------------------------------------------------------------

namespace {
// The first character outside `allowed` decides the reason.
bool Validate(const char* s, const char* allowed, bool dotIsFloat, qstring* reason) {
  for (; *s; ++s) {
    if (IsDigit(*s) || strchr(allowed, *s)) continue;
    if (reason) {
      if (dotIsFloat && *s == '.') {
        *reason = "a '.' is not allowed (floating point)";
      } else {
        *reason = "character '";
        *reason += *s;
        *reason += "' is not allowed";
      }
    }
    return false;
  }
  if (reason) reason->Clear();
  return true;
}
}  // namespace

bool qstring::ValidateInt(qstring* reason) const {
  if (IsUnicode()) {
    QERR("qstring::ValidateInt", "Not supported for Unicode");
    return true;
  }
  return Validate(cstr(), " -+*%", true, reason);
}

bool qstring::ValidateFloat(qstring* reason) const {
  if (IsUnicode()) {
    QERR("qstring::ValidateFloat", "Not supported for Unicode");
    return true;
  }
  return Validate(cstr(), " +-.eE", false, reason);
}

// ---------------------------------------------------------------------------------------------
// 16-bit mode
// ---------------------------------------------------------------------------------------------

void qstring::ASCII2UC() {
  if (IsUnicode()) {
    QWARN("qstring::ASCII2UC", "qstring::ASCII2UC(); string is already unicode");
    return;
  }
  // Bytes are Latin-1, which maps one to one onto the first 256 code points.
  const char* s = cstr();
  std::vector<uint16_t> wide;
  for (; *s; ++s) wide.push_back(static_cast<unsigned char>(*s));
  wide.push_back(0);
  SetWide(wide.data());
}

void qstring::QC2UC() {
  if (IsUnicode()) {
    QWARN("qstring::QC2UC", "qstring::Q2UC(); string is already unicode");
    return;
  }
  // The text is UTF-8; code points beyond 16 bits become '?'.
  const unsigned char* s = reinterpret_cast<const unsigned char*>(cstr());
  std::vector<uint16_t> wide;
  while (*s) {
    const uint32_t cp = qutf8next(&s);
    wide.push_back(cp > 0xFFFF ? static_cast<uint16_t>('?') : static_cast<uint16_t>(cp));
  }
  wide.push_back(0);
  SetWide(wide.data());
}

void qstring::UC2QC() { QWARN("qstring::UC2QC", "UC2QC nyi"); }
