// QPSD: Photoshop layer reader and compositor, and QImage::ReadPSD on top of it.
#include "framework/image/qpsd.h"

#include <cstring>

#include "framework/qbitmap.h"
#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// Big-endian field reader that remembers a short read; later reads then answer 0.
class BeReader {
 public:
  explicit BeReader(QFile* f) : f_(f), size_(f->Size()) {}
  bool Ok() const { return ok_; }
  int64_t Remaining() const { return size_ - f_->Tell(); }
  int64_t Tell() const { return f_->Tell(); }
  bool Bytes(void* p, int n) {
    if (ok_ && !ReadAll(f_, p, n)) ok_ = false;
    return ok_;
  }
  uint8_t U8() {
    uint8_t b = 0;
    Bytes(&b, 1);
    return b;
  }
  uint16_t U16() {
    uint8_t b[2] = {0, 0};
    return Bytes(b, 2) ? Be16(b) : 0;
  }
  uint32_t U32() {
    uint8_t b[4] = {0, 0, 0, 0};
    return Bytes(b, 4) ? Be32(b) : 0;
  }
  // Skips n bytes that must lie inside the file.
  bool Skip(int64_t n) {
    if (ok_ && (n < 0 || n > Remaining() || !f_->Seek(int(n), QFile::FROM_CURRENT))) ok_ = false;
    return ok_;
  }
  bool SeekTo(int64_t at) {
    if (ok_ && (at < 0 || at > size_ || !f_->Seek(int(at), QFile::FROM_START))) ok_ = false;
    return ok_;
  }

 private:
  QFile* f_;
  int64_t size_;
  bool ok_ = true;
};

// Smallest layer record: rectangle, channel count, blend signature and key, four flag bytes,
// extra-data length.
constexpr int64_t kMinLayerRecord = 16 + 2 + 8 + 4 + 4;
// PackBits turns two bytes into at most 129.
constexpr int64_t kMaxPackBitsGain = 65;

int64_t LayerArea(const QPSD::Layer& l) {
  const int64_t h = int64_t(l.bottom) - l.top, w = int64_t(l.right) - l.left;
  if (h <= 0 || w <= 0) return 0;
  // Sides reach 2^32; the product of two such is more than any file can fill anyway.
  return h > (int64_t(1) << 31) || w > (int64_t(1) << 31) ? int64_t(1) << 62 : h * w;
}

}  // namespace

QPSD::~QPSD() { Clear(); }

void QPSD::Clear() {
  for (int i = 0; i < numLayers_; ++i) {
    for (int c = 0; c < layers_[i].numChannels; ++c) qfree(layers_[i].channels[c].data);
    qfree(layers_[i].channels);
  }
  qfree(layers_);
  layers_ = nullptr;
  numLayers_ = 0;
}

bool QPSD::ReadLayerRecord(QFile* f, Layer* layer) {
  BeReader r(f);
  layer->top = int32_t(r.U32());
  layer->left = int32_t(r.U32());
  layer->bottom = int32_t(r.U32());
  layer->right = int32_t(r.U32());
  const int channels = r.U16();
  if (!r.Ok() || channels * 6 > r.Remaining()) {
    QWARN("QPSD::Load", "PSD layer record is truncated");
    return false;
  }
  if (channels > 0) {
    layer->channels = static_cast<Channel*>(qcalloc(sizeof(Channel) * size_t(channels)));
    if (!layer->channels) {
      QWARN("QPSD::Load", "PSD out of memory for %d channels", channels);
      return false;
    }
  }
  layer->numChannels = channels;
  for (int c = 0; c < channels; ++c) {
    layer->channels[c].id = int16_t(r.U16());
    r.U32();  // the data length; the data is read in sequence instead
  }
  char signature[4];
  r.Bytes(signature, 4);
  r.Bytes(layer->blendKey, 4);
  layer->blendKey[4] = 0;
  QDBG("QPSD::Load", "  blend mode key: %s\n", layer->blendKey);
  r.U8();  // opacity
  r.U8();  // clipping
  const int flags = r.U8();
  r.U8();  // filler
  layer->visible = !(flags & 2);
  QDBG("QPSD::Load", layer->visible ? "  layer visible\n" : "  layer invisible\n");
  const uint32_t extraLength = r.U32();
  const int64_t extraStart = r.Tell();

  const int32_t maskSize = int32_t(r.U32());
  if (r.Ok() && maskSize == 20) {
    r.Skip(20);  // rectangle, default colour, flags, padding
  } else if (r.Ok() && maskSize != 0) {
    QWARN("QPSD::Load", "Unsupported layer mask size (%d)", maskSize);
    return false;
  }
  r.Skip(r.U32());  // blending ranges
  r.Skip(r.U8());   // the layer's name
  r.SeekTo(extraStart + extraLength);
  if (!r.Ok()) {
    QWARN("QPSD::Load", "PSD layer record is truncated");
    return false;
  }
  return true;
}

