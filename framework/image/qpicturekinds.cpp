// QPictureKind: the table of picture kinds and its two name rules.
#include "framework/image/qpicturekinds.h"

#include <cstring>
#include <string>

#include "framework/image/qimage.h"
#include "framework/qstring.h"

namespace {

using Target = QPictureKind::Target;

bool ReadJpegSize(const uint8_t* data, size_t size, int* w, int* h, int*) {
  return QImage::ReadJPGSize(data, size, w, h);
}
bool ReadPngSize(const uint8_t* data, size_t size, int* w, int* h, int*) {
  return QImage::ReadPNGSize(data, size, w, h);
}

// In QImage's order: the first row whose substring the upper-cased name holds wins.
const QPictureKind kKinds[] = {
    {QPictureKind::SGI, "SGI RGB", {".RGB"}, {},
     [](QImage* im, const char* n) { return im->ReadRGB(n); }, nullptr, nullptr,
     false, false, false, false},
    {QPictureKind::TARGA, "Targa", {".TGA"}, {".tga"},
     [](QImage* im, const char* n) { return im->ReadTGA(n); },
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target&, int*) {
       return im->ReadTGA(d, s, n);
     },
     nullptr, false, false, false, false},
    {QPictureKind::JPEG, "JPEG", {".JPG", ".JPE"}, {".jpg", ".jpeg"},
     [](QImage* im, const char* n) { return im->ReadJPG(n); },
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target& t, int*) {
       return im->ReadJPG(d, s, n, t.eighths, t.width, t.height);
     },
     ReadJpegSize, true, true, false, true},
    {QPictureKind::PSD, "Photoshop", {".PSD"}, {},
     [](QImage* im, const char* n) { return im->ReadPSD(n); }, nullptr, nullptr,
     false, false, false, false},
    {QPictureKind::MIP, "MIP", {".MIP"}, {},
     [](QImage* im, const char* n) { return im->ReadMIP(n); }, nullptr, nullptr,
     false, false, false, false},
    {QPictureKind::PNG, "PNG", {".PNG"}, {".png"},
     [](QImage* im, const char* n) { return im->ReadPNG(n); },
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target& t, int*) {
       return im->ReadPNG(d, s, n, t.width, t.height);
     },
     ReadPngSize, true, false, false, false},
    {QPictureKind::BMP, "BMP", {".BMP"}, {},
     [](QImage* im, const char* n) { return im->ReadBMP(n); }, nullptr, nullptr,
     false, false, false, false},
    {QPictureKind::HEIF, "HEIC/HEIF/AVIF", {".HEIC", ".HEIF", ".AVIF"},
     {".heic", ".heif", ".avif"}, nullptr,
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target& t, int*) {
       return im->ReadHEIF(d, s, n, t.width, t.height);  // upright by its own transforms
     },
     [](const uint8_t* d, size_t s, int* w, int* h, int*) {
       return QImage::ReadHEIFSize(d, s, w, h);
     },
     true, false, false, false},
    {QPictureKind::WEBP, "WebP", {".WEBP"}, {".webp"}, nullptr,
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target& t, int*) {
       return im->ReadWebP(d, s, n, t.width, t.height);
     },
     QImage::ReadWebPInfo, true, false, true, true},
    {QPictureKind::GIF, "GIF", {".GIF"}, {".gif"}, nullptr,
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target&, int*) {
       return im->ReadGIF(d, s, n);
     },
     nullptr, false, false, true, false},
    {QPictureKind::TIFF, "TIFF", {".TIF"}, {".tif"}, nullptr,
     [](QImage* im, const uint8_t* d, size_t s, const char* n, const Target& t, int* orientation) {
       return im->ReadTIFF(d, s, n, orientation, t.width, t.height);
     },
     QImage::ReadTIFFInfo, true, false, false, true},
};

}  // namespace

const QPictureKind* qPictureKinds(size_t* count) {
  *count = sizeof(kKinds) / sizeof(kKinds[0]);
  return kKinds;
}

const QPictureKind* qPictureKindOf(const char* name) {
  if (!name) return nullptr;
  // The whole name: a path may run to 4096 bytes and its extension comes last.
  std::string copy(name);
  char* upper = &copy[0];
  qstrupr(upper);
  for (const QPictureKind& kind : kKinds)
    for (const char* const* s = kind.readAs; s < kind.readAs + 4 && *s; ++s)
      if (strstr(upper, *s)) return &kind;
  return nullptr;
}

bool qIsCataloguePictureName(const char* name) {
  if (!name || !*name || name[0] == '.') return false;
  // ASCII letters only: a camera writes IMG_0001.JPG, and other bytes of a name stay as they are.
  std::string lower(name);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
  for (const QPictureKind& kind : kKinds)
    for (const char* const* s = kind.listAs; s < kind.listAs + 4 && *s; ++s)
      if (lower.find(*s) != std::string::npos) return true;
  return false;
}
