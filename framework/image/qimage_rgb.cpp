// QImage SGI RGB reader: either byte order (big-endian is the standard one, little-endian what
// QBitMap::WriteRGB writes), uncompressed or run-length, one to four channels.
//
// SGI rows are bottom-up like our memory. Channel z of a pixel is its byte z; a file with more
// than four channels therefore spills into the next pixel, as it always has, but never past the
// pixel block.
#include <cstring>

#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

constexpr uint16_t kMagic = 474;
constexpr int kHeaderRead = 108;
constexpr int kDataStart = 512;

struct SgiHeader {
  bool bigEndian;
  bool rle;
  int width;
  int height;
  int channels;
};

SgiHeader ParseHeader(const uint8_t* h) {
  SgiHeader s;
  s.bigEndian = Be16(h) == kMagic;
  auto get16 = [&](int at) { return s.bigEndian ? Be16(h + at) : Le16(h + at); };
  s.rle = (get16(2) >> 8) == 1;
  s.width = get16(6);
  s.height = get16(8);
  s.channels = get16(10);
  return s;
}

// Stores one channel value at byte `at` of the block, dropping what falls outside it.
inline void Put(uint8_t* pixels, int64_t size, int64_t at, uint8_t v) {
  if (at < size) pixels[at] = v;
}

}  // namespace

bool QImage::ReadRGB(const char* name) {
  QFile file(name, QFile::READ);
  if (!file.IsOpen()) {
    QWARN("QImage::ReadRGB", "QImage::Read: can't open '%s'", name);
    return false;
  }
  uint8_t h[kHeaderRead];
  if (!ReadAll(&file, h, sizeof(h))) {
    QWARN("QImage::ReadRGB", "QImage::Read: '%s' is too short for an SGI header", name);
    return false;
  }
  const SgiHeader s = ParseHeader(h);
  if (s.width > MAX_SIZE) {
    QWARN("QImage::ReadRGB", "%s width %d out of bounds", name, s.width);
    return false;
  }
  if (s.channels < 1 || s.width < 1 || s.height < 1) {
    QWARN("QImage::ReadRGB", "Image '%s' is corrupt", name);
    return false;
  }
  const int64_t fileSize = file.Size();
  const int64_t rows = int64_t(s.height) * s.channels;  // rows of one channel each
  // Run-length rows need their two table entries and at least one byte per run of at most 127
  // pixels; rows sharing one chunk would otherwise let a few bytes stand for any size.
  const int64_t runsPerRow = (int64_t(s.width) + 126) / 127;
  if (s.rle ? kDataStart + rows * (8 + runsPerRow) > fileSize
            : !FitsFile(rows * s.width, fileSize - kDataStart)) {
    QWARN("QImage::ReadRGB", "QImage::Read: '%s' is %dx%dx%d, more than its %lld bytes can hold",
          name, s.width, s.height, s.channels, static_cast<long long>(fileSize));
    return false;
  }
  if (!Alloc(32, s.width, s.height, int(flags_))) {
    QWARN("QImage::ReadRGB", "QImage::Read: no memory for '%s' (%dx%d)", name, s.width, s.height);
    return false;
  }
  memset(pixels_, 0, size_t(size_));
  const int64_t width = s.width;

  if (!s.rle) {
    QBlock line(static_cast<uint8_t*>(qmalloc(size_t(width))));
    if (!line) {
      QWARN("QImage::ReadRGB", "QImage::Read: no memory for '%s' (%dx%d)", name, s.width, s.height);
      return false;
    }
    file.Seek(kDataStart, QFile::FROM_START);
    for (int z = 0; z < s.channels; ++z) {
      for (int y = 0; y < s.height; ++y) {
        int got = file.IsEOF() ? 0 : file.Read(line.get(), int(width));
        if (got > width) got = int(width);  // a memory file's filler byte
        if (got < 0) got = 0;
        memset(line.get() + got, 0, size_t(width - got));
        const int64_t base = y * width * 4 + z;
        if (base >= size_) continue;
        for (int64_t x = 0; x < width; ++x) Put(pixels_, size_, base + x * 4, line.get()[x]);
      }
    }
  } else {
    const size_t tableBytes = size_t(rows) * 4;
    QBlock starts(static_cast<uint8_t*>(qmalloc(tableBytes ? tableBytes : 1)));
    QBlock lengths(static_cast<uint8_t*>(qmalloc(tableBytes ? tableBytes : 1)));
    if (!starts || !lengths) {
      QWARN("QImage::ReadRGB", "QImage::Read: No mem for row info\n");
      return false;
    }
    file.Seek(kDataStart, QFile::FROM_START);
    if (!ReadAll(&file, starts.get(), int(tableBytes)) || !ReadAll(&file, lengths.get(), int(tableBytes))) {
      QWARN("QImage::ReadRGB", "QImage::Read: can't read rle chunk\n");
      return false;
    }
    auto entry = [&](const QBlock& table, int64_t i) {
      const uint8_t* p = table.get() + i * 4;
      return s.bigEndian ? Be32(p) : Le32(p);
    };
    // No row can be longer than the file; the chunk buffer is sized by the longest one.
    uint32_t longest = 0;
    for (int64_t i = 0; i < rows; ++i) {
      const uint32_t start = entry(starts, i), length = entry(lengths, i);
      if (start > fileSize || length > fileSize - start) {
        QWARN("QImage::ReadRGB", "QImage::Read: can't read rle chunk\n");
        return false;
      }
      if (length > longest) longest = length;
    }
    QBlock chunk(static_cast<uint8_t*>(qmalloc(longest ? longest : 1)));
    if (!chunk) {
      QWARN("QImage::ReadRGB", "QImage::Read: No mem for row info\n");
      return false;
    }
    for (int y = 0; y < s.height; ++y) {
      for (int z = 0; z < s.channels; ++z) {
        const int64_t i = y + int64_t(z) * s.height;
        const int length = int(entry(lengths, i));
        if (!file.Seek(int(entry(starts, i)), QFile::FROM_START) ||
            !ReadAll(&file, chunk.get(), length)) {
          QWARN("QImage::ReadRGB", "QImage::Read: can't read rle chunk\n");
          return false;
        }
        // Header byte: low 7 bits a count (0 ends the row); bit 7 set = literals, clear = a run.
        // A row that decodes longer than the width runs on into the next row.
        const uint8_t* c = chunk.get();
        int pos = 0;
        int64_t at = y * width * 4 + z;
        while (pos < length) {
          const int head = c[pos++];
          int count = head & 0x7F;
          if (count == 0) break;
          if (head & 0x80) {
            for (; count > 0 && pos < length; --count, at += 4) Put(pixels_, size_, at, c[pos++]);
          } else {
            if (pos >= length) break;
            const uint8_t v = c[pos++];
            for (; count > 0; --count, at += 4) Put(pixels_, size_, at, v);
          }
        }
      }
    }
  }

  // Grey files fill green and blue from red; files without alpha are opaque.
  const int64_t count = int64_t(s.width) * s.height;
  for (int64_t i = 0; i < count; ++i) {
    uint8_t* p = pixels_ + i * 4;
    if (s.channels < 3) p[1] = p[2] = p[0];
    if (s.channels < 4) p[3] = 255;
  }
  return true;
}
