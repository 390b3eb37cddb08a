// QImage: a QBitMap that fills itself from a picture file.
//
// The reader is chosen by the file name alone, never by the contents, through the table of
// picture kinds (qpicturekinds.h): the upper-cased name is
// searched for ".RGB", ".TGA", ".JPG"/".JPE", ".PSD", ".MIP", ".PNG", ".BMP", ".HEIC"/".HEIF"/
// ".AVIF", ".WEBP", ".GIF", ".TIF" in that order and the first hit anywhere in the path wins (a
// directory "x.tga.d" makes every file below it a Targa file).
//
// Every reader leaves the bitmap at 32 bits per pixel, RGBA, rows bottom-up (see qbitmap.h).
// PNG alpha is laid over black, so a PNG always reads as opaque.
// A reader that fails after allocating leaves an allocated, partly filled bitmap behind: callers
// test the answer (or IsRead after the loading constructor), never the pixels. Each failure is
// logged once by the reader that finds it. Files are distrusted: sizes are checked against the
// format's limits and the file's length before anything is allocated, and no read or write
// leaves the buffers it belongs to.
//
// One decode never takes more than MAX_DECODE_BYTES: the file's bytes, the libraries' buffers
// (a progressive JPEG's DCT blocks, above all), row buffers and the pixels are counted together
// from the header, and a picture that would need more is refused with a warning before anything
// is allocated for it. The PNG and JPEG readers shrink rows as they are decoded when asked for a
// smaller size, so that a large picture for a small screen needs little.
// A stop request (QBitMap::RequestStop) makes the PNG and JPEG readers give up at their next row
// (or, in a progressive JPEG, the next row of blocks): they answer false with a debug line only.
//
// Targa files are read whole through the virtual file system when one exists (ReadTGA), else
// line by line from a stdio stream (ReadTGASlow); the two paths differ on purpose in messages,
// checks and run-length handling. JPEG goes through libjpeg and PNG through libpng; a library
// error ends the read with a warning naming the file and the library's text.
// HEIF/HEIC and AVIF go through libheif, WebP through libwebp, GIF through giflib and TIFF through
// libtiff, always from bytes in memory; these four leave the bitmap as it was when they fail
// (they decode into a picture of their own and take its pixels only at the end), lay alpha over
// black (GIF's transparent pixels are black with alpha 0) and refuse a picture wider or taller
// than MAX_SIZE, or larger than its bytes can hold, before the library allocates for it.
//
// The JPEG, PNG, HEIF, WebP and TIFF readers keep the picture's embedded ICC profile (HEIF's nclx
// colour description becomes one); ConvertToSRGB (qimage_colour.cpp) takes the pixels from it to
// sRGB through lcms2. A picture without a profile is taken to be sRGB already.
// Not thread-safe (the log and the libraries' state are per call, but the bitmap is not guarded).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "framework/qbitmap.h"

class QImage : public QBitMap {
 public:
  // Largest width (and JPEG height) the readers take.
  static constexpr int MAX_SIZE = 16384;
  // Most memory one PNG, JPEG or Targa decode may take, everything counted (see above): room for
  // a progressive 24-megapixel photo with full colour resolution (144 MB of DCT blocks) and its
  // file. Two decodes may run at once (the slideshow's and its prefetch).
  static constexpr int64_t MAX_DECODE_BYTES = int64_t(192) << 20;
  // Most scans a JPEG may have: common encoders write 1 to 10 (a progressive colour file from
  // the library's own script has 10), and each scan of a large progressive file is another pass
  // over all of its blocks (up to about 35 ms at the memory limit), so a file repeating scans
  // could otherwise hold the decode for minutes.
  static constexpr int MAX_JPEG_SCANS = 100;
  // Largest colour profile kept: a camera or printer profile with big tables is under 1 MB.
  static constexpr size_t MAX_PROFILE_BYTES = size_t(4) << 20;

  // Empty picture named "qimage".
  QImage();
  // Names the object `name` and reads it; failure logs "QImage ctor: can't load '%s'" and sets
  // the failed flag (IsRead answers false). The object must still be deleted by the caller.
  QImage(const char* name, int depth = 0, int width = 0, int height = 0, int flags = 0);
  const char* ClassName() const override { return "QImage"; }

  // False only when the loading constructor's read failed.
  bool IsRead() const { return loadFailed_ == 0; }

  // Reads with the reader the name asks for. False for an unknown name (logged) or when the
  // reader fails.
  bool Read(const char* name);

