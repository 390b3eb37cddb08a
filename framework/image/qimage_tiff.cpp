// QImage TIFF reader over libtiff.
//
// The file is read from memory through libtiff's client procedures, and only its first page.
// libtiff's RGBA interface turns every kind it knows (1 to 16 bits, grey, palettes, RGB, CMYK,
// YCbCr, strips or tiles) into 8-bit RGBA; its 32-bit pixels are red, green, blue, alpha in
// memory on the little-endian machines glimra runs on. It is read in bands of whole strips or
// rows of tiles, each reduced to the size asked for as it comes, so the full-size picture is
// never held. The rows are taken as stored, whatever the Orientation tag says: the tag is answered to the caller, which turns the
// picture as it does a JPEG's EXIF orientation, so that each picture is turned exactly once.
// libtiff's messages go to this read's own handlers (not the process-wide ones), so that
// pictures decoded on two threads at once keep their texts apart: warnings are debug lines, the
// first error ends the read with a warning.
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// The largest block libtiff may allocate at once, a strip or a tile included: the largest
// picture at 8 bits of four samples (a file may hold all its rows in one strip).
constexpr int64_t kMaxBlockBytes = int64_t(QImage::MAX_SIZE) * QImage::MAX_SIZE * 4;
// The most a strip or tile is taken to grow by decoding (LZW and deflate reach about a thousand):
// one that asks for more than this times the file's length is a lie.
constexpr int64_t kMaxBlockRatio = 4096;

struct TiffSource {
  const uint8_t* data = nullptr;
  size_t size = 0;
  uint64_t at = 0;
  const char* name = "";
  char error[256] = {};  // the library's first error
};

tmsize_t ReadProc(thandle_t h, void* out, tmsize_t count) {
  TiffSource* src = static_cast<TiffSource*>(h);
  if (count <= 0 || src->at >= src->size) return 0;
  const uint64_t n = std::min<uint64_t>(uint64_t(count), src->size - src->at);
  memcpy(out, src->data + src->at, size_t(n));
  src->at += n;
  return tmsize_t(n);
}

tmsize_t WriteProc(thandle_t, void*, tmsize_t) { return 0; }

toff_t SeekProc(thandle_t h, toff_t off, int whence) {
  TiffSource* src = static_cast<TiffSource*>(h);
  uint64_t base = whence == SEEK_CUR ? src->at : whence == SEEK_END ? src->size : 0;
  if (base + off < base) return toff_t(-1);  // wrapped
  src->at = base + off;
  return src->at;
}

int CloseProc(thandle_t) { return 0; }
toff_t SizeProc(thandle_t h) { return static_cast<TiffSource*>(h)->size; }
int MapProc(thandle_t, void**, toff_t*) { return 0; }
void UnmapProc(thandle_t, void*, toff_t) {}

int OnError(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
  TiffSource* src = static_cast<TiffSource*>(user);
  if (!src->error[0]) {
    int n = snprintf(src->error, sizeof(src->error), "%s: ", module ? module : "libtiff");
    if (n < 0 || n >= int(sizeof(src->error))) n = 0;
    vsnprintf(src->error + n, sizeof(src->error) - size_t(n), fmt, ap);
  }
  return 1;
}

int OnWarning(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
  char text[256];
  vsnprintf(text, sizeof(text), fmt, ap);
  QDBG("QImage::ReadTIFF", "QImage:ReadTIFF(%s); %s: %s", static_cast<TiffSource*>(user)->name,
       module ? module : "libtiff", text);
  return 1;
}

