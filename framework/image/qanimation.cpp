// QAnimation: animated GIF (giflib's record-level reading) and WebP (libwebpdemux's animation
// decoder), one frame at a time.
#include "framework/image/qanimation.h"

#include <gif_lib.h>
#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "framework/qbitmap.h"
#include "framework/image/qimage.h"
#include "framework/image/qgif_memory.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

bool IsGif(const uint8_t* data, size_t size) {
  return data && size >= 6 && memcmp(data, "GIF8", 4) == 0;
}

bool IsWebP(const uint8_t* data, size_t size) {
  return data && size >= 12 && memcmp(data, "RIFF", 4) == 0 && memcmp(data + 8, "WEBP", 4) == 0;
}

void CloseGif(GifFileType** gif) {
  int err = 0;
  if (*gif) DGifCloseFile(*gif, &err);
  *gif = nullptr;
}

// giflib keeps a record of every image descriptor it has read; a file that loops for ever would
// grow it without end, so it is let go after each one.
void DropSavedImages(GifFileType* gif) {
  GifFreeSavedImages(gif);
  gif->ImageCount = 0;
}

// Reads past one extension record with all its blocks; the graphic control block, when that is
// what it is, goes to `gcb` (with `*found` set).
bool ReadExtension(GifFileType* gif, GraphicsControlBlock* gcb, bool* found) {
  int code = 0;
  GifByteType* ext = nullptr;
  if (DGifGetExtension(gif, &code, &ext) == GIF_ERROR) return false;
  while (ext) {
    if (code == GRAPHICS_EXT_FUNC_CODE && ext[0] == 4 && gcb &&
        DGifExtensionToGCB(ext[0], ext + 1, gcb) == GIF_OK)
      *found = true;
    if (DGifGetExtensionNext(gif, &ext) == GIF_ERROR) return false;
  }
  return true;
}

// Display time of a frame the file gives `ms` for.
int DelayOf(int ms) { return ms < QAnimation::MIN_DELAY_MS ? QAnimation::SHORT_DELAY_MS : ms; }

}  // namespace

// ---------------------------------------------------------------------------------------------
// State of each kind
// ---------------------------------------------------------------------------------------------

struct QAnimation::Gif {
  GifSource src = {nullptr, 0, 0};
  GifFileType* file = nullptr;
  std::vector<uint8_t> canvas;  // RGBA, top row first; alpha 0 where nothing was drawn
  std::vector<uint8_t> kept;    // what a "previous" frame covered, to put back after it
  std::vector<GifPixelType> line;
  // The frame shown last: its place on the canvas (clipped) and what to do with it next.
  int left = 0, top = 0, right = 0, bottom = 0, disposal = 0;
  // What the records after it said: the next image's descriptor was read (`image`), the file
  // ended (`end`), or reading failed (`error`, giflib's code); and its control block.
  bool image = false, end = false;
  int error = 0;
  GraphicsControlBlock gcb;

  ~Gif() { CloseGif(&file); }

  // Opens the bytes from the start; giflib's code when it can't.
  int Open() {
    CloseGif(&file);
    src.at = 0;
    int err = 0;
    file = DGifOpen(&src, GifReadFromMemory, &err);
    return file ? 0 : (err ? err : D_GIF_ERR_READ_FAILED);
  }

  // Reads the records up to the next image's descriptor or the end of the file.
  void ReadAhead() {
    image = end = false;
    error = 0;
    gcb = GraphicsControlBlock{DISPOSAL_UNSPECIFIED, false, 0, NO_TRANSPARENT_COLOR};
    bool found = false;
    for (;;) {
      GifRecordType record = UNDEFINED_RECORD_TYPE;
      if (DGifGetRecordType(file, &record) == GIF_ERROR) break;
      if (record == TERMINATE_RECORD_TYPE) {
        end = true;
        return;
      }
      if (record == IMAGE_DESC_RECORD_TYPE) {
        if (DGifGetImageDesc(file) == GIF_ERROR) break;
        DropSavedImages(file);
        image = true;
        return;
      }
      if (record == EXTENSION_RECORD_TYPE && !ReadExtension(file, &gcb, &found)) break;
    }
    error = file->Error ? file->Error : D_GIF_ERR_READ_FAILED;
  }
};

