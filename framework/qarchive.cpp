// QArchive: opening, the directory, extracting and adding members.
#include "framework/qarchive.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <memory>

#include "framework/qfile.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

const char kMagic[4] = {'A', 'R', '0', '1'};
constexpr int kEntryTail = 8;  // block offset and size behind each name
// The smallest chunk that unpacks to CHUNK_MAX bytes: size, kind, control word, five runs.
constexpr int kMinBytesPerFullChunk = 25;

uint32_t GetLE32(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void PutLE32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

bool ReadLE32(FILE* fp, uint32_t* v) {
  uint8_t b[4];
  if (fread(b, 1, 4, fp) != 4) return false;
  *v = GetLE32(b);
  return true;
}

bool ReadLE16(FILE* fp, int* v) {
  uint8_t b[2];
  if (fread(b, 1, 2, fp) != 2) return false;
  *v = b[0] | (b[1] << 8);
  return true;
}

bool SameLowerCase(const char* a, const char* b) {
  for (;; ++a, ++b) {
    if (tolower(static_cast<unsigned char>(*a)) != tolower(static_cast<unsigned char>(*b)))
      return false;
    if (!*a) return true;
  }
}

struct FileCloser {
  void operator()(FILE* fp) const { qfclose(fp); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct BlockFree {
  void operator()(void* p) const { qfree(p); }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Opening and closing
// ---------------------------------------------------------------------------------------------

QArchive::QArchive(const char* path, int mode) : QObject(path), mode_(mode) {
  static const char* const kModes[] = {"rb", "wb+", "rb+"};
  if (mode < READ || mode > UPDATE) {
    QWARN("QArchive::QArchive", "QArchive(%s): unknown open mode '%d'", GetName(), mode);
    return;
  }
  fp_ = path ? qfopen(path, kModes[mode]) : nullptr;
  if (!fp_) {
    QWARN("QArchive::QArchive", "QArchive: can't open '%s'", path ? path : "(null)");
    return;
  }
  if (mode == CREATE) {
    uint8_t head[8];
    memcpy(head, kMagic, 4);
    PutLE32(head + 4, 4);
    if (!WriteAll(head, sizeof(head)) || fflush(fp_) != 0) {
      Close();
      return;
    }
    dirPos_ = 4;
    return;
  }
  // Anything without the magic is simply not an archive; only real archives get complaints.
  if (mode == READ && !IsArchive()) {
    Close();
    return;
  }
  if (!LoadDirectory()) Close();
}

QArchive::~QArchive() { Close(); }

void QArchive::Close() {
  qfree(dir_);
  dir_ = nullptr;
  dirSize_ = 0;
  cursor_ = 0;
  if (fp_) qfclose(fp_);
  fp_ = nullptr;
}

bool QArchive::IsArchive() {
  if (!fp_) return false;
  const long here = ftell(fp_);
  char magic[4];
  const bool ok = fseek(fp_, 0, SEEK_SET) == 0 && fread(magic, 1, 4, fp_) == 4 &&
                  memcmp(magic, kMagic, 4) == 0;
  fseek(fp_, here < 0 ? 0 : here, SEEK_SET);
  return ok;
}

bool QArchive::WriteAll(const void* data, size_t size) {
  if (size == 0 || fwrite(data, 1, size, fp_) == size) return true;
  QERR("QArchive::WriteAll", "QArchive(%s): write of %d bytes failed", GetName(),
       static_cast<int>(size));
  return false;
}

// Reads the directory offset from the end, loads and checks the directory, leaves the stream at
// the directory.
bool QArchive::LoadDirectory() {
  qfree(dir_);
  dir_ = nullptr;
  dirSize_ = 0;
  cursor_ = 0;
  if (fseek(fp_, 0, SEEK_END) != 0) return false;
  const long fileSize = ftell(fp_);
  if (fileSize < 8 || fileSize > INT_MAX) {
    QERR("QArchive::LoadDirectory", "QArchive(%s): file size '%ld' is out of range for an archive",
         GetName(), fileSize);
    return false;
  }
  uint32_t dirPos = 0;
  if (fseek(fp_, fileSize - 4, SEEK_SET) != 0 || !ReadLE32(fp_, &dirPos)) return false;
  if (dirPos < 4 || dirPos > static_cast<uint32_t>(fileSize - 4)) {
    QERR("QArchive::LoadDirectory", "QArchive(%s): directory offset '%u' outside the file (%ld)",
         GetName(), dirPos, fileSize);
    return false;
  }
  const int size = static_cast<int>(fileSize - 4 - dirPos);
  uint8_t* image = static_cast<uint8_t*>(qmalloc(size > 0 ? size : 1));
  if (!image) {
    QERR("QArchive::LoadDirectory", "QArchive(%s): no memory for a directory of %d bytes",
         GetName(), size);
    return false;
  }
  if (fseek(fp_, dirPos, SEEK_SET) != 0 ||
      (size > 0 && fread(image, 1, size, fp_) != static_cast<size_t>(size))) {
    QERR("QArchive::LoadDirectory", "QArchive(%s): can't read the directory at '%u'", GetName(),
         dirPos);
    qfree(image);
    return false;
  }
  dir_ = image;
  dirSize_ = size;
  dirPos_ = static_cast<int>(dirPos);
  // Check every entry once here, so that walking the image later needs no checks.
  for (int pos = 0; pos < dirSize_;) {
    const void* end = memchr(dir_ + pos, 0, dirSize_ - pos);
    if (!end) {
      QERR("QArchive::LoadDirectory", "QArchive(%s): directory entry at '%d' has no terminator",
           GetName(), pos);
      return false;
    }
    const int next = static_cast<int>(static_cast<const uint8_t*>(end) - dir_) + 1 + kEntryTail;
    if (next > dirSize_) {
      QERR("QArchive::LoadDirectory", "QArchive(%s): directory entry '%s' is cut short",
           GetName(), reinterpret_cast<const char*>(dir_ + pos));
      return false;
    }
    pos = next;
  }
  return fseek(fp_, dirPos_, SEEK_SET) == 0;
}

// ---------------------------------------------------------------------------------------------
// The directory
// ---------------------------------------------------------------------------------------------

bool QArchive::EntryAt(int pos, Entry* e) const {
  if (!dir_ || pos < 0 || pos >= dirSize_) return false;
  e->name = reinterpret_cast<const char*>(dir_ + pos);
  e->offset = pos;
  const int tail = pos + static_cast<int>(strlen(e->name)) + 1;
  e->blockOffset = GetLE32(dir_ + tail);
  e->size = static_cast<int32_t>(GetLE32(dir_ + tail + 4));
  e->next = tail + kEntryTail;
  return true;
}

bool QArchive::SeekToBlock(const Entry& e) {
  // Member blocks lie between the magic and the directory.
  if (e.blockOffset < 4 || e.blockOffset >= static_cast<uint32_t>(dirPos_)) {
    QERR("QArchive::SeekToBlock", "QArchive(%s): member '%s' has block offset '%u' outside 4..%d",
         GetName(), e.name, e.blockOffset, dirPos_);
    return false;
  }
  return fseek(fp_, e.blockOffset, SEEK_SET) == 0;
}

bool QArchive::FindFile(const char* name, bool seek) {
  if (!fp_ || !name) return false;
  Entry e;
  for (int pos = 0; EntryAt(pos, &e); pos = e.next) {
    if (strcmp(e.name, name) == 0) return seek ? SeekToBlock(e) : true;
  }
  return false;
}

bool QArchive::ReadEntry(int pos, qstring* name, int* offset, int* size) {
  Entry e;
  if (!fp_ || !EntryAt(pos, &e)) return false;
  if (name) *name = e.name;
  if (offset) *offset = static_cast<int>(e.blockOffset);
  if (size) *size = e.size;
  cursor_ = e.next;
  return true;
}

bool QArchive::FirstEntry(qstring* name, int* offset, int* size) {
  cursor_ = 0;
  return ReadEntry(0, name, offset, size);
}

bool QArchive::NextEntry(qstring* name, int* offset, int* size) {
  return ReadEntry(cursor_, name, offset, size);
}

// ---------------------------------------------------------------------------------------------
// Extracting
// ---------------------------------------------------------------------------------------------

bool QArchive::Unpack(const char* member, uint8_t* mem, int memSize, FILE* out,
                      const char* outName, int* total) {
  *total = 0;
  long pos = ftell(fp_);
  if (pos < 0) return false;
  progressStart_ = pos;
  // Blocks of other tools may precede the data; skip them, but never beyond the directory.
  for (;;) {
    const int tag = fgetc(fp_);
    if (tag == EOF || pos + 1 > dirPos_) {
      QERR("QArchive::Unpack", "QArchive(%s): block of '%s' ends before its data", GetName(),
           member);
      return false;
    }
    ++pos;
    if (tag == 'D') break;
    uint32_t length = 0;
    const long room = dirPos_ - pos - 4;
    if (room < 0 || !ReadLE32(fp_, &length) || length > static_cast<unsigned long>(room)) {
      QERR("QArchive::Unpack", "QArchive(%s): foreign block of '%s' with length '%u' runs past "
           "the directory", GetName(), member, length);
      return false;
    }
    pos += 4 + static_cast<long>(length);
    if (fseek(fp_, pos, SEEK_SET) != 0) return false;
  }

  for (;;) {
    int n = 0;
    if (pos + 2 > dirPos_ || !ReadLE16(fp_, &n)) {
      QERR("QArchive::Unpack", "QArchive(%s): data of '%s' ends without its end mark", GetName(),
           member);
      return false;
    }
    pos += 2;
    if (n == 0) return true;
    if (n > CHUNK_MAX) {
      QERR("QArchive::Unpack", "QArchive: attempt to read decompress chunk of size %d (max %d)", n,
           CHUNK_MAX);
      return false;
    }
    if (progress_ && !progress_(progressUser_, static_cast<int>(pos - 2 - progressStart_)))
      return false;
    if (pos + n > dirPos_ || fread(out_, 1, n, fp_) != static_cast<size_t>(n)) {
      QERR("QArchive::Unpack", "QArchive(%s): chunk of '%s' (%d bytes) runs past the data",
           GetName(), member, n);
      return false;
    }
    pos += n;

    uint8_t* target = nullptr;
    int cap = 0;
    if (mem) {
      target = mem + *total;
      cap = memSize - *total < CHUNK_MAX ? memSize - *total : CHUNK_MAX;
    } else if (out) {
      target = unpacked_;
      cap = CHUNK_MAX;
    }
    const char* why = nullptr;
    const int got = DecompressChunk(out_, n, target, cap, &why);
    if (got < 0) {
      QERR("QArchive::Unpack", "QArchive(%s): damaged chunk in '%s' at '%ld': %s", GetName(),
           member, pos - n, why);
      return false;
    }
    if (got > CHUNK_MAX) {
      QERR("QArchive::Unpack", "QArchive: decompressed chunk overflow of size %d (max %d)", got,
           CHUNK_MAX);
      return false;
    }
    if (mem && got > memSize - *total) {
      QERR("QArchive::Unpack", "QArchive(%s): '%s' unpacks past its size '%d'", GetName(), member,
           memSize);
      return false;
    }
    if (*total > INT_MAX - got) {
      QERR("QArchive::Unpack", "QArchive(%s): '%s' unpacks past 2 GB", GetName(), member);
      return false;
    }
    *total += got;
    if (out && fwrite(unpacked_, 1, got, out) != static_cast<size_t>(got)) {
      qmessage("Can't write to %s\n", outName);
      return false;
    }
  }
}

bool QArchive::DecompressFile(const char* name, const char* outName) {
  if (!fp_) return false;
  if (!FindFile(name, false)) {
    QWARN("QArchive::DecompressFile", "QArchive(%s): no member '%s'", GetName(), name);
    return false;
  }
  if (!FindFile(name, true)) return false;
  FilePtr out;
  if (outName) {
    out.reset(qfopen(outName, "wb"));
    if (!out) {
      QWARN("QArchive::DecompressFile", "Can't open '%s' for output", outName);
      return false;
    }
  }
  int total = 0;
  if (!Unpack(name, nullptr, 0, out.get(), outName, &total)) return false;
  if (out && fflush(out.get()) != 0) {
    qmessage("Can't write to %s\n", outName);
    return false;
  }
  return true;
}

QFile* QArchive::OpenFile(const char* name) {
  if (!fp_ || !name) return nullptr;
  Entry e;
  int pos = 0;
  for (; EntryAt(pos, &e); pos = e.next)
    if (SameLowerCase(e.name, name)) break;
  if (pos >= dirSize_ || !SeekToBlock(e)) return nullptr;
  if (e.size < 1) {
    QWARN("QArchive::OpenFile", "QArchive(%s): member '%s' has size '%d'", GetName(), e.name,
          e.size);
    return nullptr;
  }
  // A lying size must not make a small archive allocate gigabytes.
  const long long most =
      (static_cast<long long>(dirPos_ - e.blockOffset) / kMinBytesPerFullChunk + 1) * CHUNK_MAX;
  if (e.size > most) {
    QERR("QArchive::OpenFile", "QArchive(%s): member '%s' claims size '%d', more than its block "
         "can hold", GetName(), e.name, e.size);
    return nullptr;
  }
  std::unique_ptr<uint8_t, BlockFree> buffer(static_cast<uint8_t*>(qmalloc(e.size)));
  if (!buffer) {
    QERR("QArchive::OpenFile", "QArchive(%s): no memory for member '%s' of size '%d'", GetName(),
         e.name, e.size);
    return nullptr;
  }
  int total = 0;
  if (!Unpack(e.name, buffer.get(), e.size, nullptr, nullptr, &total)) return nullptr;
  if (total != e.size) {
    QERR("QArchive::OpenFile", "QArchive(%s): member '%s' unpacks to '%d' bytes, not %d",
         GetName(), e.name, total, e.size);
    return nullptr;
  }
  QFile* file = new QFile(buffer.get(), e.size, QFile::READ, true);
  buffer.release();
  file->SetName(e.name);
  return file;
}

int QArchive::GetFileSize() {
  if (!fp_) return -1;
  const long here = ftell(fp_);
  int total = 0;
  const bool ok = Unpack("(current block)", nullptr, 0, nullptr, nullptr, &total);
  fseek(fp_, here, SEEK_SET);
  return ok ? total : -1;
}

// ---------------------------------------------------------------------------------------------
// Adding and removing
// ---------------------------------------------------------------------------------------------

int QArchive::CompressFile(FILE* source, const char* sourceName, int sourceSize) {
  const uint8_t marker = 'D';
  if (!WriteAll(&marker, 1)) return -1;
  if (printProgress_) {
    printf("Compress '%s'", sourceName);
    fflush(stdout);
  }
  int packed = 0;
  for (;;) {
    const size_t got = fread(in_, 1, CHUNK_IN, source);
    if (got == 0) break;
    const int n = CompressChunk(in_, static_cast<int>(got), out_, CHUNK_MAX, table_);
    if (n > CHUNK_MAX || n < 0) {
      QERR("QArchive::CompressFile", "QArchive: compressed chunk overflow of size %d (max %d)!", n,
           CHUNK_MAX);
      break;
    }
    const uint8_t size[2] = {static_cast<uint8_t>(n & 255), static_cast<uint8_t>(n >> 8)};
    if (!WriteAll(size, 2) || !WriteAll(out_, n)) return -1;
    packed += 2 + n;
    if (printProgress_) {
      putchar('.');
      fflush(stdout);
    }
  }
  if (ferror(source)) {
    QERR("QArchive::CompressFile", "QArchive(%s): read error in '%s'", GetName(), sourceName);
    return -1;
  }
  const uint8_t end[2] = {0, 0};
  if (!WriteAll(end, 2)) return -1;
  if (printProgress_)
    printf(" %d%%\n", static_cast<int>(packed * 100LL / (sourceSize > 0 ? sourceSize : 1)));
  return packed;
}

bool QArchive::AddFile(const char* sourcePath, const char* archiveName) {
  if (!fp_ || !sourcePath) return false;
  if (mode_ == READ) {
    QERR("QArchive::AddFile", "QArchive(%s): opened for reading; can't add '%s'", GetName(),
         sourcePath);
    return false;
  }
  const char* name = archiveName ? archiveName : sourcePath;
  if (!*name) {
    QERR("QArchive::AddFile", "QArchive(%s): empty member name for '%s'", GetName(), sourcePath);
    return false;
  }
  // The source is opened before anything is written, so a missing one leaves the archive whole.
  FilePtr source(qfopen(sourcePath, "rb"));
  if (!source) {
    qmessage("** ERROR: '%s' not found!\n", sourcePath);
    return false;
  }
  long sourceSize = -1;
  if (fseek(source.get(), 0, SEEK_END) == 0) sourceSize = ftell(source.get());
  if (sourceSize < 0 || sourceSize > INT_MAX || fseek(source.get(), 0, SEEK_SET) != 0) {
    QERR("QArchive::AddFile", "QArchive(%s): can't take the size of '%s'", GetName(), sourcePath);
    return false;
  }

  // The new member goes over the old directory, which is held in memory and written behind it.
  const int memberOffset = dirPos_;
  if (fseek(fp_, memberOffset, SEEK_SET) != 0) return false;
  const int packed = CompressFile(source.get(), sourcePath, static_cast<int>(sourceSize));
  if (packed < 0) return false;
  const long newDirPos = ftell(fp_);
  const size_t nameLen = strlen(name);
  if (newDirPos < 0 ||
      newDirPos + static_cast<long long>(dirSize_) + nameLen + 1 + kEntryTail + 4 > INT_MAX) {
    QERR("QArchive::AddFile", "QArchive(%s): archive would pass 2 GB with '%s'", GetName(), name);
    return false;
  }
  uint8_t tail[kEntryTail + 4];
  PutLE32(tail, static_cast<uint32_t>(memberOffset));
  PutLE32(tail + 4, static_cast<uint32_t>(sourceSize));
  PutLE32(tail + 8, static_cast<uint32_t>(newDirPos));
  if (!WriteAll(dir_, dirSize_) || !WriteAll(name, nameLen + 1) || !WriteAll(tail, sizeof(tail)) ||
      fflush(fp_) != 0)
    return false;
  return LoadDirectory();
}

bool QArchive::RemoveFile(const char* name) {
  if (!fp_ || !name) return false;
  if (mode_ == READ) {
    QERR("QArchive::RemoveFile", "QArchive(%s): opened for reading; can't remove '%s'", GetName(),
         name);
    return false;
  }
  Entry e;
  int pos = 0;
  for (; EntryAt(pos, &e); pos = e.next)
    if (strcmp(e.name, name) == 0) break;
  if (pos >= dirSize_) {
    QWARN("QArchive::RemoveFile", "QArchive(%s): no member '%s'", GetName(), name);
    return false;
  }
  // An empty name has no first byte to mark; its terminator must stay.
  if (dir_[e.offset] != 0) dir_[e.offset] = '$';
  PutLE32(dir_ + e.next - 4, 0);
  if (fseek(fp_, dirPos_, SEEK_SET) != 0 || !WriteAll(dir_, dirSize_) || fflush(fp_) != 0)
    return false;
  return LoadDirectory();
}
