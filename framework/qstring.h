// qstring: the framework's string, used for names, paths, configuration values and messages.
//
// It holds 8-bit text in a heap buffer grown to exactly what is needed (no geometric growth).
// A string with no buffer reads as the empty string, never as a null pointer. A 16-bit
// ("unicode") mode exists in the layout, but almost every operation refuses it with a warning
// naming the operation ("qstring:CutPath() NYI for Unicode") and answers false, -1, 0 or leaves
// the string unchanged; its 8-bit accessor reads "<unicodestr-nyi>". Assigning 8-bit text
// switches back to 8-bit mode. Copies are deep. Cutting helpers work in place and keep the
// buffer's capacity.
#pragma once

#include <cstddef>
#include <cstdint>

class qstring {
 public:
  enum Flags : uint32_t { UNICODE = 1 };

  qstring() = default;
  qstring(const char* s);  // NOLINT: implicit, as the framework assigns C strings everywhere
  qstring(const qstring& o);
  qstring(qstring&& o) noexcept;
  ~qstring();
  qstring& operator=(const char* s);
  qstring& operator=(const qstring& o);
  qstring& operator=(qstring&& o) noexcept;

  // The text; never null. "<unicodestr-nyi>" in 16-bit mode.
  const char* cstr() const;
  operator const char*() const { return cstr(); }  // NOLINT
  int Length() const;
  bool IsEmpty() const { return Length() == 0; }
  bool IsUnicode() const { return (flags_ & UNICODE) != 0; }
  // Characters of buffer (0 for a new string).
  int Capacity() const { return capacity_; }
  bool HasBuffer() const { return text_ != nullptr; }

  // Grows the buffer to exactly n characters, zero-filled behind the old text. A failed first
  // allocation is fatal ("qstring:Resize realloc failed").
  void Resize(int n);
  void Clear();

  qstring& operator+=(const char* s);
  qstring& operator+=(char c);
  // Appends the pointer formatted with "%p".
  qstring& operator+=(const void* p);
  bool operator==(const char* s) const;
  bool operator!=(const char* s) const { return !(*this == s); }

  // Out of range reports "qstring(%s): ([]) index %d out of range (0..%d)" and answers a
  // scratch character, so a bad index never touches memory outside the text.
  char& operator[](int i);
  char operator[](int i) const;

  // printf into the string (any length).
  void Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // ---- Path and name helpers ("/" and "\\" both separate) ----
  // Removes everything up to and including the last separator; false when there is none.
  bool CutPath();
  // Keeps only the directory part (ends the string at its last separator); false when none.
  bool CutFile();
  // Removes the first directory and its separator; false when there is no separator.
  bool CutFirstDirectory();
  // Ends the string at its last "." anywhere in it; false when there is none.
  bool CutExtension();
  // "car_12" -> "car"; false unless the string ends in "_" followed only by digits (an "_" at
  // position 0 does not count; "car_" with no digits is cut to "car" too).
  bool CutUnderscoredNumber();
  // Spaces and tabs.
  void CutLeadingSpaces();
  void CutTrailingSpaces();
  // Removes trailing line feeds and carriage returns.
  void CutTrailingLF();
  // Replaces every %NAME% by the environment variable's value (unset: empty; a lone "%" stays).
  // The result is built in a 10,240-byte buffer: a longer one is cut there, with a warning.
  void ConvertEnv();

