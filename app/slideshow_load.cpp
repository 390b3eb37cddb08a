// RaceManager: turning a picture file into the textured quad on the screen, and painting.
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "app/slideshow.h"
#include "app/prefetcher.h"
#include "d3/dglobal.h"
#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qbitmap.h"
#include "framework/qcanvas.h"
#include "framework/qfont.h"
#include "framework/image/qimage.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

namespace {

// How long a new window size stands before the shown picture is decoded again for it.
constexpr int kSharpenAfterMs = 250;

// Clockwise angle that turns a picture stored with EXIF `orientation` upright: 6 a quarter
// turn, 8 three quarters, 3 a half turn; 0 for every other value, mirrors included, which are
// shown as stored.
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
  QDBG("RaceManager::LoadCurImage", "Load image %d\n", catalogue->Current());
  // LoadNewImage replaces curFile; it must not read from the string it overwrites.
  qstring path(curFile);
  LoadNewImage(path.cstr());
}

ScreenFit RaceManager::CurrentFit() const {
  ScreenFit fit;
  // Room for the closest framing of pan and zoom.
  if (panZoom && advanceMs > 0) fit.zoom = PanZoom::MAX_ZOOM;
  QApp* app = QGetApp();
  if (!window || !app) return fit;
  fit.windowWidth = window->GetWidth();
  fit.windowHeight = window->GetHeight();
  // The desktop's proportions, so that a window shaped like the desktop is filled by height.
  const QRect& desk = app->GetDesktopRect();
  if (desk.wid > 0 && desk.hgt > 0) fit.desktopAspect = double(desk.wid) / desk.hgt;
  // Nothing decodes beyond the readers' limit anyway; the start predicts exactly this.
  const int glMax = DGlobal::MaxTextureSize();
  fit.maxTexture = glMax > 0 ? std::min(glMax, int(QImage::MAX_SIZE)) : 0;
  return fit;
}

void RaceManager::LoadNewImage(const char* pathArg) {
  // The path may point into the catalogue or curFile, both of which change below.
  const std::string path(pathArg ? pathArg : "");
  // In the dark the position moves; the picture is decoded when the display comes on.
  if (!displayOn) {
    SelectImage(path.c_str());
    return;
  }
  const ScreenFit fit = CurrentFit();
  const bool grey = ini && ini->GetBool("effects.black_and_white", false);
  LoadedPicture picture;
  const bool prefetched = prefetcher && prefetcher->Take(path, fit, grey, &picture);
  if (!prefetched) LoadPicture(path, fit, grey, &picture);
  ShowPicture(&picture, prefetched);
  // After the frame: the worker would otherwise take the processor from the paint.
  prefetchDue = true;
}

void RaceManager::PrefetchNeighbours() {
  if (!prefetcher || !displayOn) return;
  std::vector<std::string> wanted;
  const int cur = catalogue->Current(), count = catalogue->Count();
  if (cur >= 0 && count > 1) {
    wanted.push_back(catalogue->Name((cur + 1) % count));
    const int prev = (cur - 1 + count) % count;
    if (prev != (cur + 1) % count) wanted.push_back(catalogue->Name(prev));
  }
  prefetcher->Want(wanted, CurrentFit(), ini && ini->GetBool("effects.black_and_white", false));
}

