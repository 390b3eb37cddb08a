// QImage: construction and the choice of reader by file name.
#include "framework/qimage.h"

#include <cstring>
#include <string>

#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

// Internal codes of the kinds a name can ask for; only the mapping matters.
enum ImageKind { KIND_RGB = 0, KIND_TGA, KIND_UNKNOWN, KIND_JPG, KIND_BMP, KIND_PSD, KIND_MIP, KIND_PNG };

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
  return KIND_UNKNOWN;
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

bool QImage::IsJpegName(const char* name) { return KindOf(name ? name : "") == KIND_JPG; }
bool QImage::IsTargaName(const char* name) { return KindOf(name ? name : "") == KIND_TGA; }
bool QImage::IsPngName(const char* name) { return KindOf(name ? name : "") == KIND_PNG; }

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
    case KIND_UNKNOWN: break;
  }
  QWARN("QImage::Read", "QImage:Read(): image '%s' has unknown file format", name);
  return false;
}