  // ---- Searching ----
  // Index of the first (last) occurrence, case-sensitive, or -1 (also for a null text or a zero
  // character; an empty text is found at `start`, or for FindLast at the end).
  int Find(const char* s, int start = 0) const;
  int Find(char c, int start = 0) const;
  int FindLast(const char* s) const;
  int FindLast(char c) const;
  bool Contains(const char* s) const { return Find(s) >= 0; }
  bool Contains(char c) const { return Find(c) >= 0; }
  bool ContainsUppercase() const;
  int Count(char c) const;
  bool BeginsWith(const char* s) const;
  bool EndsWith(const char* s) const;
  // Characters [start, start + n) into out (n < 0: to the end); false when start is outside.
  bool GetSubstring(int start, int n, qstring* out) const;
  char GetFirstChar() const;
  char GetLastChar() const;
  // Line number n (from 0) of the text, without its "\n" or "\r\n"; false when there is no such
  // line (a final line end does not begin another line; an empty string has none).
  bool GetLine(int n, qstring* out) const;
  // Replaces every occurrence of `what` (case-sensitive, left to right, not rescanned); answers
  // the number of replacements (0 for an empty `what`; a null `with` deletes).
  int ReplaceAll(const char* what, const char* with);
  // First letter of every word upper case, the rest lower case (Latin-1). Words are runs of
  // letters, digits and apostrophes.
  void Capitalize();
  // Keeps only what follows the last occurrence of `c`; false when there is none.
  bool LeavePostfix(char c);
  // Turns the text into an identifier: letters, digits and "_" stay, everything else becomes
  // "_" (Latin-1 letters too); a leading digit gets a "_" in front.
  void MakeID();
  // True when the text is a plain file name: not empty, not "." or "..", no separators, no
  // control characters and none of :*?"<>|.
  bool IsFileName() const;
  // Optional sign then digits only.
  bool IsNumber() const;
  // Optional sign, digits with at most one ".", optional exponent.
  bool IsFloat() const;
  void ToUpper();  // Latin-1
  void ToLower();  // Latin-1

  // Whole file into the string (binary; the text ends at a zero byte); false when unreadable,
  // leaving the string unchanged and saying why in the log.
  bool FromFile(const char* fileName);
  // Writes the text without terminator; false when the file can't be created or written.
  bool ToFile(const char* fileName) const;

  // Checks the text of an integer expression: digits, spaces, "-", "+", "*", "%". False with the
  // reason ("a '.' is not allowed (floating point)", "character 'x' is not allowed") for the
  // first offending character; `reason` may be null and is cleared on success. A 16-bit string
  // reports the error "Not supported for Unicode" and is accepted.
  bool ValidateInt(qstring* reason) const;
  // The same for reals: digits, spaces, "+-.eE".
  bool ValidateFloat(qstring* reason) const;

  // ---- 16-bit mode ----
  // Widens the bytes as Latin-1. Already 16-bit: warns "qstring::ASCII2UC(); string is already
  // unicode" and changes nothing.
  void ASCII2UC();
  // Decodes the text as UTF-8 (a byte outside a valid sequence stands for itself, code points
  // above 16 bits become '?'). Already 16-bit: warns "qstring::Q2UC(); string is already unicode".
  void QC2UC();
  // Not available: warns "UC2QC nyi" and changes nothing; assign 8-bit text to leave 16-bit mode.
  void UC2QC();
  const uint16_t* wstr() const { return wide_; }

 private:
  bool RefuseUnicode(const char* what) const;
  void SetWide(const uint16_t* w);

  uint32_t flags_ = 0;
  char* text_ = nullptr;
  uint16_t* wide_ = nullptr;
  int capacity_ = 0;
};

// Latin-1 case conversion (the framework's own, independent of the C locale).
int qtoupper(int c);
int qtolower(int c);
void qstrupr(char* s);
void qstrlwr(char* s);
// Compares two file names as strcmp does, folding the ASCII letters only: bytes of 0x80 and
// above (UTF-8) compare exactly, so no two distinct names on disk are taken for one.
int qnamecmp(const char* a, const char* b);
// The code point that starts at *text (not at its terminating zero), moving *text past it. A
// byte that starts no valid UTF-8 sequence (stray, cut short, overlong, a surrogate) answers
// itself and moves one byte.
uint32_t qutf8next(const unsigned char** text);
// As qutf8next, reading no byte at or past `end` (null: up to the terminating zero), and
// answering -1 for a byte that starts no valid sequence.
int32_t qutf8decode(const unsigned char** text, const unsigned char* end);
