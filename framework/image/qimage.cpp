// QImage: construction and the choice of reader by file name.
#include "framework/qimage.h"

#include <cstring>
#include <string>
#include <utility>

#include "framework/qimage_internal.h"

#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

// Internal codes of the kinds a name can ask for; only the mapping matters.
enum ImageKind {
  KIND_RGB = 0, KIND_TGA, KIND_UNKNOWN, KIND_JPG, KIND_BMP, KIND_PSD, KIND_MIP, KIND_PNG,
  KIND_HEIF, KIND_WEBP, KIND_GIF, KIND_TIFF
};

ImageKind KindOf(const char* name) {
  // The whole name: a path may run to 4096 bytes and its extension comes last.
  std::string copy(name);
  char* upper = &copy[0];
  qstrupr(upper);
  // A substring anywhere in the path, first hit in this order: directories count too.
  if (strstr(upper, ".RGB")) return KIND_RGB;
  if (strstr(upper, ".TGA")) return KIND_TGA;
  if (strstr(upper, ".JPG") || strstr(upper, ".JPE")) return KIND_JPG;
  if (strstr(upper, ".PSD")) return KIND_PSD;
  if (strstr(upper, ".MIP")) return KIND_MIP;
  if (strstr(upper, ".PNG")) return KIND_PNG;
  if (strstr(upper, ".BMP")) return KIND_BMP;
  if (strstr(upper, ".HEIC") || strstr(upper, ".HEIF") || strstr(upper, ".AVIF")) return KIND_HEIF;
  if (strstr(upper, ".WEBP")) return KIND_WEBP;
  if (strstr(upper, ".GIF")) return KIND_GIF;
  if (strstr(upper, ".TIF")) return KIND_TIFF;
  return KIND_UNKNOWN;
}

// The whole file for the readers that decode from memory (null for an empty one, which the
// reader then refuses); false, logged, when it can't be opened.
bool ReadFile(const char* name, QBlock* data, size_t* size) {
  *size = 0;
  qimage_detail::QStream fp(qfopen(name, "rb"));
  if (!fp) {
    QWARN("QImage::Read", "QImage:Read(); can't open '%s'", name);
    return false;
  }
  *data = qimage_detail::ReadWholeStream(fp.get(), size);
  return true;
}

}  // namespace

QImage::QImage() { SetName("qimage"); }

QImage::QImage(const char* name, int depth, int width, int height, int flags)
    : QBitMap(depth, width, height, flags) {
  SetName(name);
  if (!Read(name)) {
    QWARN("QImage::QImage", "QImage ctor: can't load '%s'", name ? name : "");
    loadFailed_ = 1;
  }
}

bool qimage_detail::AcceptHeaderSize(const char* reader, const char* name, int64_t width,
                                     int64_t height, size_t size) {
  if (width <= 0 || height <= 0 || width > QImage::MAX_SIZE || height > QImage::MAX_SIZE) {
    QWARN("QImage::Read", "QImage:%s(); (%s) is %lldx%lld large; supported only upto %dx%d",
          reader, name, static_cast<long long>(width), static_cast<long long>(height),
          QImage::MAX_SIZE, QImage::MAX_SIZE);
    return false;
  }
  if (!PixelsFitBytes(width, height, size)) {
    QWARN("QImage::Read", "QImage:%s(); (%s) is %lldx%lld, more than its %zu bytes can hold",
          reader, name, static_cast<long long>(width), static_cast<long long>(height), size);
    return false;
  }
  return true;
}

bool QImage::IsJpegName(const char* name) { return KindOf(name ? name : "") == KIND_JPG; }
bool QImage::IsTargaName(const char* name) { return KindOf(name ? name : "") == KIND_TGA; }
bool QImage::IsPngName(const char* name) { return KindOf(name ? name : "") == KIND_PNG; }
bool QImage::IsHeifName(const char* name) { return KindOf(name ? name : "") == KIND_HEIF; }
bool QImage::IsWebPName(const char* name) { return KindOf(name ? name : "") == KIND_WEBP; }
bool QImage::IsGifName(const char* name) { return KindOf(name ? name : "") == KIND_GIF; }
bool QImage::IsTiffName(const char* name) { return KindOf(name ? name : "") == KIND_TIFF; }

void QImage::SwapPixels(QImage* from) {
  std::swap(flags_, from->flags_);
  std::swap(depth_, from->depth_);
  std::swap(width_, from->width_);
  std::swap(height_, from->height_);
  std::swap(pixels_, from->pixels_);
  std::swap(size_, from->size_);
}

bool QImage::Read(const char* name) {
  if (!name) name = "";
  switch (KindOf(name)) {
    case KIND_RGB: return ReadRGB(name);
    case KIND_TGA: return ReadTGA(name);
    case KIND_JPG: return ReadJPG(name);
    case KIND_BMP: return ReadBMP(name);
    case KIND_PSD: return ReadPSD(name);
    case KIND_MIP: return ReadMIP(name);
    case KIND_PNG: return ReadPNG(name);
    case KIND_HEIF:
    case KIND_WEBP:
    case KIND_GIF:
    case KIND_TIFF: {
      size_t size = 0;
      QBlock data;
      if (!ReadFile(name, &data, &size)) return false;
      const ImageKind kind = KindOf(name);
      if (kind == KIND_HEIF) return ReadHEIF(data.get(), size, name);
      if (kind == KIND_WEBP) return ReadWebP(data.get(), size, name);
      if (kind == KIND_GIF) return ReadGIF(data.get(), size, name);
      return ReadTIFF(data.get(), size, name);
    }
    case KIND_UNKNOWN: break;
  }
  QWARN("QImage::Read", "QImage:Read(): image '%s' has unknown file format", name);
  return false;
}
