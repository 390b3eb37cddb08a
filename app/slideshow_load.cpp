// RaceManager: turning a picture file into the textured quad on the screen, and painting.
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "app/slideshow.h"
#include "app/portrait_pairs.h"
#include "app/caption.h"
#include "app/prefetcher.h"
#include "d3/dglobal.h"
#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qbitmap.h"
#include "framework/qcanvas.h"
#include "framework/qfont.h"
#include "framework/image/qimage.h"
#include "framework/image/qpicturefacts.h"
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
  // The shown picture again (another black and white, the display back on): paired as it was.
  if (slide && slide.shape.path == curFile.cstr()) mayPair = slide.pair != nullptr;
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
  fit.background = blurBackground;
  return fit;
}

void RaceManager::LoadNewImage(const char* pathArg) {
  // The path may point into the catalogue or curFile, both of which change below.
  const std::string path(pathArg ? pathArg : "");
  const bool pairNext = mayPair;
  mayPair = true;
  // In the dark the position moves; the picture is decoded when the display comes on.
  if (!displayOn) {
    SelectImage(path.c_str());
    return;
  }
  const ScreenFit fit = CurrentFit();
  const bool grey = ini && ini->GetBool("effects.black_and_white", false);
  LoadedPicture picture, partner;
  const bool prefetched = Fetch(path, fit, grey, &picture);
  const bool pair = pairNext && picture.ok && LoadPartner(&picture, fit, grey, &partner);
  ShowPicture(&picture, prefetched, false, pair ? &partner : nullptr);
  // After the frame: the worker would otherwise take the processor from the paint.
  prefetchDue = true;
}

bool RaceManager::Fetch(const std::string& path, const ScreenFit& fit, bool grey,
                        LoadedPicture* out) {
  if (prefetcher && prefetcher->Take(path, fit, grey, out)) return true;
  LoadPicture(path, fit, grey, out);
  return false;
}

bool RaceManager::PairsWanted() const {
  if (!ini || !ini->GetBool("effects.portrait_pairs", false)) return false;
  const ScreenFit fit = CurrentFit();
  return fit.windowWidth > fit.windowHeight;
}

int RaceManager::Portrait(const std::string& path) {
  int w = 0, h = 0, orientation = 0;
  if (prefetcher && prefetcher->Shape(path, &w, &h, &orientation))
    return IsPortrait(w, h, orientation);
  QPictureFacts facts;
  if (QReadPictureFacts(path.c_str(), &facts) && facts.width > 0 && facts.height > 0)
    return IsPortrait(facts.width, facts.height, facts.orientation);
  return -1;
}

bool RaceManager::LoadPartner(LoadedPicture* first, const ScreenFit& fit, bool grey,
                              LoadedPicture* partner) {
  if (!PairsWanted() || !IsPortrait(first->width, first->height, first->orientation)) return false;
  const int index = CatalogueIndex(first->path.c_str());
  if (index < 0 || index + 1 >= catalogue->Count()) return false;
  const std::string next(catalogue->Name(index + 1));
  // A neighbour known to be landscape costs no decode; an unknown one is decoded to tell.
  if (Portrait(next) == 0) return false;
  ScreenFit half = fit;
  half.half = true;
  LoadedPicture loaded;
  Fetch(next, half, grey, &loaded);
  if (!loaded.ok) {
    if (!loaded.stopped)
      QWARN("RaceManager::LoadPartner", "Can't load image (%s); '%s' is shown alone", next.c_str(),
            first->path.c_str());
    return false;
  }
  if (!IsPortrait(loaded.width, loaded.height, loaded.orientation)) return false;
  // Decoded for the whole window, the first is shrunk to its half (it always covers it).
  Refit(first, half);
  *partner = std::move(loaded);
  return true;
}

