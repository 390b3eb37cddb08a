// QIni: a configuration file held as a tree of groups and keys, looked up by dotted paths.
//
// A file is read once into a tree of nodes (comments, symbols, groups) that keeps file order, so
// that writing it back reproduces it, comments and references ("~") included. Lookups by full
// path go through a 65,536-bucket index; the first assignment to a path in the file wins over
// later ones. A missing key answers the caller's default, after asking the optional fallback
// QIni. Keys, words and values are cut at MAX_WORD bytes while reading, so every getter output
// fits a MAX_TEXT buffer. Syntax faults are logged with the file name and line; reading goes on.
//
// Ownership: the QIni owns its nodes, their values and the index; the fallback is borrowed and
// must outlive every lookup. A destroyed QIni does not write itself. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdio>
#include <filesystem>

#include "framework/qobject.h"
#include "framework/qstring.h"

class QIni;

// One line-level item of the file. Nodes are owned by their QIni; read them, do not free them.
class QIniNode {
 public:
  enum Type : int { COMMENT = 0, SYMBOL = 1, GROUP = 2 };
  enum NodeFlags : int {
    USED = 1,     // a getter returned this node's value
    DELETED = 2,  // skipped by writing and by tree lookups (the index still finds it)
  };

  int GetType() const { return type_; }
  int GetFlags() const { return flags_; }
  bool IsDeleted() const { return (flags_ & DELETED) != 0; }
  // ";" for comments.
  const char* GetName() const { return name_.cstr(); }
  // Null when the node has no value (a plain group, or a symbol never assigned).
  const char* GetValue() const { return value_; }
  const QIniNode* GetNext() const { return next_; }
  const QIniNode* GetChild() const { return child_; }
  const QIniNode* GetParent() const { return parent_; }
  // The group this group falls through to ("~"), or null.
  const QIniNode* GetReference() const { return ref_; }
  // Names from below the root down to this node, joined by "." (empty for the root).
  void GetFullPath(qstring* out) const;

 private:
  friend class QIni;
  friend class QIniIterator;
  enum : int { INDEXED = 4 };  // already linked into a bucket chain

  int type_ = SYMBOL;
  int flags_ = 0;
  char* value_ = nullptr;  // from qstrdup
  qstring name_;
  QIniNode* next_ = nullptr;
  QIniNode* child_ = nullptr;
  QIniNode* lastChild_ = nullptr;  // appends keep file order in constant time
  QIniNode* ref_ = nullptr;
  QIniNode* parent_ = nullptr;
  QIniNode* nextInBucket_ = nullptr;
  QIniNode* bucketTail_ = nullptr;  // only meaningful on a chain's head
};

class QIni : public QObject {
 public:
  enum Flags : int {
    MODIFIED = 1,        // changed in memory; a write without a name happens only then
    FOUND = 2,           // the file was found and opened when read
    SILENT = 4,          // no warning when the file cannot be opened
    NOTE_FALLBACK = 8,   // note a key found only in the fallback
    FIRST_GROUP = 16,    // stop reading after the first "}"
    WARN_MISSING = 32,   // warn about a key found neither here nor in the fallback
    NO_READ = 64,        // do not read at construction; the next write skips the change check
  };
  // Deepest group nesting of the reader and of the iterator.
  static constexpr int MAX_LEVEL = 10;
  // Words and values are cut at this many bytes while reading.
  static constexpr int MAX_WORD = 1022;
  // Size of the buffer GetString fills (value, terminator, and one byte to spare).
  static constexpr int MAX_TEXT = 1024;
  // Number of buckets of the key index.
  static constexpr int HASH_SIZE = 65536;

  // Reads the file unless NO_READ is set; a missing file leaves an empty tree (see IsFound).
  explicit QIni(const char* fileName, int flags = 0);
  ~QIni() override;
  const char* ClassName() const override { return "QIni"; }

  const char* GetFileName() const { return fileName_.cstr(); }
  int GetFlags() const { return flags_; }
  void SetFlags(int flags) { flags_ = flags; }
  bool IsFound() const { return (flags_ & FOUND) != 0; }
  bool IsModified() const { return (flags_ & MODIFIED) != 0; }
  // The fallback is consulted for keys missing here; null for none. Not owned.
  void SetFallback(QIni* fallback) { fallback_ = fallback; }
  QIni* GetFallback() const { return fallback_; }
  const QIniNode* GetRoot() const { return root_; }

  // Replaces the tree by the text in `data` (not zero-terminated); the file name stays and is
  // only used in messages. Never fails: faults are logged and the rest is read.
  void ReadFromMemory(const char* data, size_t size);
  // Reloads the fallback, writes a modified tree, then reads the file again. False when the
  // file could not be opened (the tree is then empty).
  bool Reload();
  // Frees the tree, leaving an empty root.
  void Clear();

