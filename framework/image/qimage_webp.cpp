// QImage WebP reader over libwebp and libwebpdemux.
//
// The header is read first (WebPGetFeatures) and its size checked before anything is decoded.
// A still picture is decoded straight into the bitmap's rows, bottom-up by the library's own
// flip, and scaled by the library when the caller names a smaller size: a 12-megapixel WebP
// shown on a 1080-line screen never exists at full size. An animated one shows its first frame
// composed on the canvas by the animation decoder, at full size (the caller reduces it).
// The orientation comes from the EXIF chunk, read by QExif.
#include <webp/decode.h>
#include <webp/demux.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/image/qexif.h"
#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// libwebp's status codes as words, for the log.
const char* StatusText(VP8StatusCode status) {
  switch (status) {
    case VP8_STATUS_OK: return "no error";
    case VP8_STATUS_OUT_OF_MEMORY: return "out of memory";
    case VP8_STATUS_INVALID_PARAM: return "invalid parameter";
    case VP8_STATUS_BITSTREAM_ERROR: return "bitstream error";
    case VP8_STATUS_UNSUPPORTED_FEATURE: return "unsupported feature";
    case VP8_STATUS_SUSPENDED: return "suspended";
    case VP8_STATUS_USER_ABORT: return "user abort";
    case VP8_STATUS_NOT_ENOUGH_DATA: return "not enough data";
  }
  return "unknown error";
}

// The orientation in an EXIF chunk (a TIFF block, with or without the "Exif\0\0" that JPEG puts
// before it); 0 when there is none or the block can't be parsed.
int ExifOrientation(const uint8_t* chunk, size_t size) {
  static const uint8_t kExifHeader[6] = {'E', 'x', 'i', 'f', 0, 0};
  std::vector<uint8_t> segment;
  if (size < sizeof(kExifHeader) || memcmp(chunk, kExifHeader, sizeof(kExifHeader)) != 0)
    segment.assign(kExifHeader, kExifHeader + sizeof(kExifHeader));
  segment.insert(segment.end(), chunk, chunk + size);
  QExif exif;
  if (exif.ReadExifSegment(segment.data(), segment.size()) != QExif::OK) return 0;
  return exif.orientation >= 1 && exif.orientation <= 8 ? exif.orientation : 0;
}

// Owner of a demuxer.
struct Demux {
  WebPDemuxer* demux = nullptr;
  ~Demux() {
    if (demux) WebPDemuxDelete(demux);
  }
};

// Owner of an animation decoder.
struct AnimDecoder {
  WebPAnimDecoder* dec = nullptr;
  ~AnimDecoder() {
    if (dec) WebPAnimDecoderDelete(dec);
  }
};

// Keeps the file's ICCP chunk, when it has one, with `img`.
void TakeProfile(const uint8_t* data, size_t size, QImage* img, const char* name) {
  const WebPData whole = {data, size};
  Demux d;
  d.demux = WebPDemux(&whole);
  WebPChunkIterator chunk;
  if (d.demux && WebPDemuxGetChunk(d.demux, "ICCP", 1, &chunk)) {
    img->SetColourProfile(chunk.chunk.bytes, chunk.chunk.size, name);
    WebPDemuxReleaseChunkIterator(&chunk);
  }
}

}  // namespace

bool QImage::ReadWebPInfo(const uint8_t* data, size_t size, int* width, int* height,
                          int* orientation) {
  *width = *height = *orientation = 0;
  WebPBitstreamFeatures features;
  if (!data || WebPGetFeatures(data, size, &features) != VP8_STATUS_OK) return false;
  *width = features.width, *height = features.height;
  const WebPData whole = {data, size};
  Demux d;
  d.demux = WebPDemux(&whole);
  WebPChunkIterator chunk;
  if (d.demux && WebPDemuxGetChunk(d.demux, "EXIF", 1, &chunk)) {
    *orientation = ExifOrientation(chunk.chunk.bytes, chunk.chunk.size);
    WebPDemuxReleaseChunkIterator(&chunk);
  }
  return true;
}

