// QImage HEIF/HEIC and AVIF reader over libheif.
//
// One library reads both: the container is the same and libheif picks the HEVC or AV1 decoder.
// Only the primary picture is shown. libheif applies the container's rotation and mirror (irot,
// imir) while decoding, so what comes out is upright and no EXIF orientation may be applied on
// top of it. The decoded picture is interleaved 8-bit RGBA, copied row by row bottom-up.
#include <libheif/heif.h>

#include <cstdint>
#include <cstring>

#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// Releases whatever libheif handed out, in the reverse order of getting it.
struct HeifRead {
  heif_context* ctx = nullptr;
  heif_image_handle* handle = nullptr;
  heif_image* image = nullptr;
  ~HeifRead() {
    if (image) heif_image_release(image);
    if (handle) heif_image_handle_release(handle);
    if (ctx) heif_context_free(ctx);
  }
};

}  // namespace

bool QImage::ReadHEIF(const uint8_t* data, size_t size, const char* name) {
  if (!name) name = "";
  if (!data || size == 0) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); the file is empty", name);
    return false;
  }
  HeifRead r;
  r.ctx = heif_context_alloc();
  if (!r.ctx) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); out of memory", name);
    return false;
  }
  // The library refuses larger pictures itself while parsing the container.
  heif_context_set_maximum_image_size_limit(r.ctx, MAX_SIZE);
  heif_error err = heif_context_read_from_memory_without_copy(r.ctx, data, size, nullptr);
  if (err.code == heif_error_Ok) err = heif_context_get_primary_image_handle(r.ctx, &r.handle);
  if (err.code != heif_error_Ok) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); %s", name, err.message ? err.message : "");
    return false;
  }
  // The size after the transforms, which is what is decoded.
  const int fileWidth = heif_image_handle_get_width(r.handle);
  const int fileHeight = heif_image_handle_get_height(r.handle);
  if (!AcceptHeaderSize("ReadHEIF", name, fileWidth, fileHeight, size)) return false;
  err = heif_decode_image(r.handle, &r.image, heif_colorspace_RGB, heif_chroma_interleaved_RGBA,
                          nullptr);
  if (err.code != heif_error_Ok) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); %s", name, err.message ? err.message : "");
    return false;
  }
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(r.image, heif_channel_interleaved, &stride);
  const int width = heif_image_get_width(r.image, heif_channel_interleaved);
  const int height = heif_image_get_height(r.image, heif_channel_interleaved);
  if (!plane || width <= 0 || height <= 0 || width > MAX_SIZE || height > MAX_SIZE ||
      stride < width * 4) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); the decoder gave no %dx%d RGBA picture", name,
          width, height);
    return false;
  }
  QImage decoded;
  if (!decoded.Alloc(32, width, height, int(GetFlags() & ~uint32_t(EXTERNAL)))) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(); (%s) out of memory", name);
    return false;
  }
  for (int y = 0; y < height; ++y)
    memcpy(decoded.GetAddress(0, height - 1 - y), plane + size_t(y) * size_t(stride),
           size_t(width) * 4);
  LayOverBlack(decoded.GetBuffer(), size_t(width) * size_t(height));
  SwapPixels(&decoded);
  return true;
}
