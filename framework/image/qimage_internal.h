// Helpers shared by the picture readers and writers (qimage*.cpp, qpsd.cpp); not for other code.
//
// Every reader trusts nothing in a file: sizes are computed in 64 bits and compared with the
// file's length before a block is allocated for them. A reader that decodes from a stream accepts
// a file shorter than its header promises (the missing pixels stay zero) as long as the file
// holds at least an eighth of the data the header asks for; beyond that the header is taken as a
// lie and the read is refused, so that a 100-byte file cannot make us allocate a gigabyte.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include <jpeglib.h>

#include "framework/qbitmap.h"
#include "framework/qfile.h"
#include "framework/qmem.h"

namespace qimage_detail {

// Owner of a stream opened with qfopen.
struct QFcloseDeleter {
  void operator()(FILE* fp) const {
    if (fp) qfclose(fp);
  }
};
using QStream = std::unique_ptr<FILE, QFcloseDeleter>;

// How much shorter than promised a streamed file may be (see above).
constexpr int64_t kShortfallFactor = 8;

// True when `haveBytes` of file can plausibly hold `needBytes` of encoded pixels.
inline bool FitsFile(int64_t needBytes, int64_t haveBytes) {
  if (needBytes < 0) return false;
  if (haveBytes < 0) haveBytes = 0;
  return needBytes <= haveBytes * kShortfallFactor;
}

// Bytes in whole megabytes, rounded up, for messages: a need just over a limit reads as more.
inline long long MegabytesUp(int64_t bytes) {
  return static_cast<long long>((bytes + (1 << 20) - 1) >> 20);
}

// Length of an open stream; the position is kept. 0 when it cannot be taken.
inline int64_t StreamLength(FILE* fp) {
  long here = ftell(fp);
  if (here < 0 || fseek(fp, 0, SEEK_END) != 0) return 0;
  long size = ftell(fp);
  fseek(fp, here, SEEK_SET);
  return size < 0 ? 0 : size;
}

// The rest of an open stream in one block; null (with `*size` 0) when it is empty, 2 GB or more,
// or memory runs out. `*size` is what was read.
inline QBlock ReadWholeStream(FILE* fp, size_t* size) {
  *size = 0;
  const int64_t length = StreamLength(fp);
  QBlock data(length > 0 && length < INT32_MAX ? static_cast<uint8_t*>(qmalloc(size_t(length)))
                                               : nullptr);
  if (data) *size = fread(data.get(), 1, size_t(length), fp);
  return data;
}

// The most pixels a byte of a compressed picture is taken to hold. Codecs that code a flat area
// in a few bits (HEVC, AV1, lossless WebP, LZW) reach a few thousand; a header asking for more
// than this is a lie, refused before the library allocates for it.
constexpr int64_t kMaxPixelsPerByte = 1 << 16;

// True when `size` bytes can plausibly hold a `width` x `height` picture.
inline bool PixelsFitBytes(int64_t width, int64_t height, size_t size) {
  return width > 0 && height > 0 && width * height <= int64_t(size) * kMaxPixelsPerByte;
}

// The readers' check of a header's size, before their library allocates anything: true for a
// picture of 1 to QImage::MAX_SIZE pixels each way that its `size` bytes can hold; otherwise a
// warning naming `reader` ("ReadGIF"), the file and the size, and false.
bool AcceptHeaderSize(const char* reader, const char* name, int64_t width, int64_t height,
                      size_t size);

// The readers' check of what one decode holds at once, `need` bytes counted from the header
// before anything is allocated (the file, the library's planes or strips, the pixels): true
// within QImage::MAX_DECODE_BYTES, otherwise a warning naming `reader`, the file, its size and
// the need, and false.
bool AcceptDecodeBytes(const char* reader, const char* name, int width, int height, int64_t need);

// Where a reader's rows go, top row first: straight into a `width` x `height` picture, or through
// an area reducer into a smaller one (`reduceWidth` x `reduceHeight`, when both are given, not
// larger either way and smaller in one), so that a library's full-size output is not copied
// whole a second time.
class RowSink {
 public:
  RowSink(int width, int height, int reduceWidth, int reduceHeight);
  // What the sink holds: the picture it fills and, when reducing, the reducer's sums.
  int64_t Bytes() const;
  // Allocates `into` (32-bit, `flags`); false when memory runs out.
  bool Open(QBitMap* into, int flags);
  // One row of `width` RGBA pixels.
  void Push(const uint8_t* row);

 private:
  int width_, height_, outW_, outH_, next_ = 0;
  QBitMap* into_ = nullptr;
  std::unique_ptr<QAreaReducer> reducer_;
};

// A colour description by numbers (HEIF's nclx box): the primaries' and white's x, y and the
// ISO/IEC 23091-2 codes of the primaries and the transfer characteristics.
struct ColourDescription {
  double red[2], green[2], blue[2], white[2];
  int primaries, transfer;
};

// An ICC profile for `d` in `icc` (qimage_colour.cpp); false with `icc` empty when `d` is sRGB
// already, or with a warning naming `name` and the value when its transfer or primaries can't be
// described (HDR curves are not tone-mapped).
bool DescribedProfile(const ColourDescription& d, const char* name, std::vector<uint8_t>* icc);

// Lays `pixels` RGBA pixels over black: colour * alpha / 255, alpha 255.
inline void LayOverBlack(uint8_t* p, size_t pixels) {
  for (size_t i = 0; i < pixels; ++i, p += 4) {
    const unsigned a = p[3];
    if (a == 255) continue;
    for (int c = 0; c < 3; ++c) p[c] = uint8_t((p[c] * a + 127) / 255);
    p[3] = 255;
  }
}

inline uint16_t Le16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint16_t Be16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t Be32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Reads exactly n bytes; false on a short read (for memory files too, whose reads run one
// filler byte past the end).
inline bool ReadAll(QFile* f, void* buffer, int n) {
  if (n == 0) return true;
  return f->Read(buffer, n) == n && !f->IsEOF();
}

// libjpeg's standard error manager with an error exit that jumps back to the reader or writer
// that set `jump`, with the library's text in `text`.
struct JpegError {
  jpeg_error_mgr pub;
  jmp_buf jump;
  char text[JMSG_LENGTH_MAX];
  char warning[JMSG_LENGTH_MAX];  // the reader's first warning, empty when there was none
};

[[noreturn]] inline void JpegErrorExit(j_common_ptr cinfo) {
  JpegError* err = reinterpret_cast<JpegError*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, err->text);
  longjmp(err->jump, 1);
}

}  // namespace qimage_detail