struct QAnimation::WebP {
  WebPAnimDecoder* dec = nullptr;
  int timestamp = 0;  // when the frame shown last ends, from the loop's start
  const uint8_t* canvas = nullptr;
  ~WebP() {
    if (dec) WebPAnimDecoderDelete(dec);
  }
};

// ---------------------------------------------------------------------------------------------
// QAnimation
// ---------------------------------------------------------------------------------------------

QAnimation::QAnimation() = default;
QAnimation::~QAnimation() = default;

bool QAnimation::Animates(const uint8_t* data, size_t size) {
  if (IsWebP(data, size)) {
    WebPBitstreamFeatures features;
    if (WebPGetFeatures(data, size, &features) != VP8_STATUS_OK || !features.has_animation)
      return false;
    const WebPData whole = {data, size};
    WebPDemuxer* demux = WebPDemux(&whole);
    if (!demux) return false;
    const bool frames = WebPDemuxGetI(demux, WEBP_FF_FRAME_COUNT) > 1;
    WebPDemuxDelete(demux);
    return frames;
  }
  if (!IsGif(data, size)) return false;
  // The images are counted without decoding them: their data blocks are only skipped.
  GifSource src = {data, size, 0};
  int err = 0;
  GifFileType* gif = DGifOpen(&src, GifReadFromMemory, &err);
  if (!gif) return false;
  int images = 0;
  for (;;) {
    GifRecordType record = UNDEFINED_RECORD_TYPE;
    if (DGifGetRecordType(gif, &record) == GIF_ERROR || record == TERMINATE_RECORD_TYPE) break;
    if (record == EXTENSION_RECORD_TYPE) {
      if (!ReadExtension(gif, nullptr, nullptr)) break;
      continue;
    }
    if (record != IMAGE_DESC_RECORD_TYPE || DGifGetImageDesc(gif) == GIF_ERROR) break;
    DropSavedImages(gif);
    if (++images > 1) break;
    int codeSize = 0;
    GifByteType* block = nullptr;
    if (DGifGetCode(gif, &codeSize, &block) == GIF_ERROR) break;
    while (block && DGifGetCodeNext(gif, &block) != GIF_ERROR) {
    }
    if (gif->Error) break;
  }
  CloseGif(&gif);
  return images > 1;
}

bool QAnimation::Open(QBlock bytes, size_t size, const char* name) {
  snprintf(name_, sizeof(name_), "%s", name ? name : "");
  gif_.reset();
  webp_.reset();
  width_ = height_ = 0;
  index_ = -1;
  ended_ = true;
  bytes_ = std::move(bytes);
  size_ = bytes_ ? size : 0;
  const uint8_t* data = bytes_.get();

  int w = 0, h = 0;
  std::unique_ptr<Gif> gif;
  if (IsGif(data, size_)) {
    gif.reset(new Gif());
    gif->src = {data, size_, 0};
    if (const int err = gif->Open()) {
      QWARN("QAnimation::Open", "QAnimation::Open(%s); giflib: '%s'", name_, GifErrorText(err));
      return false;
    }
    w = gif->file->SWidth, h = gif->file->SHeight;
  } else if (IsWebP(data, size_)) {
    WebPBitstreamFeatures features;
    const VP8StatusCode status = WebPGetFeatures(data, size_, &features);
    if (status != VP8_STATUS_OK || !features.has_animation) {
      QWARN("QAnimation::Open", "QAnimation::Open(%s); not an animated WebP (status '%d')", name_,
            int(status));
      return false;
    }
    w = features.width, h = features.height;
  } else {
    QWARN("QAnimation::Open", "QAnimation::Open(%s); neither a GIF nor a WebP ('%.4s')", name_,
          data && size_ >= 4 ? reinterpret_cast<const char*>(data) : "");
    return false;
  }
  if (!AcceptHeaderSize("QAnimation", name_, w, h, size_)) return false;
  // Two canvases: GIF's own and the part a "previous" frame keeps, or libwebp's two.
  const int64_t need = int64_t(w) * h * 4 * 2 + int64_t(size_);
  if (need > QImage::MAX_DECODE_BYTES) {
    QWARN("QAnimation::Open", "QAnimation::Open(%s); %dx%d needs '%lld' MB, more than %lld",
          name_, w, h, MegabytesUp(need), MegabytesUp(QImage::MAX_DECODE_BYTES));
    return false;
  }

  if (gif) {
    gif_ = std::move(gif);
  } else {
    WebPAnimDecoderOptions options;
    if (!WebPAnimDecoderOptionsInit(&options)) return false;
    options.color_mode = MODE_RGBA;
    options.use_threads = 0;
    const WebPData whole = {data, size_};
    webp_.reset(new WebP());
    webp_->dec = WebPAnimDecoderNew(&whole, &options);
    if (!webp_->dec) {
      QWARN("QAnimation::Open", "QAnimation::Open(%s); libwebp refuses the animation", name_);
      webp_.reset();
      return false;
    }
  }
  width_ = w, height_ = h;
  ended_ = false;
  return true;
}

