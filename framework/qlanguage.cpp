// QLanguage: language tables from simple, tree and tagged files.
#include "framework/qlanguage.h"

#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "framework/qfile.h"
#include "framework/qini.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

struct QLanguage::Entry {
  qstring key;
  qstring text;
  uint16_t* wide = nullptr;  // from qmalloc

  ~Entry() { qfree(wide); }
  void SetWide(const uint16_t* w, const char* narrow) {
    size_t n = 0;
    if (w)
      while (w[n]) ++n;
    else
      n = strlen(narrow);
    uint16_t* copy = static_cast<uint16_t*>(qmalloc((n + 1) * sizeof(uint16_t)));
    if (copy) {
      for (size_t i = 0; i < n; ++i)
        copy[i] = w ? w[i] : static_cast<uint16_t>(static_cast<unsigned char>(narrow[i]));
      copy[n] = 0;
    }
    qfree(wide);
    wide = copy;
  }
};

namespace {

constexpr int kMaxParentDepth = 16;

// Answers of the last miss; the next miss overwrites them.
char g_missing[1024];
uint16_t g_missingUC[1024];
const uint16_t kEmptyUC[1] = {0};

// White space of the framework's configuration files.
bool IsSpace(unsigned c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == 0xA0; }

unsigned Code(char c) { return static_cast<unsigned char>(c); }
unsigned Code(uint16_t c) { return c; }

// Trims [begin, end) of either character width in place.
template <typename T>
void Trim(const T*& begin, const T*& end) {
  while (begin < end && IsSpace(Code(*begin))) ++begin;
  while (end > begin && IsSpace(Code(end[-1]))) --end;
}

std::vector<char> Narrow(const uint16_t* begin, const uint16_t* end) {
  std::vector<char> out;
  out.reserve(static_cast<size_t>(end - begin) + 1);
  for (const uint16_t* p = begin; p < end; ++p) out.push_back(static_cast<char>(*p < 256 ? *p : '?'));
  out.push_back(0);
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Table
// ---------------------------------------------------------------------------------------------

QLanguage::QLanguage(const char* fileName, int type) { Open(fileName, type); }

QLanguage::~QLanguage() {
  Clear();
  if (entries_) {
    for (int i = 0; i < MAX_STRINGS; ++i) entries_[i].~Entry();
    qfree(entries_);
  }
}

void QLanguage::Clear() {
  for (int i = 0; i < count_; ++i) {
    entries_[i].key.Clear();
    entries_[i].text.Clear();
    qfree(entries_[i].wide);
    entries_[i].wide = nullptr;
  }
  count_ = 0;
}

void QLanguage::Store(const char* key, const char* text, const uint16_t* wide) {
  if (!entries_) {
    entries_ = static_cast<Entry*>(qmalloc(sizeof(Entry) * MAX_STRINGS));
    if (!entries_) {
      QWARN("QLanguage::Store", "QLanguage(%s): out of memory", fileName_.cstr());
      return;
    }
    for (int i = 0; i < MAX_STRINGS; ++i) new (&entries_[i]) Entry();
  }
  int index = count_;
  if (count_ >= MAX_STRINGS) {
    QWARN("QLanguage::Store", "QLanguage:Open(); too many strings in '%s'", fileName_.cstr());
    index = MAX_STRINGS - 1;
  } else {
    ++count_;
  }
  Entry& e = entries_[index];
  e.key = key;
  e.text = text;
  e.SetWide(wide, text);
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

bool QLanguage::Open(const char* fileName, int type) {
  Clear();
  fileName_ = fileName;
  type_ = type;
  QFile file(fileName, QFile::READ);
  if (!file.IsOpen()) return false;
  if (type < SIMPLE || type > TAGGED) {
    QWARN("QLanguage::Open", "QLanguage:Open(); bad type (%d)", type);
    return false;
  }
  return Read(&file, type);
}

bool QLanguage::Read(QFile* file, int type) {
  if (!file) return false;
  switch (type) {
    case SIMPLE: return ReadSimple(file);
    case TREE: return ReadTree();
    case TAGGED: {
      uint8_t bom[2] = {0, 0};
      if (file->Read(bom, 2) == 2 && bom[0] == 255 && bom[1] == 254) return ReadTaggedUC(file);
      file->Seek(0, QFile::FROM_START);
      return ReadTaggedASCII(file);
    }
    default:
      QWARN("QLanguage::Read", "QLanguage:Open(); bad type (%d)", type);
      return false;
  }
}

bool QLanguage::ReadSimple(QFile* file) {
  qstring line;
  while (!file->IsEOF()) {
    int len = file->ReadLine(&line);
    // What follows the last line feed is no line of its own.
    if (len == 0 && file->IsEOF()) break;
    Store("", line.cstr(), nullptr);
  }
  return true;
}

bool QLanguage::ReadTree() {
  QIni ini(fileName_.cstr());
  if (!ini.IsFound()) return false;
  QIniIterator it(&ini);
  qstring key;
  while (const QIniNode* node = it.GetNextAny()) {
    if (node->GetType() == QIniNode::COMMENT || !node->GetValue()) continue;
    node->GetFullPath(&key);
    Store(key.cstr(), node->GetValue(), nullptr);
  }
  return true;
}

bool QLanguage::ReadTaggedASCII(QFile* file) {
  char line[1024];
  while (!file->IsEOF()) {
    int len = file->ReadLine(line, sizeof(line));
    const char* begin = line;
    const char* end = line + len;
    Trim(begin, end);
    if (begin == end || *begin == '#') continue;
    const char* eq = static_cast<const char*>(memchr(begin, '=', static_cast<size_t>(end - begin)));
    if (!eq) continue;
    const char* keyEnd = eq;
    const char* value = eq + 1;
    Trim(begin, keyEnd);  // as an INI value: blanks after "=" stay, the line's end is trimmed
    std::string key(begin, keyEnd);
    std::string text(value, end);
    Store(key.c_str(), text.c_str(), nullptr);
  }
  return true;
}

bool QLanguage::ReadTaggedUC(QFile* file) {
  uint16_t line[1024];
  while (!file->IsEOF()) {
    int len = file->ReadLineUC(line, 1024);
    const uint16_t* begin = line;
    const uint16_t* end = line + len;
    Trim(begin, end);
    if (begin == end || *begin == '#') continue;
    const uint16_t* eq = begin;
    while (eq < end && *eq != '=') ++eq;
    if (eq == end) continue;
    const uint16_t* keyEnd = eq;
    const uint16_t* value = eq + 1;
    Trim(begin, keyEnd);  // the value keeps its leading blanks, as above
    std::vector<char> key = Narrow(begin, keyEnd);
    std::vector<char> text = Narrow(value, end);
    std::vector<uint16_t> wide(value, end);
    wide.push_back(0);
    Store(key.data(), text.data(), wide.data());
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Lookup
// ---------------------------------------------------------------------------------------------

const char* QLanguage::GetString(int index) const {
  if (index < 0 || index >= count_) {
    QWARN("QLanguage::GetString", "QLanguage::GetString(%d) out of range", index);
    return "???";
  }
  return entries_[index].text.cstr();
}

const QLanguage::Entry* QLanguage::Find(const char* key, int depth) const {
  if (!key || depth > kMaxParentDepth) return nullptr;
  for (int i = 0; i < count_; ++i)
    if (strcmp(entries_[i].key.cstr(), key) == 0) return &entries_[i];
  return parent_ ? parent_->Find(key, depth + 1) : nullptr;
}

const char* QLanguage::GetString(const char* key, const char* def) const {
  if (const Entry* e = Find(key, 0)) return e->text.cstr();
  if (def) return def;
  snprintf(g_missing, sizeof(g_missing), "?%s?", key ? key : "");
  return g_missing;
}

const uint16_t* QLanguage::GetStringUC(const char* key, const uint16_t* def) const {
  if (const Entry* e = Find(key, 0)) return e->wide ? e->wide : kEmptyUC;
  if (def) return def;
  char text[sizeof(g_missingUC) / sizeof(g_missingUC[0])];
  int n = snprintf(text, sizeof(text), "QLang:GetStrUC[%s]", key ? key : "");
  if (n < 0) n = 0;
  if (n >= static_cast<int>(sizeof(text))) n = static_cast<int>(sizeof(text)) - 1;
  for (int i = 0; i < n; ++i) g_missingUC[i] = static_cast<unsigned char>(text[i]);
  g_missingUC[n] = 0;
  return g_missingUC;
}