bool QImage::ReadWebP(const uint8_t* data, size_t size, const char* name, int targetWidth,
                      int targetHeight) {
  if (!name) name = "";
  WebPBitstreamFeatures features;
  const VP8StatusCode status =
      data ? WebPGetFeatures(data, size, &features) : VP8_STATUS_NOT_ENOUGH_DATA;
  if (status != VP8_STATUS_OK) {
    QWARN("QImage::ReadWebP", "QImage:ReadWebP(%s); %s", name, StatusText(status));
    return false;
  }
  const int fileWidth = features.width, fileHeight = features.height;
  if (!AcceptHeaderSize("ReadWebP", name, fileWidth, fileHeight, size)) return false;
  // Held at once: the file and the output, and for an animation the library's two canvases; a
  // still decode's own rows (the scaler's and the lossless coder's caches) are a few dozen.
  const bool scaled = targetWidth > 0 && targetHeight > 0 && targetWidth <= fileWidth &&
                      targetHeight <= fileHeight &&
                      (targetWidth < fileWidth || targetHeight < fileHeight);
  const int64_t canvas = int64_t(fileWidth) * fileHeight * 4;
  const int64_t need =
      int64_t(size) + (features.has_animation ? 3 * canvas
                                              : (scaled ? int64_t(targetWidth) * targetHeight * 4
                                                        : canvas) +
                                                    int64_t(fileWidth) * 4 * 40);
  if (!AcceptDecodeBytes("ReadWebP", name, fileWidth, fileHeight, need)) return false;
  QImage decoded;
  const int flags = int(GetFlags() & ~uint32_t(EXTERNAL));

  if (features.has_animation) {
    WebPAnimDecoderOptions options;
    if (!WebPAnimDecoderOptionsInit(&options)) return false;
    options.color_mode = MODE_RGBA;
    options.use_threads = 0;
    const WebPData whole = {data, size};
    AnimDecoder anim;
    anim.dec = WebPAnimDecoderNew(&whole, &options);
    uint8_t* canvas = nullptr;
    int timestamp = 0;
    if (!anim.dec || !WebPAnimDecoderGetNext(anim.dec, &canvas, &timestamp) || !canvas) {
      QWARN("QImage::ReadWebP", "QImage:ReadWebP(%s); the first frame can't be decoded", name);
      return false;
    }
    if (!decoded.Alloc(32, fileWidth, fileHeight, flags)) {
      QWARN("QImage::ReadWebP", "QImage:ReadWebP(); (%s) out of memory", name);
      return false;
    }
    for (int y = 0; y < fileHeight; ++y)
      memcpy(decoded.GetAddress(0, fileHeight - 1 - y), canvas + size_t(y) * fileWidth * 4,
             size_t(fileWidth) * 4);
  } else {
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config)) return false;
    int width = fileWidth, height = fileHeight;
    if (scaled) {
      config.options.use_scaling = 1;
      config.options.scaled_width = width = targetWidth;
      config.options.scaled_height = height = targetHeight;
    }
    if (!decoded.Alloc(32, width, height, flags)) {
      QWARN("QImage::ReadWebP", "QImage:ReadWebP(); (%s) out of memory", name);
      return false;
    }
    // Straight into the bitmap, last row first.
    config.options.flip = 1;
    config.output.colorspace = MODE_RGBA;
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = decoded.GetBuffer();
    config.output.u.RGBA.stride = width * 4;
    config.output.u.RGBA.size = size_t(decoded.GetSize());
    const VP8StatusCode result = WebPDecode(data, size, &config);
    WebPFreeDecBuffer(&config.output);
    if (result != VP8_STATUS_OK) {
      QWARN("QImage::ReadWebP", "QImage:ReadWebP(%s); %s", name, StatusText(result));
      return false;
    }
  }
  if (features.has_alpha)
    LayOverBlack(decoded.GetBuffer(), size_t(decoded.GetWidth()) * size_t(decoded.GetHeight()));
  TakeProfile(data, size, &decoded, name);
  SwapPixels(&decoded);
  return true;
}
