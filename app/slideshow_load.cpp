// RaceManager: turning a picture file into the textured quad on the screen, and painting.
#include <algorithm>
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
#include "framework/qtimer.h"

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

// Clockwise angle of QBitMap::Rotate that turns a picture stored with EXIF `orientation`
// upright: 6 a quarter turn, 8 three quarters, 3 a half turn; 0 for every other value, mirrors
// included, which are shown as stored.
int TurnAngle(int orientation) {
  switch (orientation) {
    case 3:
      return 180;
    case 6:
      return 90;
    case 8:
      return 270;
    default:
      return 0;
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
  LoadTimes times;
  QTimer phase;
  phase.Start();
  std::unique_ptr<QImage> image(new QImage());
  image->SetName(path.cstr());
  // A picture without pixels (a PNG name, which the reader accepts unread) cannot be shown.
  if (!image->Read(path.cstr()) || image->GetWidth() <= 0 || image->GetHeight() <= 0 ||
      !image->GetBuffer() || int64_t(image->GetSize()) <
                                 int64_t(image->GetWidth()) * image->GetHeight() * 4) {
    qerr(kSource, "RaceManager::LoadNewImage", __LINE__, "Can't load image (%s)", path.cstr());
    return;
  }
  times.read = phase.GetMilliSeconds();
  curFile = path;

  ReleaseTexture();
  delete mesh;
  mesh = nullptr;

  phase.Start();
  if (ini && ini->GetBool("effects.black_and_white", false)) image->MakeGray();
  times.grey = phase.GetMilliSeconds();

  phase.Start();
  const int orientation = ReadOrientation(path.cstr());
  times.exif = phase.GetMilliSeconds();

  phase.Start();
  const bool turned = orientation == 6 || orientation == 8;
  const int w = image->GetWidth(), h = image->GetHeight();
  std::unique_ptr<QBitMap> oriented(new QBitMap(32, turned ? h : w, turned ? w : h));
  // Rotate's angles are the orientation table in memory order; an upright picture is copied
  // whole, top-down and bottom-up being the same for a full rectangle.
  const int angle = TurnAngle(orientation);
  if (angle) {
    image->Rotate(angle, nullptr, oriented.get(), nullptr);
  } else if (oriented->GetBuffer()) {
    oriented->CopyPixelsFrom(image.get(), 0, 0, w, h, 0, 0);
  }
  // A picture larger than any texture would show as a white quad: shrink it to fit, keeping
  // its proportions (the mesh below takes them from the picture, not the texture).
  const int limit = DTexture::GetMaxSize();
  if (limit > 0 && (oriented->GetWidth() > limit || oriented->GetHeight() > limit)) {
    const int ow = oriented->GetWidth(), oh = oriented->GetHeight();
    const int fw = ow >= oh ? limit : std::max(1, int(int64_t(ow) * limit / oh));
    const int fh = ow >= oh ? std::max(1, int(int64_t(oh) * limit / ow)) : limit;
    if (oriented->ReduceByArea(fw, fh))
      QNOTE("RaceManager::LoadNewImage",
            "'%s' is %dx%d, above the texture limit %d: shown at %dx%d", path.cstr(), ow, oh,
            limit, fw, fh);
  }
  times.turn = phase.GetMilliSeconds();

  phase.Start();
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
  times.upload = phase.GetMilliSeconds();
  loadTimes = times;
  // The texture count shows from outside whether old pictures are given back.
  qdbg(kSource, "RaceManager::LoadNewImage", __LINE__,
       "Load times (%s): read %.1f ms, grey %.1f ms, exif %.1f ms, turn %.1f ms, upload %.1f ms; "
       "%d textures\n",
       path.cstr(), times.read, times.grey, times.exif, times.turn, times.upload,
       DTexture::GetLiveCount());

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
