// QBitMap writers: SGI RGB (little-endian, four planes, uncompressed), Targa (32-bit colour or
// 8-bit grey, bottom-left origin) and JPEG through libjpeg, to a file or into memory. All read
// the 32-bit RGBA bottom-up layout.
#include <cstdlib>
#include <cstring>

#include "framework/qbitmap.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// Widest picture the Targa and SGI writers take.
constexpr int kMaxWriteWidth = 8192;

// The writers walk width x height 4-byte pixels; refuse a bitmap whose block is smaller.
bool Holds32BitPixels(const QBitMap* bm, const char* name) {
  const int64_t need = int64_t(bm->GetWidth()) * bm->GetHeight() * 4;
  if (need <= bm->GetSize() && (need == 0 || bm->GetBuffer())) return true;
  QWARN("QBitMap::Write", "QBitMap:Write(); '%s' has no %dx%d 32-bit pixels to write", name,
        bm->GetWidth(), bm->GetHeight());
  return false;
}

// Closes a stream that was written; false, with a warning, when the data did not all get out.
bool Finish(QStream* fp, bool written, const char* method, const char* name) {
  const bool closed = qfclose(fp->release()) == 0;
  if (written && closed) return true;
  QWARN(method, "%s: can't write '%s'", method, name);
  return false;
}

}  // namespace

bool QBitMap::Write(const char* name, int format, int quality) {
  switch (format) {
    case 0: return WriteRGB(name);
    case 1:
    case 2: return WriteTGA(name, format);
    case 3: return WriteJPG(name, quality);
    default: break;
  }
  QWARN("QBitMap::Write", "QBitMap:Write(); unsupported format %d to write '%s'", format, name);
  return false;
}

bool QBitMap::WriteTGA(const char* name, int format) {
  QDBG("QBitMap::WriteTGA", "WriteTGA(%s, format %d)\n", name, format);
  if (width_ > kMaxWriteWidth) {
    QERR("QBitMap::WriteTGA", "QBitMap:WriteTGA(); image too wide");
    return false;
  }
  if (!Holds32BitPixels(this, name)) return false;
  QStream fp(qfopen(name, "wb"));
  if (!fp) {
    QWARN("QBitMap::WriteTGA", "QBitMap:WriteTGA(); can't open '%s'", name);
    return false;
  }
  uint8_t h[18] = {};
  h[2] = format == 1 ? 2 : 3;
  h[12] = uint8_t(width_), h[13] = uint8_t(width_ >> 8);
  h[14] = uint8_t(height_), h[15] = uint8_t(height_ >> 8);
  h[16] = format == 1 ? 32 : 8;
  h[17] = 8;  // bottom-left origin, as memory is laid out
  bool written = fwrite(h, 1, sizeof(h), fp.get()) == sizeof(h);
  if (format != 1 && format != 2) {
    QERR("QBitMap::WriteTGA", "QBitMap::WriteTGA() unsupported format %d", format);
    Finish(&fp, written, "QBitMap::WriteTGA", name);
    return true;
  }
  const int bytes = format == 1 ? 4 : 1;
  QBlock line(static_cast<uint8_t*>(qmalloc(size_t(width_) * bytes + 1)));
  if (!line) {
    QWARN("QBitMap::WriteTGA", "QBitMap:WriteTGA(); out of memory");
    return false;
  }
  for (int y = 0; y < height_ && written; ++y) {
    const uint8_t* src = pixels_ + size_t(y) * width_ * 4;
    uint8_t* dst = line.get();
    for (int x = 0; x < width_; ++x, src += 4) {
      if (format == 1) {
        *dst++ = src[2], *dst++ = src[1], *dst++ = src[0], *dst++ = src[3];
      } else {
        *dst++ = src[0];  // grey is taken from red
      }
    }
    const size_t n = size_t(width_) * bytes;
    written = fwrite(line.get(), 1, n, fp.get()) == n;
  }
  return Finish(&fp, written, "QBitMap::WriteTGA", name);
}

bool QBitMap::WriteRGB(const char* name) {
  if (width_ > kMaxWriteWidth) {
    QERR("QBitMap::WriteRGB", "QBitMap:Write; image too wide");
    return false;
  }
  if (!Holds32BitPixels(this, name)) return false;
  QStream fp(qfopen(name, "wb"));
  if (!fp) {
    QWARN("QBitMap::WriteRGB", "QBitMap:Write; can't open '%s'", name);
    return false;
  }
  // Our own byte order: the reader recognises it by the magic not reading 474 big-endian.
  uint8_t h[512] = {};
  auto put16 = [&](int at, int v) { h[at] = uint8_t(v), h[at + 1] = uint8_t(v >> 8); };
  put16(0, 474);
  put16(2, 1);
  put16(4, 3);
  put16(6, width_);
  put16(8, height_);
  put16(10, 4);
  h[16] = 255;  // maximum 255; minimum and the dummy word stay 0
  bool written = fwrite(h, 1, sizeof(h), fp.get()) == sizeof(h);
  QBlock line(static_cast<uint8_t*>(qmalloc(size_t(width_) + 1)));
  if (!line) {
    QWARN("QBitMap::WriteRGB", "QBitMap:Write; out of memory");
    return false;
  }
  for (int c = 0; c < 4 && written; ++c) {
    for (int y = 0; y < height_ && written; ++y) {
      const uint8_t* src = pixels_ + size_t(y) * width_ * 4 + c;
      for (int x = 0; x < width_; ++x, src += 4) line.get()[x] = *src;
      written = fwrite(line.get(), 1, size_t(width_), fp.get()) == size_t(width_);
    }
  }
  return Finish(&fp, written, "QBitMap::WriteRGB", name);
}