bool QPSD::ReadChannelData(QFile* f, Layer* layer, int layerIndex) {
  BeReader r(f);
  const int64_t area = LayerArea(*layer);
  const int64_t height = int64_t(layer->bottom) - layer->top;
  const int64_t width = int64_t(layer->right) - layer->left;
  for (int c = 0; c < layer->numChannels; ++c) {
    const int compression = r.U16();
    if (!r.Ok()) break;
    if (compression != 0 && compression != 1) {
      QWARN("QPSD::Load", "PSD layer %d has unsupported compression (%d)", layerIndex, compression);
      return false;
    }
    if (compression == 1 && height > 0) r.Skip(height * 2);  // per-row byte counts, not needed
    if (area == 0 || !r.Ok()) continue;  // an empty channel has no buffer
    if (area > r.Remaining() * (compression == 1 ? kMaxPackBitsGain : 1)) {
      QWARN("QPSD::Load", "PSD layer %d channel data is truncated", layerIndex);
      return false;
    }
    uint8_t* data = static_cast<uint8_t*>(qmalloc(size_t(area)));
    if (!data) {
      QWARN("QPSD::Load", "PSD out of memory for a %lldx%lld layer", static_cast<long long>(width),
            static_cast<long long>(height));
      return false;
    }
    layer->channels[c].data = data;
    if (compression == 0) {
      r.Bytes(data, int(area));
      continue;
    }
    // PackBits, row by row. A row that decodes long runs on into the next one, never past the
    // buffer. n = -128 repeats 129 times rather than being skipped (kept).
    memset(data, 0, size_t(area));
    for (int64_t row = 0; row < height && r.Ok(); ++row) {
      int64_t at = row * width;
      const int64_t rowEnd = at + width;
      while (at < rowEnd && r.Ok()) {
        const int n = int8_t(r.U8());
        if (n >= 0) {
          for (int k = 0; k <= n; ++k, ++at) {
            const uint8_t v = r.U8();
            if (at < area) data[at] = v;
          }
        } else {
          const int repeat = (~n & 0x7F) + 2;
          const uint8_t v = r.U8();
          for (int k = 0; k < repeat; ++k, ++at)
            if (at < area) data[at] = v;
        }
      }
    }
  }
  if (!r.Ok()) {
    QWARN("QPSD::Load", "PSD layer %d channel data is truncated", layerIndex);
    return false;
  }
  return true;
}

