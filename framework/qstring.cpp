// qstring: storage, assignment and the 8-bit operations.
#include "framework/qstring.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

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
