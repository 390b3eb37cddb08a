// QImage reader for the "PIM " format: 4-bit pixels through a 16-entry colour map.
//
// Only the lengths of most header records are known; the reader takes the kind byte of the first
// record (whether a colour map follows it), the pixel type of the second, the geometry, and the
// colour maps. Each byte holds two pixels, high nibble first; file rows are top-down.
#include <cstring>

#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

constexpr int kCmapSize = 76;
constexpr int kPaletteEntries = 16;

// Reads one colour-map record into `palette` (RGBA per entry). False on a short read or when the
// record does not announce 64 bytes of entries.
bool ReadMipCmap(QFile* f, uint8_t palette[kPaletteEntries][4]) {
  uint8_t rec[kCmapSize];
  if (!ReadAll(f, rec, kCmapSize)) return false;
  if (Le32(rec + 8) != 64) {
    QWARN("QImage::ReadMIP_CMAP", "MIP with CMAP size!=64; unexpected");
    return false;
  }
  for (int i = 0; i < kPaletteEntries; ++i) {
    const uint8_t* e = rec + 12 + i * 4;  // B, G, R, A
    palette[i][0] = e[2], palette[i][1] = e[1], palette[i][2] = e[0], palette[i][3] = e[3];
  }
  return true;
}

}  // namespace

bool QImage::ReadMIP(const char* name) {
  QDBG("QImage::ReadMIP", "QImage:ReadMip(%s)\n", name);
  QFile file(name, QFile::READ);
  uint8_t id[12];
  if (!file.IsOpen() || !ReadAll(&file, id, sizeof(id)) || memcmp(id, "PIM ", 4) != 0) {
    QWARN("QImage::ReadMIP", "MIP image doesn't have correct header");
    return false;
  }
  uint8_t palette[kPaletteEntries][4] = {};
  uint8_t record[13] = {}, skip[12];
  bool ok = ReadAll(&file, record, 13);
  const int kind = record[12];
  ok = ok && ReadAll(&file, skip, 12);  // three 32-bit words
  ok = ok && ReadAll(&file, skip, 1 + 4 + 2);
  if (ok && (kind == 0 || kind == 1)) ok = ReadMipCmap(&file, palette);
  ok = ok && ReadAll(&file, skip, 12);
  ok = ok && ReadAll(&file, record, 13);
  const int pixelType = record[12];
  uint8_t geometry[12];
  ok = ok && ReadAll(&file, geometry, 12) && ReadAll(&file, skip, 3);
  if (!ok) {
    QWARN("QImage::ReadMIP", "MIP header of '%s' is truncated", name);
    return false;
  }
  const int width = int32_t(Le32(geometry));
  const int height = int32_t(Le32(geometry + 4));
  const int bytesPerRow = int32_t(Le32(geometry + 8));
  if (pixelType == 2 && !ReadMipCmap(&file, palette)) {
    QWARN("QImage::ReadMIP", "Failed to read CMAP in %s", name);
    return false;
  }
  if (pixelType > 2) {
    QWARN("QImage::ReadMIP", "MIP type %d not yet supported", pixelType);
    return false;
  }
  // Refuse geometry that the rest of the file cannot come near holding.
  const int64_t have = int64_t(file.Size()) - file.Tell() - 12;
  if (width > 0 && height > 0 &&
      (!FitsFile((int64_t(width) + 1) / 2 * height, have) ||
       (bytesPerRow > 0 && !FitsFile(int64_t(bytesPerRow) * height, have)))) {
    QWARN("QImage::ReadMIP", "MIP '%s' is %dx%d, more than its %lld bytes can hold", name, width,
          height, static_cast<long long>(have));
    return false;
  }
  if (!Alloc(32, width, height, int(flags_))) {
    QWARN("QImage::ReadMIP", "QImage:ReadMIP(%s) out of memory", name);
    return false;
  }
  const int64_t blockSize = int64_t(bytesPerRow) * height;
  QBlock block(bytesPerRow > 0 ? static_cast<uint8_t*>(qmalloc(size_t(blockSize))) : nullptr);
  if (!block) {
    QWARN("QImage::ReadMIP", "MIP out of memory while loading pixel data");
    return false;
  }
  ReadAll(&file, skip, 12);
  int got = file.IsEOF() ? 0 : file.Read(block.get(), int(blockSize));
  if (got < 0) got = 0;
  if (got > blockSize) got = int(blockSize);
  memset(block.get() + got, 0, size_t(blockSize - got));  // a short file leaves index 0

  const uint8_t* src = block.get();
  for (int y = 0; y < height; ++y) {
    uint8_t* dst = pixels_ + int64_t(height - 1 - y) * width * 4;
    // A row wider than its byte count reads on into the next row, never past the block.
    for (int x = 0; x < width; ++x, dst += 4) {
      const int64_t at = int64_t(y) * bytesPerRow + x / 2;
      const int byte = at < blockSize ? src[at] : 0;
      const int index = (x & 1) ? (byte & 0x0F) : (byte >> 4);
      memcpy(dst, palette[index], 4);
    }
  }
  return true;
}