bool QPSD::Load(QFile* file) {
  Clear();
  if (!file || !file->IsOpen() || !file->Seek(0, QFile::FROM_START)) {
    QWARN("QPSD::Load", "Not a PSD file");
    return false;
  }
  BeReader r(file);
  char signature[5] = {0, 0, 0, 0, 0};
  r.Bytes(signature, 4);
  const int version = r.U16();
  r.Skip(6);
  const int channels = r.U16();
  rows_ = int32_t(r.U32());
  columns_ = int32_t(r.U32());
  const int depth = r.U16();
  const int mode = r.U16();
  QDBG("QPSD::Load", "hdr: size=%dx%d\n", columns_, rows_);
  QDBG("QPSD::Load", "sig: %s, version %d\n", signature, version);
  QDBG("QPSD::Load", "Mode=%d, channels=%d, depth %d\n", mode, channels, depth);
  if (!r.Ok() || memcmp(signature, "8BPS", 4) != 0) {
    QWARN("QPSD::Load", "Not a PSD file");
    return false;
  }
  if (version != 1) {
    QWARN("QPSD::Load", "PSD version not 1");
    return false;
  }
  if (depth != 8) {
    QWARN("QPSD::Load", "PSD has no 8-bit/channel (depth)");
    return false;
  }
  if (mode != 3) {
    QWARN("QPSD::Load", "PSD not RGB");
    return false;
  }

  r.Skip(r.U32());  // colour-mode data
  r.Skip(r.U32());  // image resources
  r.U32();          // layer and mask section
  r.U32();          // layer info
  int count = int16_t(r.U16());
  if (count < 0) count = -count;  // negative: the first alpha channel is the merged transparency
  QDBG("QPSD::Load", "Layers=%d\n", count);
  if (!r.Ok() || count * kMinLayerRecord > r.Remaining()) {
    QWARN("QPSD::Load", "PSD layer section is truncated");
    return false;
  }
  if (count > 0) {
    layers_ = static_cast<Layer*>(qcalloc(sizeof(Layer) * size_t(count)));
    if (!layers_) {
      QWARN("QPSD::Load", "PSD out of memory for %d layers", count);
      return false;
    }
  }
  numLayers_ = count;
  bool ok = true;
  for (int i = 0; i < count && ok; ++i) ok = ReadLayerRecord(file, &layers_[i]);
  for (int i = 0; i < count && ok; ++i) ok = ReadChannelData(file, &layers_[i], i);
  if (!ok) Clear();
  return ok;
}

void QPSD::Render(QBitMap* bm) const {
  uint8_t* pixels = bm ? bm->GetBuffer() : nullptr;
  if (!pixels) return;
  const int64_t size = bm->GetSize();
  const int64_t width = bm->GetWidth(), height = bm->GetHeight();
  memset(pixels, 255, size_t(size));
  for (int i = 0; i < numLayers_; ++i) {
    const Layer& l = layers_[i];
    // Only channels with pixels had their area checked against the file; a layer without any
    // has nothing to paint however large it claims to be.
    bool painted = false;
    for (int c = 0; c < l.numChannels; ++c) painted = painted || l.channels[c].data;
    if (!l.visible || !painted) continue;
    const int64_t lw = int64_t(l.right) - l.left;
    const int64_t area = LayerArea(l);
    int w = 255;  // weight of the colour channels: the last transparency value seen
    for (int64_t k = 0; k < area; ++k) {
      const int64_t x = l.left + k % lw, y = l.top + k / lw;
      if (x < 0 || y < 0) continue;
      // Not clipped at the right: such pixels wrap into the next row up.
      const int64_t at = ((height - 1 - y) * width + x) * 4;
      if (at < 0 || at + 4 > size) continue;
      uint8_t* p = pixels + at;
      for (int c = 0; c < l.numChannels; ++c) {
        const Channel& ch = l.channels[c];
        if (!ch.data) continue;
        const int s = ch.data[k];
        if (ch.id == -1) {
          w = s;
          p[3] = uint8_t((p[3] * (255 - s) + s * s) >> 8);
        } else if (ch.id >= 0 && ch.id <= 2) {
          p[ch.id] = uint8_t((s * w + p[ch.id] * (255 - w)) >> 8);
        }
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------

bool QImage::ReadPSD(const char* name) {
  QFile file(name, QFile::READ);
  if (!file.IsOpen()) {
    QWARN("QImage::ReadPSD", "QImage: can't read PSD '%s'\n", name);
    return false;
  }
  QPSD psd;
  if (!psd.Load(&file)) return false;
  const int64_t pixels = int64_t(psd.GetColumns()) * psd.GetRows();
  // The merged image is part of every file: at least one PackBits pair per 129 bytes of each of
  // its three channels.
  if (pixels > int64_t(file.Size()) * 128) {
    QWARN("QImage::ReadPSD", "QImage: PSD '%s' is %dx%d, more than its %d bytes can hold", name,
          psd.GetColumns(), psd.GetRows(), file.Size());
    return false;
  }
  if (pixels == 0 || !Alloc(32, psd.GetColumns(), psd.GetRows(), int(flags_))) {
    QWARN("QImage::ReadPSD", "QImage: can't read PSD '%s'\n", name);
    return false;
  }
  psd.Render(this);
  return true;
}
