// QImage HEIF/HEIC and AVIF reader over libheif.
//
// One library reads both: the container is the same and libheif picks the HEVC or AV1 decoder.
// Only the primary picture is shown. libheif applies the container's rotation and mirror (irot,
// imir) while decoding, so what comes out is upright and no EXIF orientation may be applied on
// top of it. The decoded picture is interleaved 8-bit RGBA, copied row by row bottom-up.
#include <libheif/heif.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/qimage.h"
#include "framework/qimage_internal.h"
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

// Keeps the picture's colour with `img`: its ICC profile, or one made for its nclx description.
void TakeColour(const heif_image_handle* handle, QImage* img, const char* name) {
  std::vector<uint8_t> icc;
  const heif_color_profile_type type = heif_image_handle_get_color_profile_type(handle);
  if (type == heif_color_profile_type_prof || type == heif_color_profile_type_rICC) {
    icc.resize(heif_image_handle_get_raw_color_profile_size(handle));
    if (!icc.empty() &&
        heif_image_handle_get_raw_color_profile(handle, icc.data()).code != heif_error_Ok)
      icc.clear();
  } else if (type == heif_color_profile_type_nclx) {
    heif_color_profile_nclx* nclx = nullptr;
    if (heif_image_handle_get_nclx_color_profile(handle, &nclx).code == heif_error_Ok && nclx) {
      const ColourDescription d = {
          {nclx->color_primary_red_x, nclx->color_primary_red_y},
          {nclx->color_primary_green_x, nclx->color_primary_green_y},
          {nclx->color_primary_blue_x, nclx->color_primary_blue_y},
          {nclx->color_primary_white_x, nclx->color_primary_white_y},
          int(nclx->color_primaries), int(nclx->transfer_characteristics)};
      DescribedProfile(d, name, &icc);
    }
    heif_nclx_color_profile_free(nclx);
  }
  img->SetColourProfile(icc.data(), icc.size(), name);
}

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
  TakeColour(r.handle, &decoded, name);
  SwapPixels(&decoded);
  return true;
}
