// QFile: the byte stream through which every file reader and writer of the framework works.
//
// A QFile reads and writes either an open C stream or a block of memory: a file preloaded whole
// (mode flag MEMORY), or a block supplied by the caller, such as an archive member. The object's
// name is the file name. The stream is owned and closed with qfclose on destruction; a memory
// block is released with qfree on destruction only when the QFile owns it (preloaded, or handed
// over with takeOwnership).
//
// Memory files keep a deliberate end-of-data rule: reading at the end yields 255 and moves one
// step past the end, which is what makes end-of-file true; reads never touch a byte outside the
// block. Open failures are silent (test IsOpen); reads on an unopened file give 0 bytes.
// Not thread-safe: the open counter and the length-prefixed-string buffer are process-wide.
#pragma once

#include <cstdint>
#include <cstdio>

#include "framework/qobject.h"
#include "framework/qstring.h"

class QFile : public QObject {
 public:
  // Open modes (low byte of the mode argument).
  enum Mode : int {
    READ = 1,          // "rb"
    WRITE = 2,         // "wb"
    UPDATE = 3,        // "rb+", the file must exist
    UPDATE_NEW = 4,    // "wb+", truncating
    READ_TEXT = 5,     // "r"
    APPEND_TEXT = 6,   // "a"
    APPEND_READ = 7,   // "a+"
    APPEND = 8,        // "ab"
    WRITE_TEXT = 9,    // "w"
    MEMORY = 256,      // preload the whole file (with READ only)
  };
  // State flags.
  enum Flags : uint32_t {
    PUSHED_BACK = 1,
    OWNS_MEMORY = 2,
    UNICODE_LINES = 4,
    UNCLAMPED_READS = 8,
  };
  // Seek origins.
  enum Whence : int { FROM_START = 0, FROM_END = 1, FROM_CURRENT = 2 };

  // Opens at once through qfopen; an unknown mode or a failed open leaves the file unopened.
  // MEMORY with READ_TEXT is refused with an error (the file stays a text stream); MEMORY with
  // another mode than READ warns and keeps the stream; a failed allocation warns likewise.
  QFile(const char* fileName, int mode);
  // Takes over a stream opened with qfopen (closed with qfclose, which takes it off the count
  // qfopen put it on). MEMORY is refused with a warning.
  QFile(FILE* fp, int mode);
  // Reads (mode READ) or writes (mode WRITE) a caller's block of `size` bytes. With
  // takeOwnership the block (from qmalloc) is released with qfree on destruction.
  QFile(void* memory, int size, int mode, bool takeOwnership = false);
  // Releases an owned block, closes the stream and the shared length-prefixed-string buffer.
  ~QFile() override;

  const char* ClassName() const override { return "QFile"; }

  bool IsOpen() const { return memory_ != nullptr || fp_ != nullptr; }
  bool IsMemoryFile() const { return memory_ != nullptr; }
  // True past the end of data (memory: one step past the last byte), and for an unopened file;
  // false while a pushed-back byte waits.
  bool IsEOF() const;
  // Position; -1 for an unopened file. A waiting pushed-back byte is not counted.
  int Tell() const;
  // Size in bytes; 0 for an unopened file or a stream whose size cannot be taken.
  int Size() const;
  // whence FROM_START, FROM_END or FROM_CURRENT; any other, or an unopened file, gives false.
  // Streams use the C origins unchanged (FROM_END takes a negative offset to go back); memory
  // files clamp FROM_START to the size, move FROM_END to size - offset (a positive offset goes
  // back) clamped at the start, and clamp FROM_CURRENT at the end. Drops a pushed-back byte.
  bool Seek(int offset, int whence);
  uint8_t GetMode() const { return mode_; }
  uint32_t GetFlags() const { return flags_; }
  // Line reads into a framework string use 16-bit text when on.
  void SetUnicodeLines(bool on);
  // Memory reads copy the whole requested count (bytes past the block read as 255).
  void SetUnclampedReads(bool on);