void RaceManager::PrefetchNeighbours() {
  if (!prefetcher || !displayOn) return;
  std::vector<std::string> wanted;
  const int cur = catalogue->Current(), count = catalogue->Count();
  if (cur >= 0 && count > 1 && PairsWanted()) {
    // The slides a step either way shows: both pictures of a pair.
    const auto portrait = [this](int i) { return Portrait(catalogue->Name(i)) == 1; };
    const auto pairsAt = [&](int i) { return i + 1 < count && portrait(i) && portrait(i + 1); };
    const int next = (cur + (slide.pair ? 2 : 1)) % count;
    const int prev = (cur - 1 + count) % count;
    std::vector<int> indexes = {next};
    if (pairsAt(next)) indexes.push_back(next + 1);
    if (prev >= 1 && pairsAt(prev - 1)) indexes.push_back(prev - 1);
    indexes.push_back(prev);
    for (int i : indexes)
      if (i != cur && (!slide.pair || i != cur + 1) &&
          std::find(wanted.begin(), wanted.end(), catalogue->Name(i)) == wanted.end())
        wanted.push_back(catalogue->Name(i));
  } else if (cur >= 0 && count > 1) {
    wanted.push_back(catalogue->Name((cur + 1) % count));
    const int prev = (cur - 1 + count) % count;
    if (prev != (cur + 1) % count) wanted.push_back(catalogue->Name(prev));
  }
  prefetcher->Want(wanted, CurrentFit(), ini && ini->GetBool("effects.black_and_white", false));
}