void RaceManager::ShowPicture(LoadedPicture* picture, bool prefetched, bool sharper) {
  const char* path = picture->path.c_str();
  if (!picture->ok) {
    // A load given up because the program is ending is no fault of the picture.
    if (picture->stopped) {
      QDBG("RaceManager::LoadNewImage", "Load of %s given up: stopping\n", path);
    } else {
      QERR("RaceManager::LoadNewImage", "Can't load image (%s)", path);
      ++failureCount;
    }
    return;
  }
  curFile = path;
  if (!sharper && fadeMs > 0 && window && slide.mesh) {
    // The shown picture stays under the new one until the fade ends; a fade still running
    // ends here.
    fadeSlide.Clear();
    fadeSlide = std::move(slide);
    fadeStarted = false;
  }
  slide.Clear();
  QDBG("RaceManager::LoadNewImage", "Code %d, Orientation: %d\n", picture->exifCode,
       picture->orientation);

  const auto start = std::chrono::steady_clock::now();
  QBitMap* pixels = picture->pixels.get();
  // Uploaded as decoded: the quad turns it, and no mipmaps are needed at about 1:1.
  slide.texture.reset(new DBitMapTexture());
  slide.texture->SetName(path);
  slide.texture->UsePictureFiltering();
  slide.texture->FromBitMap(pixels);
  shownWidth = picture->Turned() ? picture->height : picture->width;
  shownHeight = picture->Turned() ? picture->width : picture->height;
  slide.shape.path = picture->path;
  slide.shape.width = picture->width, slide.shape.height = picture->height;
  slide.shape.orientation = picture->orientation;
  slide.mesh = MakeQuad(slide);
  picture->pixels.reset();
  // A new picture, or a sharper decode of the shown one, starts again from its first frame.
  animation = std::move(picture->animation);
  animFrame.reset();
  animGrey = picture->grey;
  animDelayMs = picture->frameDelayMs;
  animNextAt = start + std::chrono::milliseconds(animDelayMs);

  LoadTimes& t = loadTimes;
  t.read = picture->readMs, t.decode = picture->decodeMs, t.reduce = picture->reduceMs;
  t.colour = picture->colourMs, t.grey = picture->greyMs, t.exif = picture->exifMs;
  t.upload =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  // The texture count shows from outside whether old pictures are given back.
  QDBG("RaceManager::LoadNewImage",
       "Load times (%s): read %.1f ms, decode %.1f ms, reduce %.1f ms, colour %.1f ms, grey %.1f ms, "
       "exif %.1f ms, upload %.1f ms%s; %d textures\n",
       path, t.read, t.decode, t.reduce, t.colour, t.grey, t.exif, t.upload,
       prefetched ? " (prefetched)" : "", DTexture::GetLiveCount());

  dirty = true;
  if (sharper) return;
  sharpenDue = false;
  newPicture = true;
  motion = PanZoom(path);
  ++shownCount;
  int index = CatalogueIndex(path);
  if (index == -1 && AddToDir(path)) index = catalogue->Count() - 1;
  catalogue->SetCurrent(index);
  catalogue->Shown(path);
}

std::unique_ptr<DMesh> RaceManager::MakeQuad(const Slide& picture) {
  const LoadedPicture& shape = picture.shape;
  DBitMapTexture* pixels = picture.texture.get();
  if (!window || !pixels) return nullptr;
  quadWindowWidth = window->GetWidth();
  quadWindowHeight = window->GetHeight();
  LoadedPicture sized;
  sized.width = shape.width, sized.height = shape.height, sized.orientation = shape.orientation;
  sized.fit = CurrentFit();
  int quadW = 0, quadH = 0;
  sized.QuadSize(&quadW, &quadH);
  if (quadH <= 0) return nullptr;
  std::unique_ptr<DMesh> quad(new DMesh(shape.path.c_str()));
  quad->DefineFlat2D(float(quadW), float(quadH), TurnAngle(shape.orientation));
  quad->SetPolygonTexture(0, pixels, QRect{0, 0, pixels->GetWidth(), pixels->GetHeight()});
  return quad;
}

void RaceManager::FollowWindowSize() {
  if (!window || (window->GetWidth() == quadWindowWidth && window->GetHeight() == quadWindowHeight))
    return;
  if (slide.mesh) slide.mesh = MakeQuad(slide);
  if (fadeSlide.mesh) fadeSlide.mesh = MakeQuad(fadeSlide);
  quadWindowWidth = window->GetWidth();
  quadWindowHeight = window->GetHeight();
  QDBG("RaceManager::FollowWindowSize", "Window now %dx%d\n", quadWindowWidth, quadWindowHeight);
  dirty = true;
  // Prefetched pictures that no longer cover their place are decoded again for it.
  prefetchDue = true;
  // A window that is being dragged larger changes many times a second: the picture is decoded
  // again only once its size has stood still for a moment.
  if (slide && !Covers(slide.shape, slide.texture->GetWidth(), slide.texture->GetHeight(),
                       CurrentFit())) {
    sharpenDue = true;
    sharpenAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSharpenAfterMs);
  }
}

void RaceManager::Sharpen() {
  sharpenDue = false;
  if (!slide || curFile.IsEmpty()) return;
  const ScreenFit fit = CurrentFit();
  if (Covers(slide.shape, slide.texture->GetWidth(), slide.texture->GetHeight(), fit)) return;
  const std::string path(curFile.cstr());
  const bool grey = ini && ini->GetBool("effects.black_and_white", false);
  LoadedPicture picture;
  const bool prefetched = prefetcher && prefetcher->Take(path, fit, grey, &picture);
  if (!prefetched) LoadPicture(path, fit, grey, &picture);
  // A picture that can no longer be read stays as it is shown.
  if (picture.ok) ShowPicture(&picture, prefetched, true);
}