namespace {

// Owns the compressor and its destination (a stream or the library's memory block), including
// across a jump out of libjpeg.
struct JpegEncoder {
  jpeg_compress_struct cinfo;
  JpegError err;
  FILE* fp = nullptr;
  unsigned char* mem = nullptr;  // jpeg_mem_dest's block, malloc'd by the library
  unsigned long memSize = 0;
  ~JpegEncoder() {
    jpeg_destroy_compress(&cinfo);
    if (fp) qfclose(fp);
    free(mem);
  }
};

// Nothing with a destructor lives in this frame: libjpeg may jump out of it. Writes to the
// stream when there is one, else into memory.
bool Compress(JpegEncoder* enc, const uint8_t* rgb, int width, int height, int quality,
              const char* method, const char* name) {
  j_compress_ptr cinfo = &enc->cinfo;
  cinfo->err = jpeg_std_error(&enc->err.pub);
  enc->err.pub.error_exit = JpegErrorExit;
  if (setjmp(enc->err.jump)) {
    QWARN(method, "%s(%s); %s", method, name, enc->err.text);
    return false;
  }
  jpeg_create_compress(cinfo);
  if (enc->fp)
    jpeg_stdio_dest(cinfo, enc->fp);
  else
    jpeg_mem_dest(cinfo, &enc->mem, &enc->memSize);
  cinfo->image_width = JDIMENSION(width);
  cinfo->image_height = JDIMENSION(height);
  cinfo->input_components = 3;
  cinfo->in_color_space = JCS_RGB;
  jpeg_set_defaults(cinfo);
  jpeg_set_quality(cinfo, quality, TRUE);
  jpeg_start_compress(cinfo, TRUE);
  while (cinfo->next_scanline < cinfo->image_height) {
    JSAMPROW row = const_cast<uint8_t*>(rgb) + size_t(cinfo->next_scanline) * width * 3;
    jpeg_write_scanlines(cinfo, &row, 1);
  }
  jpeg_finish_compress(cinfo);
  return true;
}

// The picture as RGB rows top-down, alpha dropped, for the JPEG compressor; null (warned) when
// out of memory.
QBlock TopDownRGB(const uint8_t* pixels, int width, int height, const char* method,
                  const char* name) {
  const size_t count = size_t(width) * size_t(height);
  QBlock rgb(static_cast<uint8_t*>(qmalloc(count * 3 + 1)));
  if (!rgb) {
    QWARN(method, "%s(%s); no memory for RGB image buffer", method, name);
    return rgb;
  }
  uint8_t* dst = rgb.get();
  for (int y = height - 1; y >= 0; --y) {
    const uint8_t* src = pixels + size_t(y) * width * 4;
    for (int x = 0; x < width; ++x, src += 4) *dst++ = src[0], *dst++ = src[1], *dst++ = src[2];
  }
  return rgb;
}

}  // namespace

bool QBitMap::WriteJPG(const char* name, int quality) {
  if (!Holds32BitPixels(this, name)) return false;
  QBlock rgb = TopDownRGB(pixels_, width_, height_, "QBitMap::WriteJPG", name);
  if (!rgb) return false;
  FILE* fp = qfopen(name, "wb");
  if (!fp) {
    QWARN("QBitMap::WriteJPG", "QBitMap::WriteJPG(%s); can't open file", name);
    return false;
  }
  JpegEncoder enc;
  memset(&enc.cinfo, 0, sizeof(enc.cinfo));
  memset(&enc.err, 0, sizeof(enc.err));
  enc.fp = fp;
  if (!Compress(&enc, rgb.get(), width_, height_, quality, "QBitMap::WriteJPG", name)) return false;
  enc.fp = nullptr;
  if (qfclose(fp) != 0) {
    QWARN("QBitMap::WriteJPG", "QBitMap::WriteJPG(%s); can't write file", name);
    return false;
  }
  return true;
}

bool QBitMap::EncodeJPG(int quality, std::string* out) const {
  const char* name = GetName() ? GetName() : "";
  if (width_ <= 0 || height_ <= 0) {
    QWARN("QBitMap::EncodeJPG", "QBitMap::EncodeJPG(%s); empty picture '%dx%d'", name, width_,
          height_);
    return false;
  }
  if (!Holds32BitPixels(this, name)) return false;
  QBlock rgb = TopDownRGB(pixels_, width_, height_, "QBitMap::EncodeJPG", name);
  if (!rgb) return false;
  JpegEncoder enc;
  memset(&enc.cinfo, 0, sizeof(enc.cinfo));
  memset(&enc.err, 0, sizeof(enc.err));
  if (!Compress(&enc, rgb.get(), width_, height_, quality, "QBitMap::EncodeJPG", name))
    return false;
  out->assign(reinterpret_cast<const char*>(enc.mem), size_t(enc.memSize));
  return true;
}
