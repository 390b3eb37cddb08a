// QIni: the tree, the key index and the getters. Reading is in qini_read.cpp, writing, the
// debug listing and the iterator in qini_write.cpp.
#include "framework/qini.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "framework/qeval.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

// A reference chain can loop back on itself ("a ~a"); lookups give up after this many hops.
constexpr int kMaxRefHops = 64;
// Fallbacks may be chained (and mis-chained into a loop); this bounds the walk.
constexpr int kMaxFallbackDepth = 16;

// The index hash: sum of byte * position in a wrapping signed 32-bit integer, then modulo
// 65,536. Masking the unsigned sum gives the same bucket as C's "%" for non-negative sums and
// folds negative ones (bytes above 127 count as negative) into 0..65535 without overflow.
uint32_t BucketOf(const char* s, size_t n) {
  uint32_t h = 0;
  for (size_t i = 0; i < n; ++i)
    h += static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(s[i]))) *
         static_cast<uint32_t>(i);
  return h & 0xFFFFu;
}

void CopyOut(char* out, const char* text) {
  if (!out) return;
  size_t n = text ? strlen(text) : 0;
  if (n > static_cast<size_t>(QIni::MAX_TEXT - 1)) n = QIni::MAX_TEXT - 1;
  if (n) memcpy(out, text, n);
  out[n] = 0;
}

// Splits a dotted key held in a MAX_TEXT buffer; parts point into the buffer.
int SplitKey(char* buf, const char** parts, int maxParts) {
  int n = 0;
  char* p = buf;
  while (n < maxParts) {
    parts[n++] = p;
    char* dot = strchr(p, '.');
    if (!dot) return n;
    *dot = 0;
    p = dot + 1;
  }
  return -1;  // more parts than any tree can hold
}

// True when `name` could be written as a word and read back as the same name.
bool IsWritableName(const char* s, size_t n) {
  if (n == 0 || n > static_cast<size_t>(QIni::MAX_WORD)) return false;
  if (s[0] == ';' || s[0] == '{' || s[0] == '}') return false;
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '=' || c == '~' || c == '.' ||
        c == 0xA0)
      return false;
  }
  return true;
}

// Host name (letters, digits, "-", dot-separated labels) or, when only digits and dots, an
// IPv4 address of four numbers 0..255.
bool IsHostName(const std::string& h) {
  if (h.empty() || h.size() > 253 || h.front() == '.' || h.back() == '.') return false;
  bool numeric = true;
  for (size_t i = 0; i < h.size(); ++i) {
    char c = h[i];
    bool alnum = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!alnum && c != '-' && c != '.') return false;
    if (c == '.' && h[i + 1] == '.') return false;
    if (!(c >= '0' && c <= '9') && c != '.') numeric = false;
  }
  if (!numeric) return true;
  int parts = 0;
  size_t i = 0;
  while (i <= h.size()) {
    size_t j = h.find('.', i);
    if (j == std::string::npos) j = h.size();
    if (j - i < 1 || j - i > 3 || atoi(h.substr(i, j - i).c_str()) > 255) return false;
    ++parts;
    i = j + 1;
  }
  return parts == 4;
}

