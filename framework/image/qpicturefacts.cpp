// QPictureFacts: a picture's size, orientation and date taken, from the head of its file.
#include "framework/image/qpicturefacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "framework/image/qexif.h"
#include "framework/image/qimage.h"
#include "framework/image/qpicturekinds.h"

namespace {

// Enough for a camera's EXIF segment (at most 64 KiB) and the frame header behind it.
constexpr size_t kHeadBytes = 64 * 1024;
// A JPEG's EXIF segment comes before its frame header, which most files without a thumbnail
// have within their first page: the rest of the head is read only when it is not there. (The
// other kinds' facts may lie in any order, so they are read 64 KiB at once.)
constexpr size_t kJpegFirstBytes = 4096;
// A size header further in than this is not looked for: the file then gives what it can.
constexpr size_t kMaxHeadBytes = 16 * 1024 * 1024;

// Two digits at `p`, or -1.
int Digits2(const char* p) {
  if (p[0] < '0' || p[0] > '9' || p[1] < '0' || p[1] > '9') return -1;
  return (p[0] - '0') * 10 + (p[1] - '0');
}

// "YYYY:MM:DD HH:MM:SS" as seconds since 1970, read as UTC; 0 for anything else, a day not in
// the calendar included (cameras without a set clock write zeros or blanks).
int64_t DateSeconds(const char* text) {
  if (strlen(text) != 19 || text[4] != ':' || text[7] != ':' || text[10] != ' ' ||
      text[13] != ':' || text[16] != ':')
    return 0;
  const int century = Digits2(text), year2 = Digits2(text + 2), month = Digits2(text + 5),
            day = Digits2(text + 8), hour = Digits2(text + 11), minute = Digits2(text + 14),
            second = Digits2(text + 17);
  if (century < 0 || year2 < 0 || month < 1 || month > 12 || day < 1 || hour < 0 || hour > 23 ||
      minute < 0 || minute > 59 || second < 0 || second > 59)
    return 0;
  const int year = century * 100 + year2;
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (year == 0 || day > kDays[month - 1] + (month == 2 && leap ? 1 : 0)) return 0;
  tm t = {};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return int64_t(timegm(&t));
}

// The TIFF structure of the first APP1 EXIF segment among the markers before the first scan;
// false when there is none within the bytes.
bool FindJpegExif(const uint8_t* data, size_t size, const uint8_t** tiff, size_t* length) {
  if (size < 4 || data[0] != 0xFF || data[1] != 0xD8) return false;
  size_t at = 2;
  while (at + 4 <= size && data[at] == 0xFF) {
    const uint8_t marker = data[at + 1];
    if (marker == 0xFF) {
      ++at;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {
      at += 2;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) return false;
    const size_t segment = size_t(data[at + 2]) << 8 | data[at + 3];
    if (segment < 2) return false;
    // A segment cut off by the head still gives what lies within it: the reader checks bounds.
    if (marker == 0xE1 && segment >= 8 && at + 10 <= size &&
        memcmp(data + at + 4, "Exif\0\0", 6) == 0) {
      const size_t end = at + 2 + segment < size ? at + 2 + segment : size;
      *tiff = data + at + 10;
      *length = end - (at + 10);
      return true;
    }
    at += 2 + segment;
  }
  return false;
}

// Orientation and date of a TIFF structure, as much as it gives.
void TakeExif(const uint8_t* tiff, size_t length, bool orientation, QPictureFacts* facts) {
  QExif::Taken taken;
  QExif::ReadTaken(tiff, length, &taken);
  if (orientation && taken.orientation >= 1 && taken.orientation <= 8)
    facts->orientation = taken.orientation;
  facts->taken = DateSeconds(taken.dateTimeOriginal);
}

// Everything `kind` gives of the bytes; false when its size reader found no size in them.
bool ReadFacts(const QPictureKind& kind, const uint8_t* data, size_t size, QPictureFacts* facts) {
  *facts = QPictureFacts();
  int w = 0, h = 0, orientation = 0;
  const bool sized = kind.readSize && kind.readSize(data, size, &w, &h, &orientation) && w > 0 &&
                     h > 0;
  if (sized) facts->width = w, facts->height = h;
  if (kind.orients && orientation >= 1 && orientation <= 8) facts->orientation = orientation;
  const uint8_t* tiff = nullptr;
  size_t length = 0;
  if (kind.id == QPictureKind::JPEG) {
    if (FindJpegExif(data, size, &tiff, &length)) TakeExif(tiff, length, kind.orients, facts);
  } else if (kind.id == QPictureKind::TIFF) {
    // The file is the TIFF structure; its orientation came with the size.
    TakeExif(data, size, false, facts);
  } else if (kind.id == QPictureKind::HEIF) {
    std::vector<uint8_t> block;
    if (QImage::ReadHEIFExif(data, size, &block))
      TakeExif(block.data(), block.size(), false, facts);
  }
  return sized || !kind.readSize;
}

// Reads up to `want` bytes at `offset`; the count read, short at the end of the file. A regular
// file reads whole unless it ends, so a short read is not retried: that would cost a second
// call for every small file.
size_t ReadAt(int fd, uint8_t* to, size_t want, size_t offset) {
  ssize_t n;
  do {
    n = pread(fd, to, want, off_t(offset));
  } while (n < 0 && errno == EINTR);
  return n > 0 ? size_t(n) : 0;
}

struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

bool QReadPictureFactsFromMemory(const uint8_t* data, size_t size, const char* name,
                                 QPictureFacts* facts) {
  *facts = QPictureFacts();
  const QPictureKind* kind = qPictureKindOf(name);
  if (!kind) return false;
  if (data && size > 0) ReadFacts(*kind, data, size, facts);
  return true;
}

bool QReadPictureFacts(const char* path, QPictureFacts* facts) {
  return QReadPictureFactsAt(AT_FDCWD, path, facts);
}

bool QReadPictureFactsAt(int folder, const char* path, QPictureFacts* facts) {
  *facts = QPictureFacts();
  const QPictureKind* kind = qPictureKindOf(path);
  if (!kind) return false;
  Descriptor file{openat(folder, path, O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return false;
  uint8_t head[kHeadBytes];
  const size_t first = kind->id == QPictureKind::JPEG ? kJpegFirstBytes : sizeof(head);
  size_t got = ReadAt(file.fd, head, first, 0);
  if (got == 0) return true;  // an empty file: nothing to know
  if (ReadFacts(*kind, head, got, facts) || got < first) return true;
  if (got < sizeof(head)) {
    got += ReadAt(file.fd, head + got, sizeof(head) - got, got);
    if (ReadFacts(*kind, head, got, facts) || got < sizeof(head)) return true;
  }
  // The HEIF library parses only a whole container, and reads all of it even through its
  // reader interface: a phone's photo would cost its megabytes. Such files go by their time.
  if (kind->id == QPictureKind::HEIF) return true;
  // The size header lies further in (large EXIF or colour profile segments, a TIFF directory at
  // the end): read on, doubling.
  std::unique_ptr<uint8_t[]> more;
  size_t have = got;
  for (size_t want = 2 * kHeadBytes; want <= kMaxHeadBytes; want *= 2) {
    std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[want]);
    if (!grown) break;
    memcpy(grown.get(), more ? more.get() : head, have);
    more = std::move(grown);
    const size_t n = ReadAt(file.fd, more.get() + have, want - have, have);
    have += n;
    if (ReadFacts(*kind, more.get(), have, facts) || have < want) break;
  }
  return true;
}