bool QAnimation::AtLoopEnd() const {
  if (index_ < 0 || ended_) return false;
  if (gif_) return gif_->end;
  return webp_ && !WebPAnimDecoderHasMoreFrames(webp_->dec);
}

void QAnimation::Fail(const char* what) {
  if (!ended_)
    QWARN("QAnimation::Next", "QAnimation::Next(%s); frame %d: '%s'", name_, index_ + 1, what);
  ended_ = true;
}

bool QAnimation::NextGif(int* delayMs) {
  Gif& g = *gif_;
  const bool restart = index_ < 0 || g.end;
  if (restart) {
    if (const int err = g.Open()) {
      Fail(GifErrorText(err));
      return false;
    }
    g.canvas.assign(size_t(width_) * height_ * 4, 0);
    g.disposal = 0;
    g.ReadAhead();
  }
  if (!g.image) {
    Fail(g.error ? GifErrorText(g.error) : "no picture in the file");
    return false;
  }
  const size_t stride = size_t(width_) * 4;
  // The frame before goes as it asked.
  if (!restart && (g.disposal == DISPOSE_BACKGROUND || g.disposal == DISPOSE_PREVIOUS)) {
    const size_t span = size_t(g.right - g.left) * 4;
    for (int y = g.top; y < g.bottom; ++y) {
      uint8_t* row = g.canvas.data() + size_t(y) * stride + size_t(g.left) * 4;
      if (g.disposal == DISPOSE_BACKGROUND)
        memset(row, 0, span);
      else
        memcpy(row, g.kept.data() + size_t(y - g.top) * span, span);
    }
  }

  const GifImageDesc& desc = g.file->Image;
  if (desc.Width <= 0 || desc.Height <= 0 || desc.Width > QImage::MAX_SIZE ||
      desc.Height > QImage::MAX_SIZE) {
    char text[64];
    snprintf(text, sizeof(text), "a %dx%d frame", desc.Width, desc.Height);
    Fail(text);
    return false;
  }
  g.left = std::clamp(desc.Left, 0, width_), g.top = std::clamp(desc.Top, 0, height_);
  g.right = int(std::clamp<int64_t>(int64_t(desc.Left) + desc.Width, g.left, width_));
  g.bottom = int(std::clamp<int64_t>(int64_t(desc.Top) + desc.Height, g.top, height_));
  g.disposal = g.gcb.DisposalMode;
  if (g.disposal == DISPOSE_PREVIOUS) {
    const size_t span = size_t(g.right - g.left) * 4;
    g.kept.resize(span * size_t(g.bottom - g.top));
    for (int y = g.top; y < g.bottom; ++y)
      memcpy(g.kept.data() + size_t(y - g.top) * span,
             g.canvas.data() + size_t(y) * stride + size_t(g.left) * 4, span);
  }

  // Rows in the order the file holds them: top-down, or the four interlace passes.
  static const int kPassStart[4] = {0, 4, 2, 1}, kPassStep[4] = {8, 8, 4, 2};
  const ColorMapObject* map = desc.ColorMap ? desc.ColorMap : g.file->SColorMap;
  const int transparent = g.gcb.TransparentColor;
  g.line.resize(size_t(desc.Width));
  const int passes = desc.Interlace ? 4 : 1;
  for (int pass = 0; pass < passes; ++pass) {
    const int first = desc.Interlace ? kPassStart[pass] : 0;
    const int step = desc.Interlace ? kPassStep[pass] : 1;
    for (int row = first; row < desc.Height; row += step) {
      if (DGifGetLine(g.file, g.line.data(), desc.Width) == GIF_ERROR) {
        Fail(GifErrorText(g.file->Error));
        return false;
      }
      const int y = desc.Top + row;
      if (y < g.top || y >= g.bottom) continue;
      uint8_t* out = g.canvas.data() + size_t(y) * stride;
      for (int x = g.left - desc.Left; x < g.right - desc.Left; ++x) {
        const int index = g.line[size_t(x)];
        if (index == transparent) continue;
        uint8_t* p = out + size_t(desc.Left + x) * 4;
        if (map && index < map->ColorCount) {
          p[0] = map->Colors[index].Red, p[1] = map->Colors[index].Green;
          p[2] = map->Colors[index].Blue;
        } else {
          p[0] = p[1] = p[2] = 0;  // an index outside the map is black
        }
        p[3] = 255;
      }
    }
  }
  *delayMs = DelayOf(g.gcb.DelayTime * 10);
  index_ = restart ? 0 : index_ + 1;
  g.ReadAhead();
  return true;
}