  // Targa through the virtual file system (ReadTGASlow when there is none). False for a file
  // that can't be opened (silently), no data, "too wide", colour maps, unsupported type/depth
  // pairs, and data that is short or whose run-length packets cross a line ("Image '%s' is
  // corrupt").
  bool ReadTGA(const char* name);
  // The same from `size` bytes at `data`, as ReadTGA reads them from the file.
  bool ReadTGA(const uint8_t* data, size_t size, const char* name);
  // Targa from a stdio stream. False for an unreadable header, out of memory, "too wide" and
  // colour maps; an unsupported type/depth pair answers true with the pixels unset, and
  // run-length packets that cross a line are cut at the line's end.
  bool ReadTGASlow(const char* name);
  // JPEG through libjpeg, the file read whole into memory first. False when the file can't be
  // opened, is larger than 16384 in either direction or than its length can hold, needs more
  // than MAX_DECODE_BYTES, has more than MAX_JPEG_SCANS scans, the library reports an error, or
  // a stop is requested. Library warnings (a file cut short, a missing end marker) do not
  // fail: what decoded is kept and the rest is the library's fill.
  bool ReadJPG(const char* name);
  // The same from `size` bytes at `data` (`name` names them in messages), decoded at
  // `eighths` / 8 of the picture's size (1..8, the library's DCT scaling); the 16384 limit is
  // on the decoded size. With a reduced size (not larger than the decode either way, and
  // smaller in one), the rows are area-reduced to it as they are decoded (QAreaReducer), so the
  // decoded picture is never held whole.
  bool ReadJPG(const uint8_t* data, size_t size, const char* name, int eighths = 8,
               int reduceWidth = 0, int reduceHeight = 0);
  // The full width and height a JPEG stream's frame header declares, found by walking the
  // markers before it (nothing is allocated); false, silently, when a marker is broken or no
  // frame header lies whole within the bytes.
  static bool ReadJPGSize(const uint8_t* data, size_t size, int* width, int* height);
  // PNG through libpng, the file read whole into memory first: every colour type and depth,
  // palettes with transparency, interlaced files; alpha is laid over black (colour * alpha /
  // 255, alpha 255). False when the file can't be opened, lacks the signature and header, is
  // larger than 16384 in either direction or needs more than MAX_DECODE_BYTES (both refused
  // before anything is allocated), the library reports an error, or a stop is requested. A file
  // cut short after some rows decoded is not an error: those rows are kept, the rest is black,
  // and a debug line says where it ended.
  bool ReadPNG(const char* name);
  // The same from `size` bytes at `data` (`name` names them in messages). With a reduced size
  // (as for ReadJPG), the picture comes out area-reduced to it: a plain file's rows are reduced
  // as they are decoded, so it is never held whole; an interlaced file needs the whole picture
  // for its passes and is reduced after them (its full size counts against the limit).
  bool ReadPNG(const uint8_t* data, size_t size, const char* name, int reduceWidth = 0,
               int reduceHeight = 0);
  // The width and height a PNG's header declares; false, silently, without signature and header.
  static bool ReadPNGSize(const uint8_t* data, size_t size, int* width, int* height);
  // The primary picture of a HEIF/HEIC or AVIF file through libheif, turned and mirrored by the
  // file's own transforms (so its orientation is always 1). False when the library can't read
  // the file or decode it, or the picture is too large (checked before decoding).
  // With a reduced size (as for ReadJPG), the library's rows are area-reduced to it as they are
  // copied. False also when the decode would need more than MAX_DECODE_BYTES.
  bool ReadHEIF(const uint8_t* data, size_t size, const char* name, int reduceWidth = 0,
                int reduceHeight = 0);
  // The primary picture's size, after its transforms; false, silently, when the container can't
  // be read.
  static bool ReadHEIFSize(const uint8_t* data, size_t size, int* width, int* height);
  // The primary picture's first EXIF block, from its TIFF header on, into `tiff`; false,
  // silently, when the container can't be read or carries none.
  static bool ReadHEIFExif(const uint8_t* data, size_t size, std::vector<uint8_t>* tiff);
  // WebP through libwebp; an animated one gives its first frame on the canvas. With a target
  // size (both non-zero, at most the picture's), a still picture is decoded scaled to it. False
  // for a header the library can't read, a picture too large, or a failed decode.
  bool ReadWebP(const uint8_t* data, size_t size, const char* name, int targetWidth = 0,
                int targetHeight = 0);
  // A WebP's canvas size and its EXIF orientation (0 when it has none); false, silently, when
  // its header can't be read.
  static bool ReadWebPInfo(const uint8_t* data, size_t size, int* width, int* height,
                           int* orientation);
  // The first frame of a GIF through giflib, laid on its logical screen (what the frame leaves
  // uncovered, and its transparent colour, are black with alpha 0). False when the library
  // reports an error before the frame is whole, or the screen is too large.
  bool ReadGIF(const uint8_t* data, size_t size, const char* name);
  // The first page of a TIFF through libtiff's RGBA interface (1 to 16 bits, grey, palette, RGB,
  // CMYK, strips or tiles), rows as stored; its Orientation tag (1..8, 0 when absent) goes to
  // `orientation` when given, for the caller to turn the picture. False when the library reports
  // an error, or the picture, a strip or a tile is too large.
  // With a reduced size (as for ReadJPG), rows are area-reduced to it as bands of strips or
  // tiles are decoded. False also when the decode would need more than MAX_DECODE_BYTES.
  bool ReadTIFF(const uint8_t* data, size_t size, const char* name, int* orientation = nullptr,
                int reduceWidth = 0, int reduceHeight = 0);
  // The first page's size and Orientation tag (0 when absent); false, silently, when the file
  // can't be opened or declares no size up to MAX_SIZE.
  static bool ReadTIFFInfo(const uint8_t* data, size_t size, int* width, int* height,
                           int* orientation);
  // The embedded ICC profile of the last successful read; empty when it had none.
  const std::vector<uint8_t>& ColourProfile() const { return profile_; }
  // Keeps `size` bytes at `data` as the picture's profile (none when `size` is 0). A profile
  // larger than MAX_PROFILE_BYTES, shorter than an ICC header, or whose header claims more than
  // its bytes is a warning naming `name` and none is kept; false then.
  bool SetColourProfile(const uint8_t* data, size_t size, const char* name);
  // Converts the pixels (32 bits) from the profile to sRGB, alpha untouched; true at once without
  // a profile. A profile lcms2 can't open or that is not for RGB pixels is a warning naming the
  // picture, and false with the pixels untouched. Safe on several pictures at once.
  bool ConvertToSRGB();
  // Which reader Read would choose for `name`.
  static bool IsJpegName(const char* name);
  static bool IsTargaName(const char* name);
  static bool IsPngName(const char* name);
  static bool IsHeifName(const char* name);  // HEIF, HEIC and AVIF
  static bool IsWebPName(const char* name);
  static bool IsGifName(const char* name);
  static bool IsTiffName(const char* name);
  // Uncompressed 24-bit and 8-bit (as grey) Windows bitmaps; rows are taken unpadded. False for
  // a short header or memory; other kinds answer true with the pixels unset.
  bool ReadBMP(const char* name);
  // SGI RGB in either byte order, uncompressed or run-length. False for a short header, a width
  // above 16384, row tables outside the file, or a row that can't be read.
  bool ReadRGB(const char* name);
  // Photoshop layers composited over white (qpsd.h). False when the layers can't be read or the
  // picture is empty.
  bool ReadPSD(const char* name);
  // The "PIM " 4-bit palette format. False for a wrong header, a bad colour map, an unsupported
  // pixel type, or memory.
  bool ReadMIP(const char* name);

  // Decodes one run-length Targa line of `width` pixels at `bpp` 24 or 32 from [src, end) into
  // the 4-byte pixels at `dst`. Answers the position after the line; null, with "Image '%s' is
  // corrupt", when a packet crosses the line's end or the data ends first. Other depths answer
  // `src` and decode nothing.
  const uint8_t* DecompressTgaLine(const uint8_t* src, const uint8_t* end, uint8_t* dst, int bpp,
                                   int width);
  // Stores one decoded JPEG scanline of `components` samples per pixel in memory row `row` of
  // `bm`. Counts other than 1, 3 and 4 warn and leave the row unset.
  static void PutLine(const uint8_t* scanline, int row, QBitMap* bm, int components,
                      const char* name);

 private:
  // Takes the pixels, geometry and profile of `from`, which gets ours (the readers that must
  // leave the bitmap as it was decode into a picture of their own first).
  void SwapPixels(QImage* from);

  int loadFailed_ = 0;
  std::vector<uint8_t> profile_;
};