  // ---- Getters: every one answers the default when the key is missing ----
  // Copies the value into `out` (at least MAX_TEXT bytes); false copies the default (or "").
  bool GetString(const char* key, char* out, const char* def = nullptr);
  bool GetString(const char* key, qstring* out, const char* def = nullptr);
  // Pointer to one shared static buffer, overwritten by the next call; never null.
  const char* GetStringDirect(const char* key, const char* def = "");
  // Validates (warning on a bad character, the value is still used) and evaluates with qeval.
  int GetInt(const char* key, int def = 0);
  // True when the value evaluates to a non-zero integer.
  bool GetBool(const char* key, bool def = false);
  // Validates (warning only) and converts with strtod.
  double GetFloat(const char* key, double def = 0.0);
  // Items split at " ,"; missing items come from `defs` (or 0). A missing key fills from the
  // defaults and still answers true (as callers have always relied on).
  bool GetFloats(const char* key, int n, double* out, const double* defs = nullptr);
  bool GetFloats(const char* key, int n, float* out, const float* defs = nullptr);
  // Items split at " ," and evaluated; a missing key fills all n with `def` and answers false.
  bool GetInts(const char* key, int n, int* out, int def = 0);
  // Host name or dotted IPv4 address, optionally ":port". Missing or malformed gives
  // "localhost" and false (malformed also warns); `port` is set only when the value has one.
  bool GetHost(const char* key, qstring* host, int* port = nullptr);

  // ---- Structure ----
  // Non-comment children of the group at `path` (null or "" is the root); 0 when no group.
  int CountChildren(const char* path) const;
  // The group node at a dotted path (references are followed), or null.
  const QIniNode* FindGroup(const char* path) const;
  // Marks the node deleted and the tree modified; false when the path does not exist.
  bool Delete(const char* path);
  // Sets a key, creating its groups as needed, and marks the tree modified. Refuses (warning,
  // false) names that could not be read back: empty parts, spaces, "=", "~", or too long.
  // A value is kept up to its first line break and at most MAX_WORD bytes.
  bool SetString(const char* key, const char* value);
  bool SetInt(const char* key, int value);
  bool SetBool(const char* key, bool value) { return SetInt(key, value ? 1 : 0); }

  // ---- Writing ----
  // Writes the tree to `fileName`, or (null) to the own file when modified. With `check`, a
  // file changed on disk since it was read is overwritten only after the user says yes; "no"
  // clears MODIFIED and answers false. The text goes to a temporary file in the same folder,
  // flushed to the disk and renamed over the old one (through a symbolic link: over its
  // target), so the file on disk is always whole. A file that cannot be written (read-only,
  // folder not writable, disk full) logs "Can't write %s (%s)", stays untouched and answers
  // false; the tree keeps its change (MODIFIED stays set).
  bool Write(const char* fileName = nullptr, bool check = true);
  // Appends the text of the children of `group` at nesting `level` to `out`.
  void WriteNode(qstring* out, const QIniNode* group, int level) const;
  // The whole tree as file text, led by the UTF-8 byte-order mark when the text read had one.
  void WriteToString(qstring* out) const;

  // Logs the tree (debug level), or only the symbols never read (warning level).
  void DbgPrint(const char* title, bool unusedOnly = false) const;

 private:
  bool GetStringAt(const char* key, char* out, const char* def, int fallbackDepth);
  QIniNode* LookupIndex(const char* key, size_t len) const;
  QIniNode* LookupTree(const char* key) const;
  QIniNode* FindGroupNode(const char* path) const;
  QIniNode* FindChild(const QIniNode* group, const char* name, bool followRefs) const;
  QIniNode* NewNode(QIniNode* parent, int type, const char* name);
  void SetValue(QIniNode* n, const char* value);
  void Index(QIniNode* n);
  void FreeTree();
  bool ReadFile();
  void Parse(const char* data, size_t size);
  bool ReloadAt(int depth);
  void RememberFileTime();

  qstring fileName_;
  QIniNode* root_ = nullptr;
  int flags_ = 0;
  QIni* fallback_ = nullptr;
  int line_ = 1;
  bool hasFileTime_ = false;
  std::filesystem::file_time_type fileTime_{};
  QIniNode** buckets_ = nullptr;  // HASH_SIZE heads, from qcalloc
  bool anyIndexed_ = false;       // spares clearing an untouched bucket table
  bool bom_ = false;              // the text read began with a UTF-8 byte-order mark
};

// Walks the children of a group in file order, deleted nodes skipped. Holds pointers into the
// QIni's tree: do not change the tree while iterating.
class QIniIterator {
 public:
  // Starts at the root's children, or at the children of the group at `path` (nothing to walk
  // when there is no such group).
  explicit QIniIterator(const QIni* ini, const char* path = nullptr);
  // The next non-comment child of the start group, or null at the end.
  const QIniNode* GetNext();
  // The next node of any type in depth-first order, descending into groups; a group nested
  // deeper than QIni::MAX_LEVEL below the start is reported and its children are skipped.
  const QIniNode* GetNextAny();

 private:
  const QIniNode* stack_[QIni::MAX_LEVEL];
  int depth_ = 0;  // entries of stack_ in use; stack_[depth_ - 1] is the next candidate
};
