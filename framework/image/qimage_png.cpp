// QImage PNG reader over libpng.
//
// libpng's transformations turn every kind of PNG (grey, grey with alpha, palettes with or
// without transparency, 1 to 16 bits, RGB, RGBA, interlaced or not) into 8-bit RGBA rows, which
// are decoded straight into the bitmap's rows, last memory row first; an interlaced file fills
// them in place pass by pass. Alpha is then laid over black, since nothing is behind a picture
// on the screen. Asked for a smaller size, a plain file's rows go one by one through one row
// buffer, over black, into the area reduction instead, so the picture is never held whole. A
// file cut short keeps the rows that decoded (the rest is black) with a debug note, as the JPEG
// reader does; any other library error ends the read with a warning. A stop request is looked
// for before every row.
#include <png.h>

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// A width and a height of 16384 make 1 GB of pixels; ancillary chunks (text, ICC profiles) are
// never worth more than this, and libpng refuses larger ones before allocating.
constexpr png_alloc_size_t kMaxChunkBytes = 8u << 20;
// How many ancillary chunks libpng keeps before it starts dropping them.
constexpr png_uint_32 kMaxCachedChunks = 128;
// Compressed bytes handed to the library per read: small, so that a file cut short loses few
// rows at the cut.
constexpr size_t kReadBytes = 1024;
// The most deflate can shrink anything by.
constexpr int64_t kMaxDeflateRatio = 1032;
// Signature, chunk length and type, and the header's 13 bytes.
constexpr size_t kHeaderBytes = 8 + 8 + 13;

// Owns the library's state for the whole read, including the jump out of libpng.
struct PngDecoder {
  png_structp png = nullptr;
  png_infop info = nullptr;
  jmp_buf jump;
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t at = 0;
  bool cutShort = false;  // the library asked for bytes past the end
  bool interlaced = false;
  bool alpha = false;     // the file has alpha or a transparent colour
  int rowsDone = 0;       // rows (of every pass) stored in the bitmap
  int rowsReady = 0;      // rows from the top that hold pixels or were cleared for them
  // For a plain file decoded smaller: the reducer and the one row it is fed from.
  std::unique_ptr<QAreaReducer> reducer;
  std::vector<uint8_t> row;
  char text[256] = {};    // the library's error
  char warning[256] = {};  // its first warning, empty when there was none
  ~PngDecoder() {
    if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

[[noreturn]] void ErrorExit(png_structp png, png_const_charp message) {
  PngDecoder* dec = static_cast<PngDecoder*>(png_get_error_ptr(png));
  snprintf(dec->text, sizeof(dec->text), "%s", message ? message : "");
  longjmp(dec->jump, 1);
}

void KeepFirstWarning(png_structp png, png_const_charp message) {
  PngDecoder* dec = static_cast<PngDecoder*>(png_get_error_ptr(png));
  if (!dec->warning[0]) snprintf(dec->warning, sizeof(dec->warning), "%s", message ? message : "");
}

void ReadFromMemory(png_structp png, png_bytep out, size_t count) {
  PngDecoder* dec = static_cast<PngDecoder*>(png_get_io_ptr(png));
  if (count > dec->size - dec->at) {
    dec->cutShort = true;
    png_error(png, "the file ends early");
  }
  memcpy(out, dec->data + dec->at, count);
  dec->at += count;
}

// Lays `pixels` pixels from `p` over black: colour * alpha / 255, alpha 255.
void OverBlack(uint8_t* p, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, p += 4) {
    const unsigned a = p[3];
    if (a == 255) continue;
    for (int c = 0; c < 3; ++c) p[c] = uint8_t((p[c] * a + 127) / 255);
    p[3] = 255;
  }
}

// Lays the whole picture over black.
void ComposeOverBlack(QImage* img) {
  OverBlack(img->GetBuffer(), size_t(img->GetWidth()) * size_t(img->GetHeight()));
}

// Makes `pixels` pixels from `p` opaque black, which needs no laying over black afterwards.
void FillBlack(uint8_t* p, size_t pixels) {
  static const uint8_t kBlack[4] = {0, 0, 0, 255};
  for (size_t i = 0; i < pixels; ++i) memcpy(p + 4 * i, kBlack, 4);
}

// After the library jumped out: a file cut short keeps what decoded, anything else fails.
bool Salvage(PngDecoder* dec, QImage* img, const char* name) {
  if (!dec->cutShort || dec->rowsDone == 0) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(%s); %s", name, dec->text);
    return false;
  }
  // Rows are stored whole or not at all; the ones never reached turn black. The bottom rows
  // come first in memory.
  const int height = png_get_image_height(dec->png, dec->info);
  if (dec->reducer) {
    FillBlack(dec->row.data(), dec->row.size() / 4);
    for (int y = dec->rowsDone; y < height; ++y) dec->reducer->PushRow(dec->row.data());
  } else {
    FillBlack(img->GetBuffer(), size_t(height - dec->rowsReady) * size_t(img->GetWidth()));
    if (dec->alpha) ComposeOverBlack(img);
  }
  QDBG("QImage::ReadPNG", "QImage:ReadPNG(%s); %s after %d of %d rows (of every pass)", name,
       dec->text, dec->rowsDone, height * (dec->interlaced ? 7 : 1));
  return true;
}