void RaceManager::ShowPicture(LoadedPicture* picture, bool prefetched, bool sharper,
                              LoadedPicture* partner) {
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
  if (picture->background) {
    slide.back.reset(new DBitMapTexture());
    slide.back->SetName(path);
    slide.back->UsePictureFiltering();
    slide.back->FromBitMap(picture->background.get());
  }
  if (partner) {
    slide.pair.reset(new Slide());
    Slide& right = *slide.pair;
    right.texture.reset(new DBitMapTexture());
    right.texture->SetName(partner->path.c_str());
    right.texture->UsePictureFiltering();
    right.texture->FromBitMap(partner->pixels.get());
    right.shape.path = partner->path;
    right.shape.width = partner->width, right.shape.height = partner->height;
    right.shape.orientation = partner->orientation;
    partner->pixels.reset();
    QDBG("RaceManager::LoadNewImage", "Pair %s + %s\n", path, partner->path.c_str());
  }
  PlaceQuads(&slide);
  if (captions) {
    caption = captions->Make(picture->path, picture->taken.c_str(), picture->title.c_str());
    QDBG("RaceManager::LoadNewImage", "Caption (%s): %s\n", path, caption.c_str());
  }
  picture->pixels.reset();
  picture->background.reset();
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

std::unique_ptr<DMesh> RaceManager::MakeQuad(const Slide& picture, bool half) {
  const LoadedPicture& shape = picture.shape;
  DBitMapTexture* pixels = picture.texture.get();
  if (!window || !pixels) return nullptr;
  quadWindowWidth = window->GetWidth();
  quadWindowHeight = window->GetHeight();
  LoadedPicture sized;
  sized.width = shape.width, sized.height = shape.height, sized.orientation = shape.orientation;
  sized.fit = CurrentFit();
  sized.fit.half = half;
  int quadW = 0, quadH = 0;
  sized.QuadSize(&quadW, &quadH);
  if (quadH <= 0) return nullptr;
  std::unique_ptr<DMesh> quad(new DMesh(shape.path.c_str()));
  quad->DefineFlat2D(float(quadW), float(quadH), TurnAngle(shape.orientation));
  quad->SetPolygonTexture(0, pixels, QRect{0, 0, pixels->GetWidth(), pixels->GetHeight()});
  return quad;
}

void RaceManager::MakeSides(Slide* picture) {
  for (auto& side : picture->sides) side.reset();
  if (!window || !picture->back || !picture->mesh) return;
  // The picture's own quad, and what the quads cover: it, or both of a pair side by side.
  const DMesh& quad = *picture->mesh;
  const float qx = (quad.GetVertex(1)->x - quad.GetVertex(0)->x) / 2.0f;
  const float qy = (quad.GetVertex(2)->y - quad.GetVertex(0)->y) / 2.0f;
  const float left = quad.GetVertex(0)->x;
  const float right = (picture->pair && picture->pair->mesh ? *picture->pair->mesh : quad)
                          .GetVertex(1)->x;
  const float w = float(window->GetWidth()), h = float(window->GetHeight());
  if (right - left >= w || qx <= 0.0f || qy <= 0.0f) return;
  // The strips share the quads' edges exactly, so that a fade adds each pixel once. The picture
  // as it would cover the window, centred on it, in its pixels.
  const float cover = std::max(w / (2.0f * qx), h / (2.0f * qy));
  const float cw = 2.0f * qx * cover, ch = 2.0f * qy * cover;
  const float t0 = 0.5f - h / (2.0f * ch), t1 = 0.5f + h / (2.0f * ch);
  const float edges[2][2] = {{-w / 2.0f, left}, {right, w / 2.0f}};
  for (int i = 0; i < 2; ++i) {
    const float x0 = edges[i][0], x1 = edges[i][1];
    if (x1 - x0 < 0.5f) continue;
    std::unique_ptr<DMesh> side(new DMesh(picture->shape.path.c_str()));
    if (!side->DefineRect(x0, -h / 2.0f, x1, h / 2.0f, 0.5f + x0 / cw, t0, 0.5f + x1 / cw, t1,
                          TurnAngle(picture->shape.orientation)))
      continue;
    DBitMapTexture* back = picture->back.get();
    side->SetPolygonTexture(0, back, QRect{0, 0, back->GetWidth(), back->GetHeight()});
    picture->sides[i] = std::move(side);
  }
}

void RaceManager::PaintSides(const Slide& picture, float weight, bool add) const {
  for (const auto& side : picture.sides)
    if (side) side->Paint(weight * backgroundWeight, add);
}

void RaceManager::PlaceQuads(Slide* s) {
  if (!s->pair) {
    s->mesh = MakeQuad(*s);
    MakeSides(s);
    return;
  }
  s->mesh = MakeQuad(*s, true);
  s->pair->mesh = MakeQuad(*s->pair, true);
  if (!s->mesh || !s->pair->mesh) return;
  // Side by side and centred together: the left one's centre lies half the right one's width
  // left of the window's, and the other way round.
  const float leftW = s->mesh->GetVertex(1)->x - s->mesh->GetVertex(0)->x;
  const float rightW = s->pair->mesh->GetVertex(1)->x - s->pair->mesh->GetVertex(0)->x;
  s->mesh->Shift(-rightW / 2.0f, 0.0f);
  s->pair->mesh->Shift(leftW / 2.0f, 0.0f);
  MakeSides(s);
}

void RaceManager::FollowWindowSize() {
  if (!window || (window->GetWidth() == quadWindowWidth && window->GetHeight() == quadWindowHeight))
    return;
  if (slide.mesh) PlaceQuads(&slide);
  if (fadeSlide.mesh) PlaceQuads(&fadeSlide);
  quadWindowWidth = window->GetWidth();
  quadWindowHeight = window->GetHeight();
  QDBG("RaceManager::FollowWindowSize", "Window now %dx%d\n", quadWindowWidth, quadWindowHeight);
  dirty = true;
  // Prefetched pictures that no longer cover their place are decoded again for it.
  prefetchDue = true;
  // A window that is being dragged larger changes many times a second: the picture is decoded
  // again only once its size has stood still for a moment.
  ScreenFit fit = CurrentFit();
  fit.half = slide.pair != nullptr;
  const auto covered = [&fit](const Slide& s) {
    return Covers(s.shape, s.texture->GetWidth(), s.texture->GetHeight(), fit);
  };
  if (slide && (!covered(slide) || (slide.pair && !covered(*slide.pair)))) {
    sharpenDue = true;
    sharpenAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSharpenAfterMs);
  }
}