// Sizes `v` without throwing; false when memory runs out.
bool TryResize(std::vector<uint32_t>* v, size_t n) {
  try {
    v->resize(n);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Owners of the library's state.
struct TiffFile {
  TIFFOpenOptions* options = nullptr;
  TIFF* tif = nullptr;
  TIFFRGBAImage rgba;
  bool begun = false;
  ~TiffFile() {
    if (begun) TIFFRGBAImageEnd(&rgba);
    if (tif) TIFFClose(tif);
    if (options) TIFFOpenOptionsFree(options);
  }
};

}  // namespace

namespace {

// Opens the first page of `src`; the library's text is in src->error when it can't.
bool OpenTiff(TiffSource* src, TiffFile* f) {
  f->options = TIFFOpenOptionsAlloc();
  if (!f->options) {
    snprintf(src->error, sizeof(src->error), "out of memory");
    return false;
  }
  TIFFOpenOptionsSetMaxSingleMemAlloc(f->options, tmsize_t(kMaxBlockBytes));
  TIFFOpenOptionsSetErrorHandlerExtR(f->options, OnError, src);
  TIFFOpenOptionsSetWarningHandlerExtR(f->options, OnWarning, src);
  // "m": never map the file, which is already in memory.
  f->tif = TIFFClientOpenExt(src->name, "rm", src, ReadProc, WriteProc, SeekProc, CloseProc,
                             SizeProc, MapProc, UnmapProc, f->options);
  if (!f->tif && !src->error[0]) snprintf(src->error, sizeof(src->error), "not a TIFF file");
  return f->tif != nullptr;
}

// The first page's Orientation tag, 1..8; 0 when it has none.
int OrientationOf(TIFF* tif) {
  uint16_t tag = 0;
  return TIFFGetField(tif, TIFFTAG_ORIENTATION, &tag) && tag >= 1 && tag <= 8 ? tag : 0;
}

}  // namespace

bool QImage::ReadTIFFInfo(const uint8_t* data, size_t size, int* width, int* height,
                          int* orientation) {
  *width = *height = *orientation = 0;
  TiffSource src;
  src.data = data;
  src.size = data ? size : 0;
  TiffFile f;
  if (!OpenTiff(&src, &f)) return false;
  uint32_t w = 0, h = 0;
  TIFFGetField(f.tif, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(f.tif, TIFFTAG_IMAGELENGTH, &h);
  if (w == 0 || h == 0 || w > uint32_t(MAX_SIZE) || h > uint32_t(MAX_SIZE)) return false;
  *width = int(w), *height = int(h), *orientation = OrientationOf(f.tif);
  return true;
}

bool QImage::ReadTIFF(const uint8_t* data, size_t size, const char* name, int* orientation,
                      int reduceWidth, int reduceHeight) {
  if (!name) name = "";
  if (orientation) *orientation = 0;
  TiffSource src;
  src.data = data;
  src.size = data ? size : 0;
  src.name = name;
  TiffFile f;
  if (!OpenTiff(&src, &f)) {
    QWARN("QImage::ReadTIFF", "QImage:ReadTIFF(%s); %s", name, src.error);
    return false;
  }
  TIFF* tif = f.tif;
  uint32_t fileWidth = 0, fileHeight = 0;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &fileWidth);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &fileHeight);
  if (!AcceptHeaderSize("ReadTIFF", name, fileWidth, fileHeight, size)) return false;
  // What the library reads at once: one strip or one tile.
  const bool tiled = TIFFIsTiled(tif) != 0;
  const int64_t block = tiled ? int64_t(TIFFTileSize64(tif)) : int64_t(TIFFStripSize64(tif));
  if (block <= 0 || block > kMaxBlockBytes || block > int64_t(size) * kMaxBlockRatio) {
    QWARN("QImage::ReadTIFF",
          "QImage:ReadTIFF(); (%s) has %s of %lld bytes, more than its %zu bytes can hold",
          name, tiled ? "tiles" : "strips", static_cast<long long>(block), size);
    return false;
  }
  // The picture is read in bands of whole strips or rows of tiles, so that each is decoded
  // once and only a band of full-size pixels is held beside what the rows go into.
  uint32_t bandRows = 0;
  if (tiled ? !TIFFGetField(tif, TIFFTAG_TILELENGTH, &bandRows)
            : !TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &bandRows))
    bandRows = fileHeight;
  bandRows = std::max<uint32_t>(1, std::min(bandRows, fileHeight));
  const int64_t bandBytes = int64_t(fileWidth) * bandRows * 4;
  RowSink sink(int(fileWidth), int(fileHeight), reduceWidth, reduceHeight);
  // The RGBA interface holds a strip, or a tile and its RGBA copy, besides the band.
  const int64_t need = int64_t(size) + block * (tiled ? 2 : 1) + bandBytes + sink.Bytes();
  if (!AcceptDecodeBytes("ReadTIFF", name, int(fileWidth), int(fileHeight), need)) return false;
  char text[1024] = {};
  if (!TIFFRGBAImageOK(tif, text) || !TIFFRGBAImageBegin(&f.rgba, tif, 0, text)) {
    QWARN("QImage::ReadTIFF", "QImage:ReadTIFF(%s); %s", name, src.error[0] ? src.error : text);
    return false;
  }
  f.begun = true;
  if (orientation) *orientation = OrientationOf(tif);
  QImage decoded;
  std::vector<uint32_t> band;
  if (!sink.Open(&decoded, int(GetFlags() & ~uint32_t(EXTERNAL))) ||
      !TryResize(&band, size_t(fileWidth) * bandRows)) {
    QWARN("QImage::ReadTIFF", "QImage:ReadTIFF(); (%s) out of memory", name);
    return false;
  }
  uint32_t profileSize = 0;
  const void* profile = nullptr;
  if (TIFFGetField(tif, TIFFTAG_ICCPROFILE, &profileSize, &profile) && profile)
    decoded.SetColourProfile(static_cast<const uint8_t*>(profile), profileSize, name);
  // The stored rows, first row first: the orientation is the caller's to apply.
  f.rgba.orientation = ORIENTATION_TOPLEFT;
  f.rgba.req_orientation = ORIENTATION_TOPLEFT;
  for (uint32_t top = 0; top < fileHeight; top += bandRows) {
    const uint32_t rows = std::min(bandRows, fileHeight - top);
    f.rgba.row_offset = int(top);
    if (!TIFFRGBAImageGet(&f.rgba, band.data(), fileWidth, rows) || src.error[0]) {
      QWARN("QImage::ReadTIFF", "QImage:ReadTIFF(%s); %s", name,
            src.error[0] ? src.error : "the pixels can't be read");
      return false;
    }
    for (uint32_t y = 0; y < rows; ++y) {
      uint8_t* row = reinterpret_cast<uint8_t*>(band.data() + size_t(y) * fileWidth);
      if (f.rgba.alpha == EXTRASAMPLE_ASSOCALPHA) {
        // Already multiplied by alpha, so already over black.
        for (uint32_t x = 0; x < fileWidth; ++x) row[4 * x + 3] = 255;
      } else if (f.rgba.alpha) {
        LayOverBlack(row, fileWidth);
      }
      sink.Push(row);
    }
  }
  SwapPixels(&decoded);
  return true;
}