// True, with a debug line, once a stop is requested.
bool GivenUp(const char* name) {
  if (!QImage::StopRequested()) return false;
  QDBG("QImage::ReadPNG", "QImage:ReadPNG(%s); given up: the program is stopping\n", name);
  return true;
}

// The decode proper, shrunk to reduceW x reduceH when that is smaller. Nothing with a destructor
// lives in this frame: libpng may jump out of it.
bool Decode(PngDecoder* dec, QImage* img, const char* name, int reduceW, int reduceH) {
  if (GivenUp(name)) return false;
  if (!dec->data || dec->size < kHeaderBytes || png_sig_cmp(dec->data, 0, 8) != 0 ||
      memcmp(dec->data + 12, "IHDR", 4) != 0) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(%s); not a PNG file (%zu bytes)", name, dec->size);
    return false;
  }
  // The sizes are refused before the library allocates anything for them.
  const uint32_t fileWidth = Be32(dec->data + 16), fileHeight = Be32(dec->data + 20);
  if (fileWidth > uint32_t(QImage::MAX_SIZE) || fileHeight > uint32_t(QImage::MAX_SIZE)) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(); (%s) is %ux%u large; supported only upto %dx%d",
          name, fileWidth, fileHeight, QImage::MAX_SIZE, QImage::MAX_SIZE);
    return false;
  }
  dec->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, dec, ErrorExit, KeepFirstWarning);
  if (dec->png) dec->info = png_create_info_struct(dec->png);
  if (!dec->info) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(%s); out of memory", name);
    return false;
  }
  if (setjmp(dec->jump)) return Salvage(dec, img, name);
  png_structp png = dec->png;
  png_infop info = dec->info;
  png_set_user_limits(png, QImage::MAX_SIZE, QImage::MAX_SIZE);
  png_set_chunk_malloc_max(png, kMaxChunkBytes);
  png_set_chunk_cache_max(png, kMaxCachedChunks);
  png_set_compression_buffer_size(png, kReadBytes);
  png_set_read_fn(png, dec, ReadFromMemory);
  png_read_info(png, info);

  // Deflate packs at most 1032 bytes into one: a file too short to hold the rows it claims is
  // refused before its pixels are allocated.
  const int64_t rowBits = int64_t(fileWidth) * png_get_channels(png, info) *
                          png_get_bit_depth(png, info);
  const int64_t rawBytes = int64_t(fileHeight) * (1 + (rowBits + 7) / 8);
  if (rawBytes > int64_t(dec->size) * kMaxDeflateRatio) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(); (%s) is %ux%u, more than its %zu bytes can hold",
          name, fileWidth, fileHeight, dec->size);
    return false;
  }
  png_charp profileName = nullptr;
  png_bytep profile = nullptr;
  png_uint_32 profileSize = 0;
  int compression = 0;
  if (!png_get_iCCP(png, info, &profileName, &compression, &profile, &profileSize))
    profileSize = 0;
  img->SetColourProfile(profile, profileSize, name);
  const int colorType = png_get_color_type(png, info);
  dec->alpha = (colorType & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, info, PNG_INFO_tRNS);
  png_set_expand(png);  // palettes to RGB, tRNS to alpha, 1..4-bit grey to 8
  png_set_scale_16(png);
  png_set_gray_to_rgb(png);
  png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
  const int passes = png_set_interlace_handling(png);
  dec->interlaced = passes > 1;
  png_read_update_info(png, info);
  const int width = int(png_get_image_width(png, info));
  const int height = int(png_get_image_height(png, info));
  if (png_get_rowbytes(png, info) != size_t(width) * 4) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(%s); rows of %zu bytes where %d were expected", name,
          size_t(png_get_rowbytes(png, info)), width * 4);
    return false;
  }
  const bool shrink = reduceW > 0 && reduceH > 0 && reduceW <= width && reduceH <= height &&
                     (reduceW < width || reduceH < height);
  // Rows as they are decoded straight into the reducer; an interlaced file's passes need the
  // whole picture.
  const bool byRow = shrink && !dec->interlaced;
  // Everything held at once, counted before any of it is allocated: the file, libpng's two rows
  // of file bytes, the pixels (whole, or reduced with a row and the reducer's sums), and for an
  // interlaced file shrunk afterwards the reduced copy too.
  const int64_t fileRow = (rowBits + 7) / 8 + 1, whole = int64_t(width) * height * 4;
  const int64_t reduced = shrink ? int64_t(reduceW) * reduceH * 4 + int64_t(reduceW) * 36 : 0;
  const int64_t need = int64_t(dec->size) + 2 * fileRow +
                       (byRow ? reduced + int64_t(width) * 4 : whole + reduced);
  if (need > QImage::MAX_DECODE_BYTES) {
    QWARN("QImage::ReadPNG",
          "QImage:ReadPNG(); (%s) is a%s %dx%d: decoding it needs %lld MB, more than %lld", name,
          dec->interlaced ? "n interlaced" : "", width, height, MegabytesUp(need),
          static_cast<long long>(QImage::MAX_DECODE_BYTES >> 20));
    return false;
  }
  if (!img->Alloc(32, byRow ? reduceW : width, byRow ? reduceH : height, int(img->GetFlags()))) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(); (%s) out of memory", name);
    return false;
  }
  if (byRow) {
    dec->row.resize(size_t(width) * 4);
    dec->reducer.reset(new QAreaReducer(width, height, img));
    if (!dec->reducer->IsReady()) {
      QWARN("QImage::ReadPNG", "QImage:ReadPNG(); (%s) out of memory", name);
      return false;
    }
    for (int y = 0; y < height; ++y) {
      if (GivenUp(name)) return false;
      png_read_row(png, dec->row.data(), nullptr);
      ++dec->rowsDone;
      if (dec->alpha) OverBlack(dec->row.data(), size_t(width));
      dec->reducer->PushRow(dec->row.data());
    }
  } else {
    for (int pass = 0; pass < passes; ++pass)
      for (int y = 0; y < height; ++y) {
        if (GivenUp(name)) return false;
        uint8_t* row = img->GetAddress(0, height - 1 - y);
        // A pass stores only its own pixels, so an interlaced file's rows start black; each is
        // filled as the first pass reaches it, which a file cut short never does for most.
        if (pass == 0 && dec->interlaced) FillBlack(row, size_t(width));
        png_read_row(png, row, nullptr);
        ++dec->rowsDone;
        if (pass == 0) dec->rowsReady = y + 1;
      }
    // What follows the pixels (text, the end chunk) is not needed.
    if (dec->alpha) ComposeOverBlack(img);
  }
  if (dec->warning[0]) QDBG("QImage::ReadPNG", "QImage:ReadPNG(%s); %s", name, dec->warning);
  return true;
}

}  // namespace