void RaceManager::Sharpen() {
  sharpenDue = false;
  if (!slide || curFile.IsEmpty()) return;
  ScreenFit fit = CurrentFit();
  fit.half = slide.pair != nullptr;
  const auto covered = [&fit](const Slide& s) {
    return Covers(s.shape, s.texture->GetWidth(), s.texture->GetHeight(), fit);
  };
  if (covered(slide) && (!slide.pair || covered(*slide.pair))) return;
  const std::string path(curFile.cstr());
  const bool grey = ini && ini->GetBool("effects.black_and_white", false);
  LoadedPicture picture, partner;
  const bool prefetched = Fetch(path, fit, grey, &picture);
  if (slide.pair) Fetch(slide.pair->shape.path, fit, grey, &partner);
  // A picture that can no longer be read stays as it is shown; a pair's partner likewise
  // leaves the first alone.
  if (picture.ok) ShowPicture(&picture, prefetched, true, partner.ok ? &partner : nullptr);
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
      if (slide.pair && slide.pair->mesh)
        slide.pair->mesh->SetTextureWindow(float(f.u0), float(f.v0), float(f.size), float(f.size));
    }
    // During a fade, a cross-fade over black: old * (1 - w) + new * w, wherever either quad lies.
    double w = 1.0;
    if (fadeSlide.mesh) {
      const auto now = std::chrono::steady_clock::now();
      if (!fadeStarted) fadeStart = now, fadeStarted = true;
      w = std::chrono::duration<double, std::milli>(now - fadeStart).count() / fadeMs;
      if (w >= 1.0) EndFade();
    }
    // A pair's halves never overlap: each is drawn as its left partner is.
    const auto paint = [this](const Slide& s, float weight, bool add) {
      PaintSides(s, weight, add);
      s.mesh->Paint(weight, add);
      if (s.pair && s.pair->mesh) s.pair->mesh->Paint(weight, add);
    };
    if (w < 1.0) {
      paint(fadeSlide, float(1.0 - w), false);
      paint(slide, float(w), true);
      dirty = true;  // the next frame of the fade
    } else {
      paint(slide, 1.0f, false);
    }
  }
  const bool captioned = slide && !caption.empty();
  if (!(flags & SHOW_INFO) && !captioned) return;
  canvas->Set2D();
  canvas->SetFont(font.get());
  // Centred at the bottom of the picture, which fills the window's height about its middle.
  if (captioned && window)
    DrawText(caption.c_str(), std::max(10, (window->GetWidth() - TextWidth(caption.c_str())) / 2),
             window->GetHeight() - (font ? font->GetHeight() : 0) - 14);
  if (!(flags & SHOW_INFO)) return;
  qstring line;
  if (slide.pair)
    line.Format("File %d-%d of %d", catalogue->Current() + 1, catalogue->Current() + 2,
                catalogue->Count());
  else
    line.Format("File %d of %d", catalogue->Current() + 1, catalogue->Count());
  DrawText(line.cstr(), 10, 10);
  if (slide) {
    qstring name(curFile);
    name.CutPath();
    line.Format("%s (%dx%d)", name.cstr(), shownWidth, shownHeight);
    if (slide.pair) {
      const LoadedPicture& right = slide.pair->shape;
      qstring other(right.path.c_str());
      other.CutPath();
      qstring both;
      // U+00B7, a middle dot, between the two.
      both.Format("%s \xC2\xB7 %s (%dx%d)", line.cstr(), other.cstr(),
                  right.Turned() ? right.height : right.width,
                  right.Turned() ? right.width : right.height);
      line = both;
    }
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
  // File names are UTF-8, as the font takes text.
  canvas->SetColor(0, 0, 0, 255);
  canvas->SetDrawFlag(1);
  canvas->Text(x + 2, y + 2, text, -1);
  canvas->SetColor(255, 255, 255, 255);
  canvas->SetDrawFlag(0);
  canvas->Text(x, y, text, -1);
}

int RaceManager::TextWidth(const char* text) const {
  return font ? int(font->GetWidth(text) + 0.5f) : 0;
}