void RaceManager::Paint() {
  if (!canvas) return;
  canvas->SetClearColor(0, 0, 0, 0);
  canvas->Clear(QCanvas::CLEAR_COLOR | QCanvas::CLEAR_DEPTH);
  if (!displayOn) return;
  if (slide.mesh) {
    canvas->Set3D(QCanvas::DEFAULT_DISTANCE);
    if (HasMotion()) {
      const PanZoom::Framing f = motion.At(MotionProgress());
      slide.mesh->SetTextureWindow(float(f.u0), float(f.v0), float(f.size), float(f.size));
    }
    // During a fade, a cross-fade over black: old * (1 - w) + new * w, wherever either quad lies.
    double w = 1.0;
    if (fadeSlide.mesh) {
      const auto now = std::chrono::steady_clock::now();
      if (!fadeStarted) fadeStart = now, fadeStarted = true;
      w = std::chrono::duration<double, std::milli>(now - fadeStart).count() / fadeMs;
      if (w >= 1.0) EndFade();
    }
    if (w < 1.0) {
      fadeSlide.mesh->Paint(float(1.0 - w));
      slide.mesh->Paint(float(w), true);
      dirty = true;  // the next frame of the fade
    } else {
      slide.mesh->Paint();
    }
  }
  if (!(flags & SHOW_INFO)) return;
  canvas->Set2D();
  canvas->SetFont(font.get());
  qstring line;
  line.Format("File %d of %d", catalogue->Current() + 1, catalogue->Count());
  DrawText(line.cstr(), 10, 10);
  if (slide) {
    qstring name(curFile);
    name.CutPath();
    line.Format("%s (%dx%d)", name.cstr(), shownWidth, shownHeight);
    DrawText(line.cstr(), 10, 30);
  }
}

bool RaceManager::HasMotion() const {
  return panZoom && advanceMs > 0 && slide.mesh && !animation;
}

bool RaceManager::Moving() const {
  return HasMotion() && displayOn && !paused && !newPicture && MotionProgress() < 1.0;
}

double RaceManager::MotionProgress() const {
  if (newPicture) return 0.0;
  const auto at = paused ? motionHeldAt : std::chrono::steady_clock::now();
  const double ms = std::chrono::duration<double, std::milli>(at - motionStart).count();
  return std::min(1.0, std::max(0.0, ms / advanceMs));
}

void RaceManager::NextFrame() {
  const auto now = std::chrono::steady_clock::now();
  if (advanceMs > 0 && !paused && now >= advanceAt && animation->AtLoopEnd()) {
    const int before = shownCount;
    AdvanceStep();
    // When no other picture loads, this one plays on.
    if (shownCount != before || !animation) return;
  }
  if (!animFrame) animFrame.reset(new QBitMap());
  if (!slide || !animation->Next(animFrame.get(), slide.texture->GetWidth(),
                                 slide.texture->GetHeight(), &animDelayMs)) {
    animation.reset();
    animFrame.reset();
    return;
  }
  if (animGrey) animFrame->MakeGray();
  slide.texture->Update(animFrame.get());
  QDBG("RaceManager::NextFrame", "Frame %d (%d ms) of %s\n", animation->FrameIndex(), animDelayMs,
       curFile.cstr());
  dirty = true;
  // Each frame gets its whole time, counted from now, when it is drawn: a late one (a busy
  // machine, a step) does not shorten the next.
  animNextAt = now + std::chrono::milliseconds(animDelayMs);
}

void RaceManager::EndFade() {
  fadeSlide.Clear();
  fadeStarted = false;
}

void RaceManager::DrawText(const char* text, int x, int y) {
  if (!canvas) return;
  // File names are UTF-8; the font's sheet is Latin-1.
  qstring latin;
  qUtf8ToLatin1(text, &latin);
  canvas->SetColor(0, 0, 0, 255);
  canvas->SetDrawFlag(1);
  canvas->Text(x + 2, y + 2, latin.cstr(), -1);
  canvas->SetColor(255, 255, 255, 255);
  canvas->SetDrawFlag(0);
  canvas->Text(x, y, latin.cstr(), -1);
}
