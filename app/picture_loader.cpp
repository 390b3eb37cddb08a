// PictureLoader: file -> screen-size bitmap and orientation.
#include "app/picture_loader.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "app/caption.h"
#include "framework/image/qexif.h"
#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qpicturekinds.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/virtualfilesystem.h"

namespace {

using Clock = std::chrono::steady_clock;
double MsSince(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

// The whole file in one block: a real file, or a member of an archive attached to the virtual
// file system. Null for anything else (a FIFO, a device or a directory is never opened: it could
// block for ever or has no picture in it).
// `st` is the path's stat, null when there is none.
QBlock ReadWhole(const char* path, const struct stat* st, size_t* size) {
  *size = 0;
  const bool real = st != nullptr;
  if (real && !S_ISREG(st->st_mode)) return nullptr;
  std::unique_ptr<QFile> file;
  if (QVirtualFileSystem* vfs = QGetVirtualFileSystem()) {
    file.reset(vfs->OpenFile(path, QFile::READ));
  } else if (real) {
    file.reset(new QFile(path, QFile::READ));
  }
  if (!file || !file->IsOpen()) return nullptr;
  const int length = file->Size();
  if (length <= 0) return nullptr;
  QBlock data(static_cast<uint8_t*>(qmalloc(size_t(length))));
  if (!data || file->Read(data.get(), length) != length) return nullptr;
  *size = size_t(length);
  return data;
}

// The pixels the quad needs in the picture's stored (unturned) directions: its size, times the
// zoom it may be shown at.
void StoredQuadSize(const LoadedPicture& p, int* w, int* h) {
  int qw = 0, qh = 0;
  p.QuadSize(&qw, &qh);
  if (p.fit.zoom > 1.0) qw = int(qw * p.fit.zoom + 0.5), qh = int(qh * p.fit.zoom + 0.5);
  *w = p.Turned() ? qh : qw;
  *h = p.Turned() ? qw : qh;
}

// The smallest JPEG scale (in eighths) whose decode still covers `needW` x `needH` and fits the
// limits; 8 when even the full size does not cover it.
int JpegEighths(int w, int h, int needW, int needH, int limit) {
  for (int m = 1; m <= 8; ++m) {
    const int64_t sw = (int64_t(w) * m + 7) / 8, sh = (int64_t(h) * m + 7) / 8;
    if (sw > limit || sh > limit) return std::max(1, m - 1);
    if (sw >= needW && sh >= needH) return m;
  }
  return 8;
}

// The size a `w` x `h` picture is reduced to: just covering the quad (`needW` x `needH`, its
// proportions kept), never enlarged, and inside the texture limit.
void TargetSize(int w, int h, int needW, int needH, int limit, int* tw, int* th) {
  double scale = 1.0;
  if (needW > 0 && needH > 0) scale = std::max(double(needW) / w, double(needH) / h);
  scale = std::min({scale, 1.0, double(limit) / w, double(limit) / h});
  *tw = scale < 1.0 ? std::max(1, std::min(w, int(w * scale + 0.5))) : w;
  *th = scale < 1.0 ? std::max(1, std::min(h, int(h * scale + 0.5))) : h;
}

// The first frame of an animation, straight at the quad's size; the animation keeps `bytes`.
bool LoadAnimation(QBlock bytes, size_t size, int limit, LoadedPicture* out, QImage* image) {
  int orientation = 0, w = 0, h = 0;
  if (QImage::IsWebPName(out->path.c_str()))
    QImage::ReadWebPInfo(bytes.get(), size, &w, &h, &orientation);
  std::unique_ptr<QAnimation> animation(new QAnimation());
  if (!animation->Open(std::move(bytes), size, out->path.c_str())) return false;
  out->width = animation->GetWidth(), out->height = animation->GetHeight();
  out->orientation = orientation;
  int needW = 0, needH = 0, tw = 0, th = 0;
  StoredQuadSize(*out, &needW, &needH);
  TargetSize(out->width, out->height, needW, needH, limit, &tw, &th);
  if (!animation->Next(image, tw, th, &out->frameDelayMs)) return false;
  out->animation = std::move(animation);
  return true;
}

}  // namespace

void LoadedPicture::QuadSize(int* w, int* h) const {
  *w = *h = 0;
  if (width <= 0 || height <= 0 || fit.windowHeight <= 0) return;
  const double a = double(width) / double(height);
  const double f = Turned() ? 1.0 / a : a;
  const double desk = fit.desktopAspect > 0 ? fit.desktopAspect
                                            : double(fit.windowWidth) / double(fit.windowHeight);
  *w = int(f / desk * fit.windowWidth);
  *h = fit.windowHeight;
  const int halfWidth = fit.windowWidth / 2;
  if (fit.half && *w > halfWidth) {
    *h = int(double(*h) * halfWidth / *w);
    *w = halfWidth;
  }
}

namespace {

FileStamp StampOf(const struct stat& st) {
  FileStamp s;
  s.size = int64_t(st.st_size);
  s.modified = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  return s;
}

}  // namespace

FileStamp StampOf(const char* path) {
  struct stat st;
  return path && stat(path, &st) == 0 ? StampOf(st) : FileStamp();
}

namespace {

// The quad `picture` needs under `fit` (stored directions) and the largest side allowed there.
void NeedUnder(const LoadedPicture& picture, const ScreenFit& fit, int* needW, int* needH,
               int* limit) {
  LoadedPicture shape;
  shape.width = picture.width, shape.height = picture.height;
  shape.orientation = picture.orientation;
  shape.fit = fit;
  StoredQuadSize(shape, needW, needH);
  *limit = std::min(QImage::MAX_SIZE, fit.maxTexture > 0 ? fit.maxTexture : QImage::MAX_SIZE);
}

// The background is made at a 16th of the covered window each way: the GPU's bilinear
// magnification of so few texels is a blur of its own, and the passes cost nothing at that size.
constexpr int kBackgroundShrink = 16;
// Three box passes come close to a Gaussian; radius 3 gives a sigma of about 3.5 texels, some 55
// window pixels: nothing of the picture's detail is left to compete with it.
constexpr int kBlurPasses = 3, kBlurRadius = 3;

// One box-blur pass over `n` values `stride` apart, the edge values held beyond the ends.
void BoxBlurLine(int* v, int n, int stride, std::vector<int>* line) {
  line->resize(size_t(n));
  for (int i = 0; i < n; ++i) (*line)[size_t(i)] = v[size_t(i) * size_t(stride)];
  const auto at = [&](int i) { return (*line)[size_t(std::min(std::max(i, 0), n - 1))]; };
  constexpr int width = 2 * kBlurRadius + 1;
  int sum = 0;
  for (int i = -kBlurRadius; i <= kBlurRadius; ++i) sum += at(i);
  for (int i = 0; i < n; ++i) {
    v[size_t(i) * size_t(stride)] = (sum + width / 2) / width;
    sum += at(i + kBlurRadius + 1) - at(i - kBlurRadius);
  }
}

// The picture as it would cover the window, small and blurred, from its reduced `pixels`; null
// when its quad leaves nothing of the window free (or has no size).
std::unique_ptr<QBitMap> MakeBackground(const QBitMap& pixels, const LoadedPicture& p) {
  int qw = 0, qh = 0;
  p.QuadSize(&qw, &qh);
  const int pw = pixels.GetWidth(), ph = pixels.GetHeight();
  if (qw <= 0 || qh <= 0 || qw >= p.fit.windowWidth || pw <= 0 || ph <= 0 ||
      int64_t(pixels.GetSize()) < int64_t(pw) * ph * 4)
    return nullptr;
  const double cover = std::max(double(p.fit.windowWidth) / qw, double(p.fit.windowHeight) / qh);
  const int uw = std::max(1, int(qw * cover / kBackgroundShrink + 0.5));
  const int uh = std::max(1, int(qh * cover / kBackgroundShrink + 0.5));
  // Never more texels than the pixels have (a small picture): the box cannot enlarge.
  const int sw = std::min(pw, p.Turned() ? uh : uw), sh = std::min(ph, p.Turned() ? uw : uh);

  // Box reduction: each small texel the mean of the pixels its box holds, rows in memory order.
  std::vector<int> small(size_t(sw) * sh * 3);
  std::vector<int> column(static_cast<size_t>(pw)), perColumn(static_cast<size_t>(sw), 0);
  for (int x = 0; x < pw; ++x) {
    column[size_t(x)] = int(int64_t(x) * sw / pw);
    ++perColumn[size_t(column[size_t(x)])];
  }
  std::vector<uint32_t> sum(size_t(sw) * 3);
  const uint8_t* rows = pixels.GetBuffer();
  for (int dy = 0; dy < sh; ++dy) {
    const int y0 = int(int64_t(dy) * ph / sh), y1 = int(int64_t(dy + 1) * ph / sh);
    std::fill(sum.begin(), sum.end(), 0u);
    for (int y = y0; y < y1; ++y) {
      const uint8_t* px = rows + size_t(y) * size_t(pw) * 4;
      for (int x = 0; x < pw; ++x, px += 4) {
        uint32_t* s = &sum[size_t(column[size_t(x)]) * 3];
        s[0] += px[0], s[1] += px[1], s[2] += px[2];
      }
    }
    for (int dx = 0; dx < sw; ++dx) {
      const uint32_t n = uint32_t(perColumn[size_t(dx)]) * uint32_t(y1 - y0);
      for (int c = 0; c < 3; ++c)
        small[(size_t(dy) * sw + dx) * 3 + c] = int((sum[size_t(dx) * 3 + c] + n / 2) / n);
    }
  }
  std::vector<int> line;
  for (int pass = 0; pass < kBlurPasses; ++pass)
    for (int c = 0; c < 3; ++c) {
      for (int y = 0; y < sh; ++y) BoxBlurLine(&small[size_t(y) * sw * 3 + c], sw, 3, &line);
      for (int x = 0; x < sw; ++x) BoxBlurLine(&small[size_t(x) * 3 + c], sh, sw * 3, &line);
    }

  std::unique_ptr<QBitMap> out(new QBitMap());
  if (!out->Alloc(32, sw, sh)) return nullptr;
  uint8_t* o = out->GetBuffer();
  for (size_t i = 0; i < size_t(sw) * sh; ++i, o += 4) {
    for (int c = 0; c < 3; ++c) o[c] = uint8_t(small[i * 3 + size_t(c)]);
    o[3] = 255;
  }
  return out;
}

}  // namespace

bool Covers(const LoadedPicture& picture, int pixW, int pixH, const ScreenFit& fit) {
  int needW = 0, needH = 0, limit = 0;
  NeedUnder(picture, fit, &needW, &needH, &limit);
  // One pixel short is rounding, not a blur anyone sees.
  const auto enough = [limit](int have, int need, int all) {
    return have + 1 >= std::min({need, all, limit});
  };
  return enough(pixW, needW, picture.width) && enough(pixH, needH, picture.height);
}

bool Refit(LoadedPicture* picture, const ScreenFit& fit) {
  QBitMap* pixels = picture->pixels.get();
  if (!picture->ok || !pixels || !Covers(*picture, pixels->GetWidth(), pixels->GetHeight(), fit))
    return false;
  int needW = 0, needH = 0, limit = 0, tw = 0, th = 0;
  NeedUnder(*picture, fit, &needW, &needH, &limit);
  TargetSize(pixels->GetWidth(), pixels->GetHeight(), needW, needH, limit, &tw, &th);
  if ((tw < pixels->GetWidth() || th < pixels->GetHeight()) && !pixels->AreaReduce(tw, th))
    return false;
  picture->fit = fit;
  // One made for the old window still fills the new one's sides, a little more or less blurred.
  if (!fit.background)
    picture->background.reset();
  else if (!picture->background)
    picture->background = MakeBackground(*pixels, *picture);
  return true;
}

void LoadPicture(const std::string& path, const ScreenFit& fit, bool grey, LoadedPicture* out,
                 const std::string* file) {
  *out = LoadedPicture();
  out->path = path;
  out->fit = fit;
  out->grey = grey;
  const char* source = file ? file->c_str() : path.c_str();
  if ((out->stopped = QBitMap::StopRequested())) return;
  // One look at the file serves the change check and the refusal of what is not a file.
  struct stat st;
  const bool exists = stat(source, &st) == 0;
  if (exists) out->stamp = StampOf(st);
  // The file's bytes are the first part of the picture's memory.
  if (exists && S_ISREG(st.st_mode) && int64_t(st.st_size) > QImage::MAX_DECODE_BYTES) {
    QWARN("LoadPicture", "LoadPicture(%s); the file's %lld MB are more than %lld", path.c_str(),
          static_cast<long long>(st.st_size >> 20),
          static_cast<long long>(QImage::MAX_DECODE_BYTES >> 20));
    return;
  }

  auto phase = Clock::now();
  size_t size = 0;
  QBlock bytes = ReadWhole(source, exists ? &st : nullptr, &size);
  out->readMs = MsSince(phase);

  phase = Clock::now();
  QExif exif;
  out->exifCode = exif.ReadFromJpeg(bytes.get(), size);
  out->orientation = exif.orientation;
  out->taken = exif.dateTimeOriginal.cstr();
  out->title = Caption::TitleOf(exif);
  out->exifMs = MsSince(phase);
  if (!bytes) return;

  phase = Clock::now();
  const int limit =
      std::min(QImage::MAX_SIZE, fit.maxTexture > 0 ? fit.maxTexture : QImage::MAX_SIZE);
  std::unique_ptr<QImage> image(new QImage());
  image->SetName(path.c_str());
  bool read = false;
  const QPictureKind* kind = qPictureKindOf(path.c_str());
  if (kind && kind->animates && QAnimation::Animates(bytes.get(), size)) {
    read = LoadAnimation(std::move(bytes), size, limit, out, image.get());
  } else if (kind && kind->readMemory) {
    // The kinds that can tell their size first decode straight to the quad's size (through the
    // library's scaling, the rows' reduction, or both); the others decode whole and are reduced
    // below. The orientation is the EXIF block's until the kind's header or reader says.
    int orientation = out->orientation, w = 0, h = 0;
    QPictureKind::Target target;
    if (kind->scaled && kind->readSize && kind->readSize(bytes.get(), size, &w, &h, &orientation) &&
        w > 0 && h > 0) {
      out->width = w, out->height = h, out->orientation = kind->orients ? orientation : 0;
      int needW = 0, needH = 0, dw = w, dh = h;
      StoredQuadSize(*out, &needW, &needH);
      if (kind->eighths) {
        target.eighths = JpegEighths(w, h, needW, needH, limit);
        dw = int((int64_t(w) * target.eighths + 7) / 8);
        dh = int((int64_t(h) * target.eighths + 7) / 8);
      }
      TargetSize(dw, dh, needW, needH, limit, &target.width, &target.height);
    }
    read = kind->readMemory(image.get(), bytes.get(), size, path.c_str(), target, &orientation);
    out->orientation = kind->orients ? orientation : 0;
  } else {
    // The kinds read only from files (BMP, SGI, PSD, MIP), or of no known kind (logged there).
    read = image->Read(source);
  }
  out->stopped = !read && QBitMap::StopRequested();
  // A reader may answer true without pixels (a kind it accepts unread): nothing to show.
  if (!read || image->GetWidth() <= 0 || image->GetHeight() <= 0 || !image->GetBuffer() ||
      int64_t(image->GetSize()) < int64_t(image->GetWidth()) * image->GetHeight() * 4)
    return;
  // The kinds that decode scaled gave their full size before; the others decode it whole.
  if (out->width <= 0) out->width = image->GetWidth(), out->height = image->GetHeight();
  out->decodeMs = MsSince(phase);

  // Down to the quad's size (kept in proportion when only one direction is larger), and always
  // inside the texture limit.
  phase = Clock::now();
  int needW = 0, needH = 0, tw = 0, th = 0;
  StoredQuadSize(*out, &needW, &needH);
  TargetSize(image->GetWidth(), image->GetHeight(), needW, needH, limit, &tw, &th);
  if ((tw < image->GetWidth() || th < image->GetHeight()) && !image->AreaReduce(tw, th)) {
    out->stopped = QBitMap::StopRequested();
    return;
  }
  out->reduceMs = MsSince(phase);

  // From the picture's colour profile to sRGB, on the screen-size pixels; a profile that can't
  // be used was logged and the picture shows as decoded.
  phase = Clock::now();
  image->ConvertToSRGB();
  out->colourMs = MsSince(phase);

  phase = Clock::now();
  if (grey) image->MakeGray();
  out->greyMs = MsSince(phase);

  // From the finished pixels, so that it has their colours and grey.
  phase = Clock::now();
  if (fit.background) out->background = MakeBackground(*image, *out);
  out->backgroundMs = MsSince(phase);

  out->pixels = std::move(image);
  out->ok = true;
}
