// QImage Targa readers: the whole file from memory (ReadTGA) and the stdio fallback
// (ReadTGASlow), which differ on purpose in their messages, their checks and their handling of
// run-length packets that run past a line.
#include <cstring>
#include <memory>

#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"
#include "framework/virtualfilesystem.h"

using namespace qimage_detail;

namespace {

constexpr int kHeaderSize = 18;

enum TgaType { TGA_TRUECOLOR = 2, TGA_GREY = 3, TGA_RLE_TRUECOLOR = 10 };

struct TgaHeader {
  int idLength;  // signed on purpose: 128 and above move the pixel data backwards
  int colorMapType;
  int imageType;
  int width;
  int height;
  int depth;
  int descriptor;
};

TgaHeader ParseHeader(const uint8_t* h) {
  TgaHeader t;
  t.idLength = int8_t(h[0]);
  t.colorMapType = h[1];
  t.imageType = h[2];
  t.width = int16_t(Le16(h + 12));
  t.height = int16_t(Le16(h + 14));
  t.depth = h[16];
  t.descriptor = h[17];
  return t;
}

bool Supported(const TgaHeader& t) {
  return (t.imageType == TGA_GREY && t.depth == 8) ||
         ((t.imageType == TGA_TRUECOLOR || t.imageType == TGA_RLE_TRUECOLOR) &&
          (t.depth == 24 || t.depth == 32));
}

// Fewest bytes of pixel data that can describe the picture: every pixel stored, or for run
// length one full-length packet per 128 pixels of each line. Unknown kinds are given the
// run-length bound, the most lenient there is.
int64_t MinimumData(const TgaHeader& t) {
  const int64_t bytes = t.depth / 8 > 0 ? t.depth / 8 : 1;
  const int64_t packetsPerLine = (int64_t(t.width) + 127) / 128;
  if (Supported(t) && t.imageType != TGA_RLE_TRUECOLOR) return int64_t(t.width) * t.height * bytes;
  return packetsPerLine * t.height * (1 + bytes);
}

// Memory row of file line i: bottom-left files are stored in file order.
inline int RowOf(const TgaHeader& t, int line) {
  return (t.descriptor & 0x20) ? t.height - 1 - line : line;
}

// One uncompressed line of file pixels into 4-byte RGBA.
void ConvertLine(const TgaHeader& t, const uint8_t* src, uint8_t* dst) {
  if (t.imageType == TGA_GREY) {
    // The grey level doubles as opacity, deliberately.
    for (int x = 0; x < t.width; ++x, dst += 4) dst[0] = dst[1] = dst[2] = dst[3] = src[x];
  } else if (t.depth == 24) {
    for (int x = 0; x < t.width; ++x, src += 3, dst += 4)
      dst[0] = src[2], dst[1] = src[1], dst[2] = src[0], dst[3] = 255;
  } else {
    for (int x = 0; x < t.width; ++x, src += 4, dst += 4)
      dst[0] = src[2], dst[1] = src[1], dst[2] = src[0], dst[3] = src[3];
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// In memory, through the virtual file system
// ---------------------------------------------------------------------------------------------

const uint8_t* QImage::DecompressTgaLine(const uint8_t* src, const uint8_t* end, uint8_t* dst,
                                         int bpp, int width) {
  if (bpp != 24 && bpp != 32) return src;
  const int bytes = bpp / 8;
  int count = 0;
  bool corrupt = false;
  while (count < width && !corrupt) {
    if (src >= end) {
      corrupt = true;
      break;
    }
    const int h = *src++;
    const int n = (h & 0x7F) + 1;
    if (h & 0x80) {
      // Packets never continue on the next line.
      if (count + n > width || end - src < bytes) {
        corrupt = true;
        break;
      }
      const uint8_t a = bytes == 4 ? src[3] : 255;
      for (uint8_t* p = dst + count * 4; p < dst + (count + n) * 4; p += 4)
        p[0] = src[2], p[1] = src[1], p[2] = src[0], p[3] = a;
      src += bytes;
    } else {
      if (count + n > width || end - src < int64_t(n) * bytes) {
        corrupt = true;
        break;
      }
      for (uint8_t* p = dst + count * 4; p < dst + (count + n) * 4; p += 4, src += bytes)
        p[0] = src[2], p[1] = src[1], p[2] = src[0], p[3] = bytes == 4 ? src[3] : 255;
    }
    count += n;
  }
  if (!corrupt) return src;
  QWARN("QImage::DecompressTgaLine", "Image '%s' is corrupt", GetName());
  return nullptr;
}

bool QImage::ReadTGA(const char* name) {
  QVirtualFileSystem* vfs = QGetVirtualFileSystem();
  if (!vfs) return ReadTGASlow(name);

  std::unique_ptr<QFile> file(vfs->OpenFile(name, QFile::READ));
  if (!file || !file->IsOpen()) return false;
  const int size = file->Size();
  QBlock data(size > 0 ? static_cast<uint8_t*>(qmalloc(size_t(size))) : nullptr);
  if (!data || file->Read(data.get(), size) != size) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(); no memory to read '%s'", name);
    return false;
  }
  file.reset();
  return ReadTGA(data.get(), size_t(size), name);
}

bool QImage::ReadTGA(const uint8_t* d, size_t length, const char* name) {
  if (!name) name = "";
  const int64_t size = d ? int64_t(length) : 0;
  const uint8_t* end = d + size;
  if (size < kHeaderSize) {
    QWARN("QImage::ReadTGA", "Image '%s' is corrupt", GetName());
    return false;
  }
  const TgaHeader t = ParseHeader(d);
  // Everything that refuses the file is checked before the pixels are allocated, so that a
  // lying header costs nothing.
  if (t.width > MAX_SIZE) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(%s); too wide (max width=%d)", name, MAX_SIZE);
    return false;
  }
  if (t.colorMapType != 0) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(%s); colormap is not supported", name);
    return false;
  }
  if (!Supported(t)) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(); no image loader for type %d, pixDepth %d",
          t.imageType, t.depth);
    return false;
  }
  const int64_t start = kHeaderSize + t.idLength;
  if (t.width > 0 && t.height > 0 && (start < 0 || MinimumData(t) > size - start)) {
    QWARN("QImage::ReadTGA", "Image '%s' is corrupt", GetName());
    return false;
  }
  // Run-length lines pack 128 pixels into 5 bytes: a small file may ask for gigabytes.
  const int64_t need = size + int64_t(t.width) * t.height * 4;
  if (need > MAX_DECODE_BYTES) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(%s); %dx%d needs %lld MB, more than %lld", name,
          t.width, t.height, MegabytesUp(need),
          static_cast<long long>(MAX_DECODE_BYTES >> 20));
    return false;
  }
  if (!Alloc(32, t.width, t.height, int(flags_))) {
    QWARN("QImage::ReadTGA", "QImage:ReadTGA(); out of memory");
    return false;
  }

  const uint8_t* src = d + start;
  const int64_t lineBytes = int64_t(t.width) * (t.depth / 8);
  for (int i = 0; i < t.height; ++i) {
    uint8_t* dst = pixels_ + int64_t(RowOf(t, i)) * t.width * 4;
    if (t.imageType == TGA_RLE_TRUECOLOR) {
      src = DecompressTgaLine(src, end, dst, t.depth, t.width);
      if (!src) return false;
    } else {
      ConvertLine(t, src, dst);
      src += lineBytes;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// From a stdio stream, a line at a time
// ---------------------------------------------------------------------------------------------

namespace {

// The scratch line of the stream decoder: one line plus one pixel. Packets that run past the
// line land in the spare room or are dropped.
constexpr int kScratchPixels = QImage::MAX_SIZE + 1;

// Decodes one run-length line from the stream into `scratch`. False when a 32-bit line meets the
// end of the file, which ends the whole decode; 24-bit lines do not look (EOF reads as 255).
bool DecodeStreamLine(FILE* fp, uint8_t* scratch, int bpp, int width) {
  const int bytes = bpp / 8;
  int count = 0;
  while (count < width) {
    const int h = getc(fp);
    if (h == EOF && bpp == 32) return false;
    const int n = (h & 0x7F) + 1;
    uint8_t px[4] = {0, 0, 0, 255};
    if (h & 0x80) {
      for (int k = 0; k < bytes; ++k) px[k] = uint8_t(getc(fp));
      for (int k = 0; k < n; ++k, ++count) {
        if (count >= kScratchPixels) continue;
        uint8_t* p = scratch + count * 4;
        p[0] = px[2], p[1] = px[1], p[2] = px[0], p[3] = bytes == 4 ? px[3] : 255;
      }
    } else {
      for (int k = 0; k < n; ++k, ++count) {
        for (int b = 0; b < bytes; ++b) px[b] = uint8_t(getc(fp));
        if (count >= kScratchPixels) continue;
        uint8_t* p = scratch + count * 4;
        p[0] = px[2], p[1] = px[1], p[2] = px[0], p[3] = bytes == 4 ? px[3] : 255;
      }
    }
  }
  return true;
}

}  // namespace

bool QImage::ReadTGASlow(const char* name) {
  QStream fp(qfopen(name, "rb"));
  if (!fp) return false;
  uint8_t h[kHeaderSize];
  // Three groups, as the fields are laid out: identifier and types, colour map, image geometry.
  if (fread(h, 1, 3, fp.get()) != 3 || fread(h + 3, 1, 5, fp.get()) != 5 ||
      fread(h + 8, 1, 10, fp.get()) != 10) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); can't read the header of '%s'", name);
    return false;
  }
  const TgaHeader t = ParseHeader(h);
  fseek(fp.get(), kHeaderSize, SEEK_SET);
  // A negative identifier length that would go before the file fails to seek and stays put.
  fseek(fp.get(), t.idLength, SEEK_CUR);
  const int64_t have = StreamLength(fp.get()) - ftell(fp.get());
  if (t.width > 0 && t.height > 0 && !FitsFile(MinimumData(t), have)) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); '%s' is %dx%d, more than its %lld bytes can hold",
          name, t.width, t.height, static_cast<long long>(have));
    return false;
  }

  if (!Alloc(32, t.width, t.height, int(flags_))) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); out of memory");
    return false;
  }
  if (t.width > MAX_SIZE) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); too wide");
    return false;
  }
  if (t.colorMapType != 0) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); colormap is not supported");
    return false;
  }
  if (!Supported(t)) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); no image loader for type %d, pixDepth %d",
          t.imageType, t.depth);
    return true;  // deliberately: the pixels stay unset
  }

  const size_t rowBytes = size_t(t.width) * 4;
  if (t.imageType == TGA_RLE_TRUECOLOR) {
    QBlock scratch(static_cast<uint8_t*>(qcalloc(size_t(kScratchPixels) * 4)));
    if (!scratch) {
      QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); out of memory");
      return false;
    }
    for (int i = 0; i < t.height; ++i) {
      if (!DecodeStreamLine(fp.get(), scratch.get(), t.depth, t.width)) break;
      memcpy(pixels_ + size_t(RowOf(t, i)) * rowBytes, scratch.get(), rowBytes);
    }
    return true;
  }

  const size_t lineBytes = size_t(t.width) * size_t(t.depth / 8);
  QBlock line(static_cast<uint8_t*>(qmalloc(lineBytes)));
  if (!line) {
    QWARN("QImage::ReadTGASlow", "QImage:ReadTGA(); out of memory");
    return false;
  }
  for (int i = 0; i < t.height; ++i) {
    // A short file leaves the missing pixels zero.
    const size_t got = fread(line.get(), 1, lineBytes, fp.get());
    if (got < lineBytes) memset(line.get() + got, 0, lineBytes - got);
    ConvertLine(t, line.get(), pixels_ + size_t(RowOf(t, i)) * rowBytes);
  }
  return true;
}