bool QAnimation::NextWebP(int* delayMs) {
  WebP& w = *webp_;
  const bool restart = index_ < 0 || !WebPAnimDecoderHasMoreFrames(w.dec);
  if (restart) {
    WebPAnimDecoderReset(w.dec);
    w.timestamp = 0;
  }
  uint8_t* canvas = nullptr;
  int timestamp = 0;
  if (!WebPAnimDecoderGetNext(w.dec, &canvas, &timestamp) || !canvas) {
    Fail("libwebp can't decode it");
    return false;
  }
  w.canvas = canvas;
  *delayMs = DelayOf(timestamp - w.timestamp);
  w.timestamp = timestamp;
  index_ = restart ? 0 : index_ + 1;
  return true;
}

bool QAnimation::Next(QBitMap* out, int width, int height, int* delayMs) {
  *delayMs = 0;
  if (ended_ || !out || width <= 0 || height <= 0 || width > width_ || height > height_)
    return false;
  int delay = 0;
  if (!(gif_ ? NextGif(&delay) : NextWebP(&delay))) return false;
  if ((out->GetWidth() != width || out->GetHeight() != height || out->GetDepth() != 32 ||
       !out->GetBuffer()) &&
      !out->Alloc(32, width, height)) {
    Fail("out of memory");
    return false;
  }
  const uint8_t* canvas = gif_ ? gif_->canvas.data() : webp_->canvas;
  QAreaReducer reducer(width_, height_, out);
  if (!reducer.IsReady()) {
    Fail("the sizes do not fit");
    return false;
  }
  // Over black, a row at a time, so the canvas itself keeps its transparency for what follows.
  const size_t stride = size_t(width_) * 4;
  std::vector<uint8_t> row(stride);
  for (int y = 0; y < height_; ++y) {
    memcpy(row.data(), canvas + size_t(y) * stride, stride);
    LayOverBlack(row.data(), size_t(width_));
    reducer.PushRow(row.data());
  }
  *delayMs = delay;
  return true;
}
