// QFile: stream and memory files, the counted open/close wrappers and the file-exists check.
#include "framework/qfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <vector>

#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/virtualfilesystem.h"

namespace {

std::atomic<int> g_openFiles{0};  // pictures are read on worker threads too

// Shared by every QFile's ReadString; released when any QFile is destroyed.
char* g_stringBuffer = nullptr;
int g_stringBufferSize = 0;

void ReleaseStringBuffer() {
  qfree(g_stringBuffer);
  g_stringBuffer = nullptr;
  g_stringBufferSize = 0;
}

// Files written with this key are read back only with it: never change it.
const uint8_t kScrambleKey[8] = {0x5B, 0xC4, 0x1E, 0x93, 0x6A, 0x27, 0xF1, 0x8D};

const char* CMode(int mode) {
  switch (mode) {
    case QFile::READ: return "rb";
    case QFile::WRITE: return "wb";
    case QFile::UPDATE: return "rb+";
    case QFile::UPDATE_NEW: return "wb+";
    case QFile::READ_TEXT: return "r";
    case QFile::APPEND_TEXT: return "a";
    case QFile::APPEND_READ: return "a+";
    case QFile::APPEND: return "ab";
    case QFile::WRITE_TEXT: return "w";
    default: return nullptr;
  }
}

bool IsBlank(int c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

void Scramble(uint8_t* p, int n, long position) {
  for (int i = 0; i < n; ++i) p[i] ^= kScrambleKey[(position + i) & 7];
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Open and close
// ---------------------------------------------------------------------------------------------

FILE* qfopen(const char* path, const char* mode) {
  if (!path || !mode) return nullptr;
  // Reading a FIFO or a device would block for ever (or never end); a directory reads as junk.
  // Only regular files are read, and looking costs no open.
  struct stat st;
  if (mode[0] == 'r' && stat(path, &st) == 0 && !S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return nullptr;
  }
  FILE* fp = fopen(path, mode);
  if (fp) ++g_openFiles;
  return fp;
}

int qfclose(FILE* fp) {
  if (!fp) {
    QERR("qfclose", "qfclose(0) called");
    return EOF;
  }
  --g_openFiles;
  return fclose(fp);
}

int qfGetOpenCount() { return g_openFiles; }

bool QFileExists(const char* path) {
  if (!path || !*path) return false;
  // A directory does not count (the framework's platform of origin does not open one), nor
  // anything else that is not a regular file: opening a FIFO would block.
  struct stat st;
  if (stat(path, &st) == 0 && S_ISREG(st.st_mode) && access(path, R_OK) == 0) return true;
  QVirtualFileSystem* vfs = QGetVirtualFileSystem();
  return vfs && vfs->FileExists(path);
}

// ---------------------------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------------------------

QFile::QFile(const char* fileName, int mode) : QObject(fileName) {
  mode_ = static_cast<uint8_t>(mode & 0xFF);
  bool memory = (mode & MEMORY) != 0;
  const char* cmode = CMode(mode_);
  if (!cmode || !fileName) return;
  if (memory && mode_ == READ_TEXT) {
    QERR("QFile::QFile",
         "QFile ctor: READ_TEXT and MEMORY flags are incompatible (buggy); turning off MEMORY");
    memory = false;
  }
  fp_ = qfopen(fileName, cmode);
  if (!fp_ || !memory) return;
  if (mode_ != READ) {
    QWARN("QFile::QFile", "MEMORY requested for '%s' but incompatible mode (%d) given", fileName,
          mode_);
    return;
  }
  Preload();
}

QFile::QFile(FILE* fp, int mode) {
  mode_ = static_cast<uint8_t>(mode & 0xFF);
  if (mode & MEMORY) QWARN("QFile::QFile", "QFile: can't use memory mapping with 'fp' takeover");
  // Not counted here: the stream was counted when qfopen opened it, and the destructor's
  // qfclose takes it off once.
  fp_ = fp;
}

QFile::QFile(void* memory, int size, int mode, bool takeOwnership) {
  mode_ = static_cast<uint8_t>(mode & 0xFF);
  if (!memory) return;
  memory_ = static_cast<uint8_t*>(memory);
  memorySize_ = size > 0 ? size : 0;
  if (takeOwnership) flags_ |= OWNS_MEMORY;
}

QFile::~QFile() {
  if (flags_ & OWNS_MEMORY) qfree(memory_);
  if (fp_) qfclose(fp_);
  ReleaseStringBuffer();
}

bool QFile::Preload() {
  if (fseek(fp_, 0, SEEK_END) != 0) return false;
  long size = ftell(fp_);
  if (size < 1 || size > INT_MAX) {
    fseek(fp_, 0, SEEK_SET);
    return false;
  }
  uint8_t* block = static_cast<uint8_t*>(qmalloc(static_cast<size_t>(size)));
  if (!block) {
    QWARN("QFile::Preload", "Not enough memory to preload file '%s'", GetName());
    memorySize_ = 0;
    fseek(fp_, 0, SEEK_SET);
    return false;
  }
  fseek(fp_, 0, SEEK_SET);
  size_t got = fread(block, 1, static_cast<size_t>(size), fp_);
  if (got == 0) {
    // Nothing readable after all: stay a stream, as for an empty file.
    qfree(block);
    fseek(fp_, 0, SEEK_SET);
    return false;
  }
  qfclose(fp_);
  fp_ = nullptr;
  memory_ = block;
  memorySize_ = static_cast<int>(got);
  cursor_ = 0;
  flags_ |= OWNS_MEMORY;
  return true;
}

// ---------------------------------------------------------------------------------------------
// State and positioning
// ---------------------------------------------------------------------------------------------

void QFile::SetUnicodeLines(bool on) {
  flags_ = on ? (flags_ | UNICODE_LINES) : (flags_ & ~UNICODE_LINES);
}

void QFile::SetUnclampedReads(bool on) {
  flags_ = on ? (flags_ | UNCLAMPED_READS) : (flags_ & ~UNCLAMPED_READS);
}

bool QFile::IsEOF() const {
  if (flags_ & PUSHED_BACK) return false;
  if (memory_) return cursor_ > memorySize_;
  if (fp_) return feof(fp_) != 0;
  return true;
}

int QFile::Tell() const {
  if (memory_) return cursor_;
  if (fp_) return static_cast<int>(ftell(fp_));
  return -1;
}

int QFile::Size() const {
  if (memory_) return memorySize_;
  if (!fp_) return 0;
  long here = ftell(fp_);
  if (here < 0 || fseek(fp_, 0, SEEK_END) != 0) return 0;
  long size = ftell(fp_);
  fseek(fp_, here, SEEK_SET);
  return size < 0 || size > INT_MAX ? 0 : static_cast<int>(size);
}

bool QFile::Seek(int offset, int whence) {
  if (whence < FROM_START || whence > FROM_CURRENT || !IsOpen()) return false;
  flags_ &= ~PUSHED_BACK;
  if (memory_) {
    long target;
    if (whence == FROM_START)
      target = offset;
    else if (whence == FROM_END)
      target = static_cast<long>(memorySize_) - offset;
    else
      target = static_cast<long>(cursor_) + offset;
    // Clamped to the block on both sides, whatever the origin, so the cursor stays inside it.
    if (target < 0) target = 0;
    if (target > memorySize_) target = memorySize_;
    cursor_ = static_cast<int>(target);
    return true;
  }
  static const int kOrigin[3] = {SEEK_SET, SEEK_END, SEEK_CUR};
  return fseek(fp_, offset, kOrigin[whence]) == 0;
}

// ---------------------------------------------------------------------------------------------
// Input
// ---------------------------------------------------------------------------------------------

int QFile::GetChar() {
  if (flags_ & PUSHED_BACK) {
    flags_ &= ~PUSHED_BACK;
    return pushed_;
  }
  if (memory_) {
    if (cursor_ < memorySize_) return memory_[cursor_++];
    if (cursor_ == memorySize_) ++cursor_;
    return 255;
  }
  if (!fp_) return 0;
  int c = fgetc(fp_);
  return c == EOF ? 255 : c;
}

void QFile::UnGetChar(int c) {
  pushed_ = static_cast<uint8_t>(c);
  flags_ |= PUSHED_BACK;
}

int QFile::Read(void* buffer, int n) {
  if (!buffer || n <= 0 || !IsOpen()) return 0;
  uint8_t* out = static_cast<uint8_t*>(buffer);
  int done = 0;
  if (flags_ & PUSHED_BACK) {
    flags_ &= ~PUSHED_BACK;
    out[done++] = pushed_;
    if (done == n) return done;
  }
  int want = n - done;
  if (fp_) return done + static_cast<int>(fread(out + done, 1, static_cast<size_t>(want), fp_));

  int remain = memorySize_ - cursor_;
  int count = want;
  if (!(flags_ & UNCLAMPED_READS) && want > remain) count = remain + 1 > 0 ? remain + 1 : 0;
  // Bytes beyond the block are never read; they come out as the end-of-data value.
  int inside = count < remain ? count : (remain > 0 ? remain : 0);
  if (inside > 0) memcpy(out + done, memory_ + cursor_, static_cast<size_t>(inside));
  if (count > inside) memset(out + done + inside, 255, static_cast<size_t>(count - inside));
  int step = count;
  if (cursor_ + step > memorySize_ + 1) step = memorySize_ + 1 - cursor_;
  if (step > 0) cursor_ += step;
  return done + count;
}

bool QFile::Read2(void* p) { return Read(p, 2) == 2; }
bool QFile::Read4(void* p) { return Read(p, 4) == 4; }

bool QFile::ReadShort(int16_t* v) {
  uint8_t b[2];
  if (!v || Read(b, 2) != 2) return false;
  *v = static_cast<int16_t>(b[0] | (b[1] << 8));
  return true;
}

bool QFile::ReadInt(int32_t* v) {
  uint8_t b[4];
  if (!v || Read(b, 4) != 4) return false;
  *v = static_cast<int32_t>(static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                            (static_cast<uint32_t>(b[2]) << 16) |
                            (static_cast<uint32_t>(b[3]) << 24));
  return true;
}

int QFile::ReadLine(char* buffer, int n) {
  if (!buffer || n < 1) return 0;
  int len = 0;
  while (len < n - 1) {
    int c = GetChar();
    if (IsEOF() || !IsOpen()) break;
    if (c == '\r') continue;
    if (c == '\n') break;
    buffer[len++] = static_cast<char>(c);
  }
  buffer[len] = 0;
  return len;
}

int QFile::ReadLineUC(uint16_t* buffer, int n) {
  if (!buffer || n < 1) return 0;
  int len = 0;
  while (len < n - 1) {
    int lo = GetChar();
    if (IsEOF() || !IsOpen()) break;
    int hi = GetChar();
    if (IsEOF()) break;
    int unit = lo | (hi << 8);
    if (unit == '\r') continue;
    if (unit == '\n') break;
    buffer[len++] = static_cast<uint16_t>(unit);
  }
  buffer[len] = 0;
  return len;
}

int QFile::ReadLine(qstring* line) {
  if (!line) return 0;
  if (flags_ & UNICODE_LINES) {
    std::vector<uint16_t> wide(20479);
    int len = ReadLineUC(wide.data(), static_cast<int>(wide.size()));
    std::vector<char> narrow(static_cast<size_t>(len) + 1);
    for (int i = 0; i < len; ++i) narrow[i] = static_cast<char>(wide[i] < 256 ? wide[i] : '?');
    narrow[len] = 0;
    *line = narrow.data();
    return len;
  }
  std::vector<char> buf(10239);
  int len = ReadLine(buf.data(), static_cast<int>(buf.size()));
  *line = buf.data();
  return len;
}

void QFile::SkipWhiteSpace() {
  while (IsOpen()) {
    int c = GetChar();
    if (IsEOF()) return;
    if (!IsBlank(c)) {
      UnGetChar(c);
      return;
    }
  }
}

int QFile::ReadWord(char* buffer, int n) {
  if (!buffer) return 0;
  if (n == -1) n = 2000000000;
  if (n < 1) return 0;
  buffer[0] = 0;
  if (n == 1) return 0;
  SkipWhiteSpace();
  int c = GetChar();
  if (IsEOF() || !IsOpen()) return 0;
  int len = 0;
  if (c == '"') {
    while (len < n - 1) {
      c = GetChar();
      if (IsEOF() || c == '"') break;
      buffer[len++] = static_cast<char>(c);
    }
  } else {
    buffer[len++] = static_cast<char>(c);
    while (len < n - 1) {
      c = GetChar();
      if (IsEOF()) break;
      if (IsBlank(c)) {
        UnGetChar(c);
        break;
      }
      buffer[len++] = static_cast<char>(c);
    }
  }
  buffer[len] = 0;
  return len;
}

int QFile::ReadWord(qstring* word) {
  if (!word) return 0;
  char buf[1024];
  int len = ReadWord(buf, sizeof(buf));
  *word = buf;
  return len;
}

int QFile::ReadString(qstring* s) {
  if (!s) return 0;
  *s = "";
  int16_t len = 0;
  if (Read(&len, 2) != 2) return 0;
  if (len < 0) {
    QWARN("QFile::ReadString", "QFile(%s):Read(s); bad length '%d'", GetName(), len);
    return 0;
  }
  if (len == 0) return 0;
  if (g_stringBufferSize < len + 1) {
    char* grown = static_cast<char*>(qmalloc(static_cast<size_t>(len) + 1));
    if (!grown) {
      QWARN("QFile::ReadString", "QFile:Read(s); out of memory");
      return 0;
    }
    qfree(g_stringBuffer);
    g_stringBuffer = grown;
    g_stringBufferSize = len + 1;
  }
  int got = Read(g_stringBuffer, len);
  g_stringBuffer[got > 0 ? got : 0] = 0;
  *s = g_stringBuffer;
  return len;
}

bool QFile::ScanToLine(const char* text) {
  if (!text) return false;
  std::vector<char> buf(10239);
  while (IsOpen()) {
    int len = ReadLine(buf.data(), static_cast<int>(buf.size()));
    if (strcmp(buf.data(), text) == 0 && (len > 0 || !IsEOF())) return true;
    if (IsEOF()) return false;
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// Output
// ---------------------------------------------------------------------------------------------

bool QFile::CanWriteMemory(const char* method) const {
  if (mode_ == WRITE) return true;
  QWARN(method, "QFile(%s): memory file opened with mode '%d' is read-only", GetName(), mode_);
  return false;
}

bool QFile::PutChar(int c) {
  if (memory_) {
    QWARN("QFile::PutChar", "QFile:PutChar() not supported for memory files");
    return false;
  }
  return fp_ && fputc(c & 0xFF, fp_) != EOF;
}

bool QFile::Write(const void* buffer, int n) {
  if (!buffer || n < 0 || !IsOpen()) return false;
  if (n == 0) return true;
  if (memory_) {
    if (!CanWriteMemory("QFile::Write")) return false;
    int left = memorySize_ - cursor_;
    if (n >= left) {
      QERR("QFile::Write", "Memory file full, cannot write %d bytes. There are %d bytes available.",
           n, left);
      return false;
    }
    memcpy(memory_ + cursor_, buffer, static_cast<size_t>(n));
    cursor_ += n;
    return true;
  }
  return fwrite(buffer, 1, static_cast<size_t>(n), fp_) == static_cast<size_t>(n);
}

bool QFile::WriteAt(const void* buffer, int n, int position) {
  if (!buffer || n < 0 || !IsOpen()) return false;
  if (memory_) {
    if (!CanWriteMemory("QFile::WriteAt")) return false;
    if (position < 0 || position > memorySize_ || n >= memorySize_ - position) {
      QERR("QFile::WriteAt",
           "Memory file full, cannot write %d bytes starting at position %d, size=%d", n, position,
           memorySize_);
      return false;
    }
    memcpy(memory_ + position, buffer, static_cast<size_t>(n));
    return true;
  }
  long here = ftell(fp_);
  if (here < 0 || fseek(fp_, position, SEEK_SET) != 0) return false;
  bool ok = fwrite(buffer, 1, static_cast<size_t>(n), fp_) == static_cast<size_t>(n);
  return fseek(fp_, here, SEEK_SET) == 0 && ok;
}

bool QFile::WriteShort(int16_t v) {
  uint16_t u = static_cast<uint16_t>(v);
  uint8_t b[2] = {static_cast<uint8_t>(u), static_cast<uint8_t>(u >> 8)};
  return Write(b, 2);
}

bool QFile::WriteInt(int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
  uint8_t b[4] = {static_cast<uint8_t>(u), static_cast<uint8_t>(u >> 8),
                  static_cast<uint8_t>(u >> 16), static_cast<uint8_t>(u >> 24)};
  return Write(b, 4);
}

bool QFile::WriteString(const qstring& s, bool lengthPrefix) {
  int len = s.Length();
  if (lengthPrefix) {
    if (len > 32767) {
      QWARN("QFile::WriteString", "QFile(%s): string too long for its length field '%d'",
            GetName(), len);
      return false;
    }
    int16_t n = static_cast<int16_t>(len);
    if (!Write(&n, 2)) return false;
  }
  return Write(s.cstr(), len);
}

bool QFile::WriteText(const char* text) {
  if (!text) return false;
  return Write(text, static_cast<int>(strlen(text)));
}

int QFile::ReserveLength() {
  int here = Tell();
  static const uint8_t kZero[4] = {0, 0, 0, 0};
  if (here < 0 || !Write(kZero, 4)) return -1;
  return here;
}

bool QFile::FillLength(int reserved) {
  int here = Tell();
  if (here < 0) return false;
  int32_t length = here - reserved;
  uint8_t b[4] = {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8),
                  static_cast<uint8_t>(length >> 16), static_cast<uint8_t>(length >> 24)};
  return WriteAt(b, 4, reserved);
}

void QFile::Flush() {
  if (fp_) fflush(fp_);
}

// ---------------------------------------------------------------------------------------------
// Scrambled data
// ---------------------------------------------------------------------------------------------

int QFile::ReadScrambled(void* buffer, int n) {
  int position = Tell();
  if (position < 0) return 0;
  int got = Read(buffer, n);
  Scramble(static_cast<uint8_t*>(buffer), got, position);
  return got;
}

bool QFile::WriteScrambled(void* buffer, int n) {
  int position = Tell();
  if (!buffer || n < 0 || position < 0) return false;
  uint8_t* p = static_cast<uint8_t*>(buffer);
  Scramble(p, n, position);
  bool ok = Write(p, n);
  Scramble(p, n, position);
  return ok;
}
