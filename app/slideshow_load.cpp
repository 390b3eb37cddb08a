// RaceManager: turning a picture file into the textured quad on the screen, and painting.
#include <cstring>
#include <memory>

#include "app/slideshow.h"
#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qbitmap.h"
#include "framework/qcanvas.h"
#include "framework/qexif.h"
#include "framework/qfile.h"
#include "framework/qfont.h"
#include "framework/qimage.h"
#include "framework/qini.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

namespace {

// The controller's log lines carry its main source name wherever its code lives, so that log
// filters on the controller keep working.
constexpr const char* kSource = "slideshow.cpp";

struct QFreeDeleter {
  void operator()(uint8_t* p) const { qfree(p); }
};
using QBlock = std::unique_ptr<uint8_t, QFreeDeleter>;

// The EXIF orientation of the file's bytes (0 when there is none). The whole file is read a
// second time, since the picture reader keeps none of it.
int ReadOrientation(const char* path) {
  // A fresh record answers 0 unless the parse found an orientation; whatever it found is used,
  // also when the segment fails later.
  QExif exif;
  int32_t code = QExif::NOT_JPEG;
  QFile file(path, QFile::READ);
  const int size = file.IsOpen() ? file.Size() : 0;
  QBlock bytes(size > 0 ? static_cast<uint8_t*>(qmalloc(size_t(size))) : nullptr);
  if (bytes && file.Read(bytes.get(), size) == size)
    code = exif.ReadFromJpeg(bytes.get(), size_t(size));
  else
    code = exif.ReadFromJpeg(nullptr, 0);
  qdbg(kSource, "RaceManager::LoadNewImage", __LINE__, "Code %d, Orientation: %d\n", code,
       exif.orientation);
  return exif.orientation;
}

// Copies `src` (W x H) into `dst` turned by the EXIF orientation, in memory order: 3 a half
// turn, 6 and 8 a quarter turn into H x W; every other value (mirrors included) as stored.
void CopyOriented(const QBitMap& src, int orientation, QBitMap* dst) {
  const int w = src.GetWidth(), h = src.GetHeight();
  const int dw = dst->GetWidth();
  const uint8_t* s = src.GetBuffer();
  uint8_t* d = dst->GetBuffer();
  const int64_t srcPixels = src.GetSize() / 4, dstPixels = dst->GetSize() / 4;
  if (!s || !d) return;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      int dx = x, dy = y;
      if (orientation == 3) {
        dx = w - 1 - x, dy = h - 1 - y;
      } else if (orientation == 6) {
        dx = y, dy = w - 1 - x;
      } else if (orientation == 8) {
        dx = h - 1 - y, dy = x;
      }
      const int64_t si = int64_t(y) * w + x, di = int64_t(dy) * dw + dx;
      if (si < srcPixels && di < dstPixels) memcpy(d + di * 4, s + si * 4, 4);
    }
  }
}

}  // namespace

void RaceManager::LoadCurImage() {
  if (curFile.IsEmpty()) return;
  qdbg(kSource, "RaceManager::LoadCurImage", __LINE__, "Load image %d\n", curImage);
  // LoadNewImage replaces curFile; it must not read from the string it overwrites.
  qstring path(curFile);
  LoadNewImage(path.cstr());
}

void RaceManager::LoadNewImage(const char* pathArg) {
  // The path may point into the catalogue or curFile, both of which change below.
  const qstring path(pathArg ? pathArg : "");
  std::unique_ptr<QImage> image(new QImage());
  image->SetName(path.cstr());
  // A picture without pixels (a PNG name, which the reader accepts unread) cannot be shown.
  if (!image->Read(path.cstr()) || image->GetWidth() <= 0 || image->GetHeight() <= 0 ||
      !image->GetBuffer() || int64_t(image->GetSize()) <
                                 int64_t(image->GetWidth()) * image->GetHeight() * 4) {
    qerr(kSource, "RaceManager::LoadNewImage", __LINE__, "Can't load image (%s)", path.cstr());
    return;
  }
  curFile = path;

  ReleaseTexture();
  delete mesh;
  mesh = nullptr;

  if (ini && ini->GetBool("effects.black_and_white", false)) image->MakeGray();

  const int orientation = ReadOrientation(path.cstr());
  const bool turned = orientation == 6 || orientation == 8;
  const int w = image->GetWidth(), h = image->GetHeight();
  std::unique_ptr<QBitMap> oriented(new QBitMap(32, turned ? h : w, turned ? w : h));
  CopyOriented(*image, orientation, oriented.get());

  texture = new DBitMapTexture(oriented.get(), image->GetName());

  QApp* app = QGetApp();
  if (window && app) {
    const double a = double(w) / double(h);
    const double f = turned ? 1.0 / a : a;
    const QRect& desk = app->GetDesktopRect();
    const int ww = window->GetWidth(), wh = window->GetHeight();
    // The desktop's proportions, so that a window shaped like the desktop is filled by height.
    const double deskAspect = desk.wid > 0 && desk.hgt > 0 ? double(desk.wid) / desk.hgt
                                                           : (wh > 0 ? double(ww) / wh : 1.0);
    const int quadW = int(f / deskAspect * ww);
    mesh = new DMesh(image->GetName());
    mesh->DefineFlat2D(float(quadW), float(wh));
    mesh->SetPolygonTexture(0, texture,
                            QRect{0, 0, oriented->GetWidth(), oriented->GetHeight()});
  }
  oriented.reset();

  curImage = FindImage(path.cstr());
  if (curImage == -1 && AddToDir(path.cstr())) curImage = imageCount - 1;
}

void RaceManager::Paint() {
  if (!canvas) return;
  canvas->SetClearColor(0, 0, 0, 0);
  canvas->Clear(QCanvas::CLEAR_COLOR | QCanvas::CLEAR_DEPTH);
  if (mesh) {
    canvas->Set3D(QCanvas::DEFAULT_DISTANCE);
    mesh->Paint();
  }
  if (!(flags & SHOW_INFO)) return;
  canvas->Set2D();
  canvas->SetFont(font);
  qstring line;
  line.Format("File %d of %d", curImage + 1, imageCount);
  DrawText(line.cstr(), 10, 10);
  if (texture) {
    qstring name(curFile);
    name.CutPath();
    line.Format("%s (%dx%d)", name.cstr(), texture->GetWidth(), texture->GetHeight());
    DrawText(line.cstr(), 10, 30);
  }
}

void RaceManager::DrawText(const char* text, int x, int y) {
  if (!canvas) return;
  canvas->SetColor(0, 0, 0, 255);
  canvas->SetDrawFlag(1);
  canvas->Text(x + 2, y + 2, text, -1);
  canvas->SetColor(255, 255, 255, 255);
  canvas->SetDrawFlag(0);
  canvas->Text(x, y, text, -1);
}
