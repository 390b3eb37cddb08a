// QImage: construction and the choice of reader by file name.
#include "framework/image/qimage.h"

#include <cstring>
#include <utility>

#include "framework/image/qimage_internal.h"
#include "framework/image/qpicturekinds.h"

#include "framework/qmessage.h"

namespace {

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

bool qimage_detail::AcceptDecodeBytes(const char* reader, const char* name, int width,
                                      int height, int64_t need) {
  if (need <= QImage::MAX_DECODE_BYTES) return true;
  QWARN("QImage::Read", "QImage:%s(); (%s) is a %dx%d: decoding it needs %lld MB, more than %lld",
        reader, name, width, height, MegabytesUp(need),
        static_cast<long long>(QImage::MAX_DECODE_BYTES >> 20));
  return false;
}

qimage_detail::RowSink::RowSink(int width, int height, int reduceWidth, int reduceHeight)
    : width_(width), height_(height), outW_(width), outH_(height) {
  if (reduceWidth > 0 && reduceHeight > 0 && reduceWidth <= width && reduceHeight <= height &&
      (reduceWidth < width || reduceHeight < height))
    outW_ = reduceWidth, outH_ = reduceHeight;
}

int64_t qimage_detail::RowSink::Bytes() const {
  const int64_t out = int64_t(outW_) * outH_ * 4;
  // The reducer keeps a row of column sums and two rows of weighted totals.
  return outW_ == width_ && outH_ == height_ ? out : out + int64_t(outW_) * 36;
}

bool qimage_detail::RowSink::Open(QBitMap* into, int flags) {
  if (!into->Alloc(32, outW_, outH_, flags)) return false;
  into_ = into;
  next_ = 0;
  if (outW_ == width_ && outH_ == height_) return true;
  reducer_.reset(new QAreaReducer(width_, height_, into));
  return reducer_->IsReady();
}

void qimage_detail::RowSink::Push(const uint8_t* row) {
  if (!into_ || next_ >= height_) return;
  if (reducer_)
    reducer_->PushRow(row);
  else
    memcpy(into_->GetAddress(0, height_ - 1 - next_), row, size_t(width_) * 4);
  ++next_;
}

namespace {

bool IsKind(const char* name, QPictureKind::Id id) {
  const QPictureKind* kind = qPictureKindOf(name);
  return kind && kind->id == id;
}

}  // namespace

bool QImage::IsJpegName(const char* name) { return IsKind(name, QPictureKind::JPEG); }
bool QImage::IsTargaName(const char* name) { return IsKind(name, QPictureKind::TARGA); }
bool QImage::IsPngName(const char* name) { return IsKind(name, QPictureKind::PNG); }
bool QImage::IsHeifName(const char* name) { return IsKind(name, QPictureKind::HEIF); }
bool QImage::IsWebPName(const char* name) { return IsKind(name, QPictureKind::WEBP); }
bool QImage::IsGifName(const char* name) { return IsKind(name, QPictureKind::GIF); }
bool QImage::IsTiffName(const char* name) { return IsKind(name, QPictureKind::TIFF); }

void QImage::SwapPixels(QImage* from) {
  std::swap(flags_, from->flags_);
  std::swap(depth_, from->depth_);
  std::swap(width_, from->width_);
  std::swap(height_, from->height_);
  std::swap(pixels_, from->pixels_);
  std::swap(size_, from->size_);
  profile_.swap(from->profile_);
}

bool QImage::Read(const char* name) {
  if (!name) name = "";
  const QPictureKind* kind = qPictureKindOf(name);
  if (!kind) {
    QWARN("QImage::Read", "QImage:Read(): image '%s' has unknown file format", name);
    return false;
  }
  if (kind->readFile) return kind->readFile(this, name);
  size_t size = 0;
  QBlock data;
  if (!ReadFile(name, &data, &size)) return false;
  int orientation = 0;
  return kind->readMemory(this, data.get(), size, name, QPictureKind::Target(), &orientation);
}