bool IsPort(const std::string& p, int* port) {
  if (p.empty() || p.size() > 5) return false;
  for (char c : p)
    if (c < '0' || c > '9') return false;
  int v = atoi(p.c_str());
  if (v < 1 || v > 65535) return false;
  *port = v;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Nodes
// ---------------------------------------------------------------------------------------------

void QIniNode::GetFullPath(qstring* out) const {
  if (!out) return;
  std::vector<const QIniNode*> chain;
  for (const QIniNode* n = this; n && n->parent_; n = n->parent_) chain.push_back(n);
  std::string path;
  for (size_t i = chain.size(); i-- > 0;) {
    path += chain[i]->name_.cstr();
    if (i) path += '.';
  }
  *out = path.c_str();
}

namespace {
// Compares a node's full path with `key` from the end, without building the path.
bool PathEquals(const QIniNode* n, const char* key, size_t len) {
  size_t end = len;
  while (n && n->GetParent()) {
    const char* name = n->GetName();
    size_t nl = strlen(name);
    if (nl > end || memcmp(key + end - nl, name, nl) != 0) return false;
    end -= nl;
    n = n->GetParent();
    if (n->GetParent()) {
      if (end == 0 || key[end - 1] != '.') return false;
      --end;
    }
  }
  return end == 0;
}
}  // namespace

QIniNode* QIni::NewNode(QIniNode* parent, int type, const char* name) {
  void* mem = qcalloc(sizeof(QIniNode));
  if (!mem) return nullptr;
  QIniNode* n = new (mem) QIniNode();
  n->type_ = type;
  n->name_ = name;
  n->parent_ = parent;
  if (parent) {
    if (parent->lastChild_)
      parent->lastChild_->next_ = n;
    else
      parent->child_ = n;
    parent->lastChild_ = n;
  }
  return n;
}

void QIni::SetValue(QIniNode* n, const char* value) {
  char* copy = qstrdup(value ? value : "");
  qfree(n->value_);
  n->value_ = copy;
}

void QIni::Index(QIniNode* n) {
  if (!buckets_ || (n->flags_ & QIniNode::INDEXED)) return;
  qstring path;
  n->GetFullPath(&path);
  QIniNode*& head = buckets_[BucketOf(path.cstr(), static_cast<size_t>(path.Length()))];
  if (head)
    head->bucketTail_->nextInBucket_ = n;
  else
    head = n;
  head->bucketTail_ = n;
  n->flags_ |= QIniNode::INDEXED;
  anyIndexed_ = true;
}

void QIni::FreeTree() {
  // Iterative: a tree built by SetString or a hostile file must not recurse deeply.
  std::vector<QIniNode*> todo;
  if (root_) todo.push_back(root_);
  while (!todo.empty()) {
    QIniNode* n = todo.back();
    todo.pop_back();
    if (n->child_) todo.push_back(n->child_);
    if (n->next_) todo.push_back(n->next_);
    qfree(n->value_);
    n->~QIniNode();
    qfree(n);
  }
  root_ = nullptr;
  if (buckets_ && anyIndexed_) memset(buckets_, 0, sizeof(QIniNode*) * HASH_SIZE);
  anyIndexed_ = false;
}

// ---------------------------------------------------------------------------------------------
// Life cycle
// ---------------------------------------------------------------------------------------------

QIni::QIni(const char* fileName, int flags) : QObject(fileName), fileName_(fileName), flags_(flags) {
  buckets_ = static_cast<QIniNode**>(qcalloc(sizeof(QIniNode*) * HASH_SIZE));
  root_ = NewNode(nullptr, QIniNode::GROUP, "root");
  if (!(flags_ & NO_READ)) ReadFile();
}

QIni::~QIni() {
  FreeTree();
  qfree(buckets_);
}

void QIni::Clear() {
  FreeTree();
  root_ = NewNode(nullptr, QIniNode::GROUP, "root");
  line_ = 1;
}

bool QIni::Reload() { return ReloadAt(0); }

bool QIni::ReloadAt(int depth) {
  if (fallback_ && depth < kMaxFallbackDepth) fallback_->ReloadAt(depth + 1);
  if (flags_ & MODIFIED) Write(nullptr, true);
  Clear();
  return ReadFile();
}

// ---------------------------------------------------------------------------------------------
// Lookups
// ---------------------------------------------------------------------------------------------

QIniNode* QIni::LookupIndex(const char* key, size_t len) const {
  if (!buckets_) return nullptr;
  for (QIniNode* n = buckets_[BucketOf(key, len)]; n; n = n->nextInBucket_)
    if (PathEquals(n, key, len)) return n;
  return nullptr;
}

QIniNode* QIni::FindChild(const QIniNode* group, const char* name, bool followRefs) const {
  int hops = 0;
  for (const QIniNode* g = group; g && hops <= kMaxRefHops; g = followRefs ? g->ref_ : nullptr) {
    for (QIniNode* c = g->child_; c; c = c->next_)
      if (c->type_ != QIniNode::COMMENT && strcmp(c->name_.cstr(), name) == 0) return c;
    ++hops;
  }
  return nullptr;
}

// Walks the tree part by part, falling through references; answers the node the last part
// names (any type, possibly deleted) or null.
QIniNode* QIni::LookupTree(const char* key) const {
  char buf[MAX_TEXT];
  CopyOut(buf, key);
  const char* parts[MAX_TEXT / 2 + 1];
  int n = SplitKey(buf, parts, MAX_TEXT / 2 + 1);
  QIniNode* cur = root_;
  for (int i = 0; i < n && cur; ++i) {
    QIniNode* m = FindChild(cur, parts[i], true);
    if (!m || i == n - 1) return m;
    if (m->type_ != QIniNode::GROUP || m->IsDeleted()) return nullptr;
    cur = m;
  }
  return nullptr;
}

QIniNode* QIni::FindGroupNode(const char* path) const {
  if (!path || !*path) return root_;
  QIniNode* n = LookupTree(path);
  return n && n->type_ == QIniNode::GROUP && !n->IsDeleted() ? n : nullptr;
}

const QIniNode* QIni::FindGroup(const char* path) const { return FindGroupNode(path); }

bool QIni::GetStringAt(const char* key, char* out, const char* def, int fallbackDepth) {
  if (!key) key = "";
  QIniNode* n = LookupIndex(key, strlen(key));
  if (n) {
    n->flags_ |= QIniNode::USED;
    CopyOut(out, n->value_ ? n->value_ : "?");
    return true;
  }
  n = LookupTree(key);
  if (n && !n->IsDeleted() && (n->type_ != QIniNode::GROUP || n->value_)) {
    n->flags_ |= QIniNode::USED;
    CopyOut(out, n->value_ ? n->value_ : "?");
    return true;
  }
  if (fallback_ && fallbackDepth < kMaxFallbackDepth) {
    if (fallback_->GetStringAt(key, out, def, fallbackDepth + 1)) {
      if (flags_ & NOTE_FALLBACK)
        QNOTE("QIni::GetString", "QIni: '%s' only found in fallback file.", key);
      return true;
    }
  } else {
    CopyOut(out, def);
  }
  if (flags_ & WARN_MISSING)
    QWARN("QIni::GetString", "QIni: '%s' not found in info (%s) or fallback.", key, GetFileName());
  return false;
}

bool QIni::GetString(const char* key, char* out, const char* def) {
  return GetStringAt(key, out, def, 0);
}

bool QIni::GetString(const char* key, qstring* out, const char* def) {
  char buf[MAX_TEXT];
  bool found = GetStringAt(key, buf, def, 0);
  if (out) *out = buf;
  return found;
}

const char* QIni::GetStringDirect(const char* key, const char* def) {
  static char buf[MAX_TEXT];
  GetStringAt(key, buf, def, 0);
  return buf;
}

int QIni::GetInt(const char* key, int def) {
  char buf[MAX_TEXT];
  if (!GetStringAt(key, buf, nullptr, 0)) return def;
  qstring value(buf), reason;
  if (!value.ValidateInt(&reason))
    QWARN("QIni::GetInt", "%s value '%s' (in %s) is not a valid integer: %s", key, buf,
          GetFileName(), reason.cstr());
  return qeval(buf);
}

bool QIni::GetBool(const char* key, bool def) {
  char buf[MAX_TEXT];
  if (!GetStringAt(key, buf, nullptr, 0)) return def;
  return qeval(buf) != 0;
}

double QIni::GetFloat(const char* key, double def) {
  char buf[MAX_TEXT];
  if (!GetStringAt(key, buf, nullptr, 0)) return def;
  qstring value(buf), reason;
  if (!value.ValidateFloat(&reason))
    QWARN("QIni::GetFloat", "%s value '%s' (in %s) is not a valid float: %s", key, buf,
          GetFileName(), reason.cstr());
  return strtod(buf, nullptr);
}

namespace {
// Calls `take` for at most n items of `text` separated by spaces and commas; answers the count.
template <class F>
int ForEachItem(char* text, int n, F take) {
  int count = 0;
  char* p = text;
  while (count < n) {
    p += strspn(p, " ,");
    if (!*p) break;
    size_t len = strcspn(p, " ,");
    char saved = p[len];
    p[len] = 0;
    take(count++, p);
    p[len] = saved;
    p += len;
  }
  return count;
}
}  // namespace

bool QIni::GetFloats(const char* key, int n, double* out, const double* defs) {
  if (!out || n <= 0) return false;
  char buf[MAX_TEXT];
  int i = 0;
  if (GetStringAt(key, buf, nullptr, 0))
    i = ForEachItem(buf, n, [out](int k, const char* item) { out[k] = strtod(item, nullptr); });
  for (; i < n; ++i) out[i] = defs ? defs[i] : 0.0;
  return true;
}

bool QIni::GetFloats(const char* key, int n, float* out, const float* defs) {
  if (!out || n <= 0) return false;
  char buf[MAX_TEXT];
  int i = 0;
  if (GetStringAt(key, buf, nullptr, 0))
    i = ForEachItem(buf, n, [out](int k, const char* item) {
      out[k] = static_cast<float>(strtod(item, nullptr));
    });
  for (; i < n; ++i) out[i] = defs ? defs[i] : 0.0f;
  return true;
}

bool QIni::GetInts(const char* key, int n, int* out, int def) {
  if (!out || n <= 0) return false;
  char buf[MAX_TEXT];
  if (!GetStringAt(key, buf, nullptr, 0)) {
    for (int i = 0; i < n; ++i) out[i] = def;
    return false;
  }
  int i = ForEachItem(buf, n, [out](int k, const char* item) { out[k] = qeval(item); });
  for (; i < n; ++i) out[i] = 0;
  return true;
}

bool QIni::GetHost(const char* key, qstring* host, int* port) {
  char buf[MAX_TEXT];
  if (host) *host = "localhost";
  if (!GetStringAt(key, buf, nullptr, 0)) return false;
  qstring value(buf);
  value.CutLeadingSpaces();
  value.CutTrailingSpaces();
  std::string text = value.cstr();
  size_t colon = text.find(':');
  std::string name = text.substr(0, colon);
  int p = 0;
  if (!IsHostName(name) || (colon != std::string::npos && !IsPort(text.substr(colon + 1), &p))) {
    QWARN("QIni::GetHost", "QIni:GetHost(); bad format of host IP (%s) for key '%s'", buf, key);
    return false;
  }
  if (host) *host = name.c_str();
  if (port && colon != std::string::npos) *port = p;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Structure
// ---------------------------------------------------------------------------------------------

int QIni::CountChildren(const char* path) const {
  const QIniNode* g = FindGroupNode(path);
  int count = 0;
  if (g)
    for (const QIniNode* c = g->child_; c; c = c->next_)
      if (c->type_ != QIniNode::COMMENT) ++count;
  return count;
}

bool QIni::Delete(const char* path) {
  if (!path) return false;
  QIniNode* n = LookupIndex(path, strlen(path));
  if (!n) n = LookupTree(path);
  if (!n || n == root_) return false;
  n->flags_ |= QIniNode::DELETED;
  flags_ |= MODIFIED;
  return true;
}

bool QIni::SetString(const char* key, const char* value) {
  if (!key) return false;
  size_t len = strlen(key);
  char buf[MAX_TEXT];
  const char* parts[MAX_LEVEL];
  // A tree deeper than the reader's nesting limit would not read back the way it was written.
  int n = len < static_cast<size_t>(MAX_TEXT) ? (CopyOut(buf, key), SplitKey(buf, parts, MAX_LEVEL))
                                              : -1;
  for (int i = 0; i < n; ++i)
    if (!IsWritableName(parts[i], strlen(parts[i]))) n = -1;
  if (n < 0) {
    QWARN("QIni::SetString", "QIni(%s): can't set key '%s'", GetFileName(), key);
    return false;
  }
  std::string text = value ? value : "";
  text = text.substr(0, text.find_first_of("\r\n"));
  if (text.size() > static_cast<size_t>(MAX_WORD)) text.resize(MAX_WORD);

  // The node GetString would answer is the one to change, so the index goes first.
  QIniNode* node = LookupIndex(key, len);
  if (!node) {
    QIniNode* cur = root_;
    for (int i = 0; i < n && cur; ++i) {
      QIniNode* m = FindChild(cur, parts[i], false);
      if (!m) m = NewNode(cur, i == n - 1 ? QIniNode::SYMBOL : QIniNode::GROUP, parts[i]);
      if (!m) return false;
      if (i < n - 1) {
        m->type_ = QIniNode::GROUP;
        m->flags_ &= ~QIniNode::DELETED;
      }
      cur = m;
    }
    node = cur;
  }
  SetValue(node, text.c_str());
  Index(node);
  node->flags_ &= ~QIniNode::DELETED;
  flags_ |= MODIFIED;
  return true;
}

bool QIni::SetInt(const char* key, int value) {
  char text[16];
  snprintf(text, sizeof(text), "%d", value);
  return SetString(key, text);
}
