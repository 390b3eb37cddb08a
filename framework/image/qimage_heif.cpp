// QImage HEIF/HEIC and AVIF reader over libheif.
//
// One library reads both: the container is the same and libheif picks the HEVC or AV1 decoder.
// Only the primary picture is shown. libheif applies the container's rotation and mirror (irot,
// imir) while decoding, so what comes out is upright and no EXIF orientation may be applied on
// top of it. The library decodes the whole picture (it has no scaled decoding) to interleaved
// 8-bit RGB, or RGBA when the picture has alpha; its rows are reduced to the size asked for as
// they are copied, so the full size is held once, by the library, and only during the read.
#include <libheif/heif.h>

#include <cstdint>
#include <cstring>
#include <vector>

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

namespace {

// Opens the primary picture of `data`; the library's text in `*error` when it can't.
bool OpenPrimary(const uint8_t* data, size_t size, HeifRead* r, const char** error) {
  *error = "out of memory";
  r->ctx = heif_context_alloc();
  if (!r->ctx) return false;
  // The library refuses larger pictures itself while parsing the container.
  heif_context_set_maximum_image_size_limit(r->ctx, QImage::MAX_SIZE);
  heif_error err = heif_context_read_from_memory_without_copy(r->ctx, data, size, nullptr);
  if (err.code == heif_error_Ok) err = heif_context_get_primary_image_handle(r->ctx, &r->handle);
  *error = err.message ? err.message : "";
  return err.code == heif_error_Ok;
}

}  // namespace

bool QImage::ReadHEIFSize(const uint8_t* data, size_t size, int* width, int* height) {
  *width = *height = 0;
  HeifRead r;
  const char* error = nullptr;
  if (!data || size == 0 || !OpenPrimary(data, size, &r, &error)) return false;
  *width = heif_image_handle_get_width(r.handle);
  *height = heif_image_handle_get_height(r.handle);
  return *width > 0 && *height > 0;
}

bool QImage::ReadHEIFExif(const uint8_t* data, size_t size, std::vector<uint8_t>* tiff) {
  tiff->clear();
  HeifRead r;
  const char* error = nullptr;
  if (!data || size == 0 || !OpenPrimary(data, size, &r, &error)) return false;
  heif_item_id id = 0;
  if (heif_image_handle_get_list_of_metadata_block_IDs(r.handle, "Exif", &id, 1) < 1) return false;
  std::vector<uint8_t> block(heif_image_handle_get_metadata_size(r.handle, id));
  if (block.size() < 4 ||
      heif_image_handle_get_metadata(r.handle, id, block.data()).code != heif_error_Ok)
    return false;
  // The block opens with the big-endian distance from its fifth byte to the TIFF header.
  const uint64_t start = 4 + uint64_t(Be32(block.data()));
  if (start >= block.size()) return false;
  tiff->assign(block.begin() + std::ptrdiff_t(start), block.end());
  return true;
}

bool QImage::ReadHEIF(const uint8_t* data, size_t size, const char* name, int reduceWidth,
                      int reduceHeight) {
  if (!name) name = "";
  if (!data || size == 0) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); the file is empty", name);
    return false;
  }
  HeifRead r;
  const char* error = nullptr;
  if (!OpenPrimary(data, size, &r, &error)) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); %s", name, error);
    return false;
  }
  // The size after the transforms, which is what is decoded.
  const int fileWidth = heif_image_handle_get_width(r.handle);
  const int fileHeight = heif_image_handle_get_height(r.handle);
  if (!AcceptHeaderSize("ReadHEIF", name, fileWidth, fileHeight, size)) return false;
  // Held at once: the file, the decoder's planes (taken as full-resolution colour, and alpha,
  // at the stream's depth), the library's interleaved copy and what the rows go into.
  const bool alpha = heif_image_handle_has_alpha_channel(r.handle) != 0;
  const int sampleBytes = heif_image_handle_get_luma_bits_per_pixel(r.handle) > 8 ? 2 : 1;
  const int64_t pixels = int64_t(fileWidth) * fileHeight;
  RowSink sink(fileWidth, fileHeight, reduceWidth, reduceHeight);
  const int64_t need = int64_t(size) + pixels * sampleBytes * (alpha ? 4 : 3) +
                       pixels * (alpha ? 4 : 3) + int64_t(fileWidth) * 4 + sink.Bytes();
  if (!AcceptDecodeBytes("ReadHEIF", name, fileWidth, fileHeight, need)) return false;
  // Three bytes a pixel when there is no alpha: a quarter less of the largest buffer.
  heif_error err = heif_decode_image(r.handle, &r.image, heif_colorspace_RGB,
                                     alpha ? heif_chroma_interleaved_RGBA
                                           : heif_chroma_interleaved_RGB,
                                     nullptr);
  if (err.code != heif_error_Ok) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); %s", name, err.message ? err.message : "");
    return false;
  }
  const int channels = alpha ? 4 : 3;
  int stride = 0;
  const uint8_t* plane = heif_image_get_plane_readonly(r.image, heif_channel_interleaved, &stride);
  const int width = heif_image_get_width(r.image, heif_channel_interleaved);
  const int height = heif_image_get_height(r.image, heif_channel_interleaved);
  if (!plane || width != fileWidth || height != fileHeight || stride < width * channels) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); the decoder gave no %dx%d picture", name,
          fileWidth, fileHeight);
    return false;
  }
  QImage decoded;
  if (!sink.Open(&decoded, int(GetFlags() & ~uint32_t(EXTERNAL)))) {
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(); (%s) out of memory", name);
    return false;
  }
  std::vector<uint8_t> row(size_t(width) * 4, 255);
  for (int y = 0; y < height; ++y) {
    const uint8_t* src = plane + size_t(y) * size_t(stride);
    if (alpha) {
      memcpy(row.data(), src, row.size());
      LayOverBlack(row.data(), size_t(width));
    } else {
      for (int x = 0; x < width; ++x) memcpy(&row[size_t(x) * 4], src + size_t(x) * 3, 3);
    }
    sink.Push(row.data());
  }
  TakeColour(r.handle, &decoded, name);
  SwapPixels(&decoded);
  return true;
}