  // ---- Input ----
  // One byte (0..255); the pushed-back byte first. At the end 255; unopened: 0.
  int GetChar();
  // Pushes one byte back; a second push replaces the first.
  void UnGetChar(int c);
  // Answers the bytes copied. Memory files copy one byte more than remain when the request
  // passes the end (that byte reads 255); past the end nothing.
  int Read(void* buffer, int n);
  // Raw 2 and 4 bytes in machine order as they lie in the file; false on a short read.
  bool Read2(void* p);
  bool Read4(void* p);
  // 2 and 4 bytes from the file's byte order (little-endian); false on a short read.
  bool ReadShort(int16_t* v);
  bool ReadInt(int32_t* v);
  // A line of at most n - 1 bytes; carriage returns are dropped, the line feed ends the line
  // and is not stored. Answers the bytes stored (0 when n < 1).
  int ReadLine(char* buffer, int n);
  // The same over little-endian 16-bit units.
  int ReadLineUC(uint16_t* buffer, int n);
  // One line by the UNICODE_LINES flag (16-bit text is narrowed to Latin-1, '?' beyond it).
  int ReadLine(qstring* line);
  // A word delimited by white space (the delimiter is pushed back) or by double quotes (not
  // stored); at most n - 1 bytes, n = -1 meaning unbounded. Answers its length.
  int ReadWord(char* buffer, int n);
  // The same through a 1024-byte buffer.
  int ReadWord(qstring* word);
  // Skips spaces, tabs, carriage returns and line feeds.
  void SkipWhiteSpace();
  // A string behind a 16-bit length (machine order, signed); answers the length. A negative
  // length or a short prefix gives 0 and an empty string; out of memory warns and gives 0.
  int ReadString(qstring* s);
  // Reads lines until one equals `text`; false at the end of data.
  bool ScanToLine(const char* text);

  // ---- Output ----
  // False on a memory file (with a warning) or when the stream refuses the byte.
  bool PutChar(int c);
  // False when the stream writes less, or a memory file has not more than n bytes left (error).
  bool Write(const void* buffer, int n);
  // Writes at an absolute position and returns to the previous one; false as Write.
  bool WriteAt(const void* buffer, int n, int position);
  // 2 and 4 bytes in the file's byte order.
  bool WriteShort(int16_t v);
  bool WriteInt(int32_t v);
  // The string's bytes, behind a 16-bit length (machine order) when asked.
  bool WriteString(const qstring& s, bool lengthPrefix = true);
  // The text without its terminator.
  bool WriteText(const char* text);
  // Writes four zero bytes; answers the position before them, or -1 when that failed.
  int ReserveLength();
  // Writes (current position - reserved) as 4 bytes at `reserved`; false when that write fails.
  bool FillLength(int reserved);
  // Does nothing for memory files.
  void Flush();

  // ---- Scrambled data ----
  // Each byte at file position p is combined with byte p % 8 of the framework's key.
  int ReadScrambled(void* buffer, int n);
  // Scrambles the buffer in place, writes it and restores it: the caller's bytes are unchanged.
  bool WriteScrambled(void* buffer, int n);

 private:
  bool Preload();
  bool CanWriteMemory(const char* method) const;

  FILE* fp_ = nullptr;
  uint8_t mode_ = 0;
  uint8_t pushed_ = 0;
  uint32_t flags_ = 0;
  uint8_t* memory_ = nullptr;
  int memorySize_ = 0;
  int cursor_ = 0;  // offset into the block; may stand one step past its end
};

// Opens with a C mode and counts the open stream process-wide; null on failure. For reading,
// only a regular file opens: a FIFO, a device or a directory answers null (errno EINVAL) at once.
FILE* qfopen(const char* path, const char* mode);
// Closes and uncounts; null logs the error "qfclose(0) called" and answers EOF.
int qfclose(FILE* fp);
// Streams opened through qfopen and not yet closed.
int qfGetOpenCount();

// True when the path opens as a real file (not a directory), else when the process's virtual
// file system knows it (an archive member).
bool QFileExists(const char* path);