bool QImage::ReadPNG(const char* name) {
  if (!name) name = "";
  QStream fp(qfopen(name, "rb"));
  if (!fp) {
    QWARN("QImage::ReadPNG", "QImage:ReadPNG(); can't open '%s'", name);
    return false;
  }
  size_t size = 0;
  const QBlock data = ReadWholeStream(fp.get(), &size);
  return ReadPNG(data.get(), size, name);
}

bool QImage::ReadPNG(const uint8_t* data, size_t size, const char* name, int reduceWidth,
                     int reduceHeight) {
  if (!name) name = "";
  PngDecoder dec;
  dec.data = data;
  dec.size = data ? size : 0;
  if (!Decode(&dec, this, name, reduceWidth, reduceHeight)) return false;
  // An interlaced file (or one cut short in its passes) was decoded whole.
  const bool smaller = reduceWidth > 0 && reduceHeight > 0 && reduceWidth <= GetWidth() &&
                       reduceHeight <= GetHeight() &&
                       (reduceWidth < GetWidth() || reduceHeight < GetHeight());
  if (smaller && !AreaReduce(reduceWidth, reduceHeight)) {
    if (!GivenUp(name)) QWARN("QImage::ReadPNG", "QImage:ReadPNG(); (%s) out of memory", name);
    return false;
  }
  return true;
}

bool QImage::ReadPNGSize(const uint8_t* data, size_t size, int* width, int* height) {
  if (!data || size < kHeaderBytes || png_sig_cmp(data, 0, 8) != 0 ||
      memcmp(data + 12, "IHDR", 4) != 0)
    return false;
  const uint32_t w = Be32(data + 16), h = Be32(data + 20);
  if (w > uint32_t(INT32_MAX) || h > uint32_t(INT32_MAX)) return false;
  if (width) *width = int(w);
  if (height) *height = int(h);
  return true;
}
