// QLanguage: the user-visible words of the framework's dialogs, looked up by index or by key.
//
// A table of up to 1000 strings read from a language file of one of three types: 1 simple (one
// string per line, the line number from 0 is the index), 2 tree (a file of the framework's INI
// kind: every key with a value, by its dotted path), 3 tagged ("key=value" lines, 8-bit, or
// 16-bit little-endian when the file begins with a byte-order mark; each line is trimmed, the key
// too, but the value keeps the blanks after "=", as configuration values do). A missing key is
// asked of the parent language (borrowed, may be null), then answered with the caller's default,
// then with "?key?" in a process-wide buffer that the next miss overwrites. Every entry keeps an
// 8-bit text (16-bit text narrowed to Latin-1, '?' beyond it) and a 16-bit text. A missing file
// leaves the table empty. Not thread-safe.
#pragma once

#include <cstdint>

#include "framework/qstring.h"

class QFile;

class QLanguage {
 public:
  enum Type : int { SIMPLE = 1, TREE = 2, TAGGED = 3 };
  static constexpr int MAX_STRINGS = 1000;

  QLanguage() = default;
  // Reads at once; test GetCount.
  QLanguage(const char* fileName, int type);
  ~QLanguage();
  QLanguage(const QLanguage&) = delete;
  QLanguage& operator=(const QLanguage&) = delete;

  // Clears the table and reads the file; false when it does not open, or with the warning
  // "QLanguage:Open(); bad type (%d)" for an unknown type.
  bool Open(const char* fileName, int type);
  // Reads from an open file (types 1 and 3; type 2 reads the file of `fileName` given to Open)
  // into the table as it stands; false for an unknown type.
  bool Read(QFile* file, int type);

  // The text at `index`; outside the table the warning "QLanguage::GetString(%d) out of range"
  // and "???".
  const char* GetString(int index) const;
  // The text of the first entry whose key equals `key`, else the parent's, else `def`, else
  // "?key?" (process-wide buffer). Never null.
  const char* GetString(const char* key, const char* def = nullptr) const;
  // The same in 16-bit text; the last resort is "QLang:GetStrUC[key]" (process-wide buffer).
  const uint16_t* GetStringUC(const char* key, const uint16_t* def = nullptr) const;

  int GetCount() const { return count_; }
  int GetType() const { return type_; }
  const char* GetFileName() const { return fileName_.cstr(); }
  void Clear();
  // Not owned; may be null. Chains deeper than 16 languages are not followed.
  void SetParent(QLanguage* parent) { parent_ = parent; }

 private:
  struct Entry;

  bool ReadSimple(QFile* file);
  bool ReadTree();
  bool ReadTaggedASCII(QFile* file);
  bool ReadTaggedUC(QFile* file);
  // Appends, or past MAX_STRINGS warns and overwrites the last entry. `wide` may be null.
  void Store(const char* key, const char* text, const uint16_t* wide);
  const Entry* Find(const char* key, int depth) const;

  int type_ = 0;
  int count_ = 0;
  qstring fileName_;
  QLanguage* parent_ = nullptr;
  Entry* entries_ = nullptr;  // MAX_STRINGS, allocated with the first entry
};
