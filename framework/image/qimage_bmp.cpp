// QImage Windows bitmap reader: uncompressed 24-bit colour and 8-bit (read as grey) only.
//
// Rows are read as if unpadded, one block for the whole picture: only widths whose row length
// is a multiple of 4 bytes come out straight, the others sheared. That is kept on purpose.
#include <cstring>

#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

bool QImage::ReadBMP(const char* name) {
  QFile file(name, QFile::READ);
  if (!file.IsOpen()) {
    QWARN("QImage::ReadBMP", "QImage:ReadBMP(); can't open '%s'", name);
    return false;
  }
  // 14-byte file header, then the first 40 bytes of the information header.
  uint8_t h[14 + 40];
  if (!ReadAll(&file, h, sizeof(h))) {
    QWARN("QImage::ReadBMP", "QImage:ReadBMP(); '%s' is too short for a bitmap header", name);
    return false;
  }
  const uint32_t pixelOffset = Le32(h + 10);
  const int width = int32_t(Le32(h + 18));
  const int height = int32_t(Le32(h + 22));
  const int bits = Le16(h + 28);
  const uint32_t compression = Le32(h + 30);

  const bool supported = compression == 0 && (bits == 24 || bits == 8);
  if (width > 0 && height > 0) {
    // What the pixel data needs; unsupported kinds at the best run-length ratio there is.
    const int64_t count = int64_t(width) * height;  // below 2^62
    const int64_t need = count > (int64_t(1) << 40) ? count  // beyond any file either way
                         : supported ? count * (bits / 8) : (count + 255) / 256;
    const int64_t have = int64_t(file.Size()) - (supported ? int64_t(pixelOffset) : 54);
    if (!FitsFile(need, have)) {
      QWARN("QImage::ReadBMP", "QImage:ReadBMP(%s); %dx%d is more than its %d bytes can hold",
            name, width, height, file.Size());
      return false;
    }
  }
  if (!Alloc(32, width, height, int(flags_))) {
    QWARN("QImage::ReadBMP", "QImage:ReadBMP(); (%s) out of memory", name);
    return false;
  }
  if (!supported) {
    QWARN("QImage::ReadBMP", "QImage:ReadBMP(%s); unsupported #bits (%d) or compression (%d)",
          name, bits, int(compression));
    memset(pixels_, 0, size_t(size_));  // nothing decoded: black, not old heap contents
    return true;  // deliberately: the picture stays empty but the read succeeds
  }

  // Read into the pixel block itself, then widen in place from the last pixel backwards so that
  // no byte is overwritten before it is used.
  const int64_t count = int64_t(width) * height;
  const int bytes = bits / 8;
  const int want = int(count * bytes);
  int got = 0;
  if (file.Seek(int(pixelOffset), QFile::FROM_START)) got = file.Read(pixels_, want);
  if (got < 0) got = 0;
  if (got > want) got = want;
  memset(pixels_ + got, 0, size_t(want - got));  // a short file leaves the rest black
  if (bytes == 3) {
    for (int64_t i = count - 1; i >= 0; --i) {
      const uint8_t* src = pixels_ + i * 3;
      const uint8_t b = src[0], g = src[1], r = src[2];
      uint8_t* dst = pixels_ + i * 4;
      dst[0] = r, dst[1] = g, dst[2] = b, dst[3] = 255;
    }
  } else {
    // The palette is ignored: each index is taken as a grey level.
    for (int64_t i = count - 1; i >= 0; --i) {
      const uint8_t v = pixels_[i];
      uint8_t* dst = pixels_ + i * 4;
      dst[0] = dst[1] = dst[2] = v, dst[3] = 255;
    }
  }
  return true;
}
