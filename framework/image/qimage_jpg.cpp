// QImage JPEG reader over libjpeg's version 62 interface (libjpeg-turbo).
//
// Three-component files are decoded straight into the bitmap's rows as RGBA (the library writes
// alpha 255), last memory row first; other component counts go through PutLine a scanline at a
// time. Errors jump back here and fail the read. Warnings (a file cut short, a missing end
// marker, stray bytes) do not: the library fills what it could not decode, the picture is shown
// as decoded, and the first warning goes to the log at debug level. The library's progress
// monitor, called for every row of blocks it reads and every call for scanlines, counts the
// scans and gives up on a stop request, jumping out as an error does.
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// Even a flat picture needs a Huffman code for the DC value of every 8 x 8 block; one bit per
// eight blocks (4096 pixels per byte) is far below what any real file reaches.
constexpr int64_t kMaxPixelsPerByte = 4096;
// Scanlines handed to the library per call on the direct path.
constexpr int kLinesPerCall = 16;
// Beside its DCT blocks and the output, the library keeps a few rows of blocks of every
// component at the output width (the main buffer, the upsampler's context): counted generously.
constexpr int64_t kLibraryRowsPerComponent = 64;

// Bytes of DCT blocks the library holds for a multi-scan file; 0 for a single scan.
int64_t ScanBufferBytes(j_decompress_ptr cinfo) {
  if (!jpeg_has_multiple_scans(cinfo)) return 0;
  int64_t bytes = 0;
  for (int c = 0; c < cinfo->num_components; ++c) {
    const jpeg_component_info& comp = cinfo->comp_info[c];
    const int64_t h = comp.h_samp_factor, v = comp.v_samp_factor;
    bytes += (int64_t(comp.width_in_blocks) + h - 1) / h * h *
             ((int64_t(comp.height_in_blocks) + v - 1) / v * v) * int64_t(sizeof(JBLOCK));
  }
  return bytes;
}

// Keeps the first warning for the log instead of printing it; trace messages are dropped.
void EmitMessage(j_common_ptr cinfo, int level) {
  if (level >= 0) return;
  JpegError* err = reinterpret_cast<JpegError*>(cinfo->err);
  if (cinfo->err->num_warnings++ == 0) (*cinfo->err->format_message)(cinfo, err->warning);
}

// Why the decode jumped out when it was not the library's error.
enum class Halt { kNone, kStop, kScans };

// Owns the decompressor for the whole read, including the jump out of libjpeg.
struct JpegDecoder {
  jpeg_decompress_struct cinfo;
  JpegError err;
  jpeg_progress_mgr progress;
  Halt halt = Halt::kNone;
  int scans = 0;  // the scan the library had reached when it was stopped
  // For a decode that shrinks as it goes: the reducer and one decoded row.
  std::unique_ptr<QAreaReducer> reducer;
  std::unique_ptr<QBitMap> line;
  JpegDecoder() {
    memset(&cinfo, 0, sizeof(cinfo));
    memset(&err, 0, sizeof(err));
    memset(&progress, 0, sizeof(progress));
  }
  ~JpegDecoder() { jpeg_destroy_decompress(&cinfo); }  // harmless on a zeroed decompressor
};

// The progress monitor: a file repeating scans without end, or a stop request, ends the decode
// through the error jump.
void Progress(j_common_ptr common) {
  JpegDecoder* dec = static_cast<JpegDecoder*>(common->client_data);
  const int scan = dec->cinfo.input_scan_number;
  if (QImage::StopRequested())
    dec->halt = Halt::kStop;
  else if (scan > QImage::MAX_JPEG_SCANS)
    dec->halt = Halt::kScans;
  else
    return;
  dec->scans = scan;
  longjmp(dec->err.jump, 1);
}

// Logs why the decode jumped out: a stop at debug level (nothing is wrong with the picture),
// anything else as a warning.
void ReportHalt(const JpegDecoder& dec, const char* name) {
  if (dec.halt == Halt::kStop)
    QDBG("QImage::ReadJPG", "QImage:ReadJPG(%s); given up: the program is stopping\n", name);
  else if (dec.halt == Halt::kScans)
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(); (%s) has more than %d scans (stopped at scan %d)",
          name, QImage::MAX_JPEG_SCANS, dec.scans);
  else
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(%s); %s", name, dec.err.text);
}

// Bytes in the APP2 markers before the first scan, which the library would keep for the colour
// profile: a file of nothing but such markers would otherwise be held twice.
size_t App2Bytes(const uint8_t* data, size_t size) {
  size_t total = 0, at = 2;
  while (at + 4 <= size && data[at] == 0xFF) {
    const uint8_t marker = data[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) break;  // start of scan, end of picture
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
      at += 2;
      continue;
    }
    const size_t length = Be16(data + at + 2);
    if (marker == 0xE2) total += length;
    at += 2 + length;
  }
  return total;
}

// Sets up the decompressor on the bytes and reads the header; false (after `name`'s warning)
// when the library reports an error. Nothing with a destructor lives in this frame.
bool ReadHeader(JpegDecoder* dec, const uint8_t* data, size_t size, const char* name) {
  j_decompress_ptr cinfo = &dec->cinfo;
  cinfo->err = jpeg_std_error(&dec->err.pub);
  dec->err.pub.error_exit = JpegErrorExit;
  dec->err.pub.emit_message = EmitMessage;
  if (setjmp(dec->err.jump)) {
    if (name) QWARN("QImage::ReadJPG", "QImage:ReadJPG(%s); %s", name, dec->err.text);
    return false;
  }
  jpeg_create_decompress(cinfo);
  cinfo->client_data = dec;
  dec->progress.progress_monitor = Progress;
  cinfo->progress = &dec->progress;
  jpeg_mem_src(cinfo, data, static_cast<unsigned long>(size));
  // The colour profile's chunks, of up to 65519 bytes each behind 16 of the marker's own.
  if (name) {
    const size_t app2 = App2Bytes(data, size);
    if (app2 <= QImage::MAX_PROFILE_BYTES + (QImage::MAX_PROFILE_BYTES / 65519 + 1) * 16)
      jpeg_save_markers(cinfo, JPEG_APP0 + 2, 0xFFFF);
    else
      QWARN("QImage::ReadJPG",
            "QImage:ReadJPG(%s); its colour profile markers of '%zu' bytes are more than %zu: "
            "ignored", name, app2, QImage::MAX_PROFILE_BYTES);
  }
  jpeg_read_header(cinfo, TRUE);
  return true;
}

// Keeps the colour profile, its APP2 chunks joined in sequence, with `img` (none when absent).
void TakeProfile(j_decompress_ptr cinfo, QImage* img, const char* name) {
  JOCTET* icc = nullptr;
  unsigned int length = 0;
  if (!jpeg_read_icc_profile(cinfo, &icc, &length)) length = 0;
  img->SetColourProfile(icc, length, name);
  free(icc);
}

// The decode proper, at `eighths` / 8 of the full size. Nothing with a destructor lives in this
// frame: libjpeg may jump out of it.
bool Decode(JpegDecoder* dec, QImage* img, const uint8_t* data, size_t size, const char* name,
            int eighths, int reduceW, int reduceH) {
  if (!ReadHeader(dec, data, size, name)) return false;
  j_decompress_ptr cinfo = &dec->cinfo;
  if (setjmp(dec->err.jump)) {
    ReportHalt(*dec, name);
    return false;
  }
  if (QImage::StopRequested()) {
    dec->halt = Halt::kStop;
    ReportHalt(*dec, name);
    return false;
  }
  const int64_t fileLength = int64_t(size);
  const int fullWidth = int(cinfo->image_width);
  const int fullHeight = int(cinfo->image_height);
  if (int64_t(fullWidth) * fullHeight > fileLength * kMaxPixelsPerByte) {
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(); (%s) is %dx%d, more than its %lld bytes can hold",
          name, fullWidth, fullHeight, static_cast<long long>(fileLength));
    return false;
  }
  cinfo->scale_num = unsigned(eighths < 1 ? 1 : eighths > 8 ? 8 : eighths);
  cinfo->scale_denom = 8;
  jpeg_calc_output_dimensions(cinfo);
  // The limit is on what is decoded: a reduced decode of a larger picture is fine.
  const int width = int(cinfo->output_width);
  const int height = int(cinfo->output_height);
  if (cinfo->output_width > unsigned(QImage::MAX_SIZE) ||
      cinfo->output_height > unsigned(QImage::MAX_SIZE)) {
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(); (%s) is %dx%d large; supported only upto %dx%d",
          name, width, height, QImage::MAX_SIZE, QImage::MAX_SIZE);
    return false;
  }
  const bool shrink = reduceW > 0 && reduceH > 0 && reduceW <= width && reduceH <= height &&
                      (reduceW < width || reduceH < height);
  // Everything this decode holds at once, before any of it is allocated. A progressive (or
  // otherwise multi-scan) file makes the library keep every DCT block of the whole picture
  // until the last scan, whatever the output scale: 72 MB for a 24-megapixel 4:2:0 photo.
  const int64_t outW = shrink ? reduceW : width, outH = shrink ? reduceH : height;
  // Shrinking adds the decoded rows' bitmap and the reducer's sums (9 words a pixel).
  const int64_t shrinkBytes = shrink ? int64_t(width) * 4 * kLinesPerCall + outW * 4 * 9 : 0;
  const int64_t need = fileLength + ScanBufferBytes(cinfo) + outW * outH * 4 + shrinkBytes +
                       int64_t(width) * cinfo->num_components * kLibraryRowsPerComponent;
  if (need > QImage::MAX_DECODE_BYTES) {
    QWARN("QImage::ReadJPG",
          "QImage:ReadJPG(); (%s) is a %s%dx%d: decoding it needs %lld MB, more than %lld",
          name, jpeg_has_multiple_scans(cinfo) ? "progressive " : "", fullWidth, fullHeight,
          MegabytesUp(need),
          static_cast<long long>(QImage::MAX_DECODE_BYTES >> 20));
    return false;
  }
  TakeProfile(cinfo, img, name);
  if (!img->Alloc(32, shrink ? reduceW : width, shrink ? reduceH : height, int(img->GetFlags()))) {
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(); (%s) out of memory", name);
    return false;
  }
  if (shrink) {
    // Row by row through a one-row bitmap into the reducer: the full decode is never held.
    dec->line.reset(new QBitMap(32, width, kLinesPerCall));
    dec->reducer.reset(new QAreaReducer(width, height, img));
    if (!dec->line->GetBuffer() || !dec->reducer->IsReady()) {
      QWARN("QImage::ReadJPG", "QImage:ReadJPG(); (%s) out of memory", name);
      return false;
    }
    const int components = cinfo->num_components;
    if (components == 3) cinfo->out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(cinfo);
    JSAMPARRAY raw = nullptr;
    if (components != 3)
      raw = (*cinfo->mem->alloc_sarray)(
          reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE,
          JDIMENSION(cinfo->output_width * JDIMENSION(cinfo->output_components)), kLinesPerCall);
    JSAMPROW rows[kLinesPerCall];
    for (int k = 0; k < kLinesPerCall; ++k) rows[k] = dec->line->GetAddress(0, k);
    while (cinfo->output_scanline < cinfo->output_height) {
      const int n = int(jpeg_read_scanlines(cinfo, components == 3 ? rows : raw, kLinesPerCall));
      if (n <= 0) break;
      for (int k = 0; k < n; ++k) {
        if (components != 3) QImage::PutLine(raw[k], k, dec->line.get(), components, name);
        dec->reducer->PushRow(rows[k]);
      }
    }
    jpeg_finish_decompress(cinfo);
    if (dec->err.warning[0])
      QDBG("QImage::ReadJPG", "QImage:ReadJPG(%s); %s (%ld warnings)", name, dec->err.warning,
           cinfo->err->num_warnings);
    return true;
  }

  const int components = cinfo->num_components;
  uint8_t* pixels = img->GetBuffer();
  const size_t stride = size_t(width) * 4;
  if (components == 3) {
    cinfo->out_color_space = JCS_EXT_RGBA;
    jpeg_start_decompress(cinfo);
    JSAMPROW rows[kLinesPerCall];
    while (cinfo->output_scanline < cinfo->output_height) {
      const int first = int(cinfo->output_scanline);
      int n = height - first;
      if (n > kLinesPerCall) n = kLinesPerCall;
      // Scanline k belongs in memory row height - 1 - k: the file is top-down.
      for (int k = 0; k < n; ++k) rows[k] = pixels + size_t(height - 1 - first - k) * stride;
      jpeg_read_scanlines(cinfo, rows, JDIMENSION(n));
    }
  } else {
    jpeg_start_decompress(cinfo);
    JSAMPARRAY line = (*cinfo->mem->alloc_sarray)(
        reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE,
        JDIMENSION(cinfo->output_width * JDIMENSION(cinfo->output_components)), 1);
    while (cinfo->output_scanline < cinfo->output_height) {
      jpeg_read_scanlines(cinfo, line, 1);
      QImage::PutLine(line[0], height - int(cinfo->output_scanline), img, components, name);
    }
  }
  jpeg_finish_decompress(cinfo);
  if (dec->err.warning[0])
    QDBG("QImage::ReadJPG", "QImage:ReadJPG(%s); %s (%ld warnings)", name, dec->err.warning,
         cinfo->err->num_warnings);
  return true;
}

}  // namespace

void QImage::PutLine(const uint8_t* scanline, int row, QBitMap* bm, int components,
                     const char* name) {
  uint8_t* dst = bm->GetAddress(0, row);
  const int width = bm->GetWidth();
  if (components != 1 && components != 3 && components != 4) {
    QWARN("QImage::PutLine", "QImage:ReadJPG(%s); unsupported number of components (%d)", name,
          components);
    return;
  }
  if (!dst) return;
  for (int x = 0; x < width; ++x, dst += 4, scanline += components) {
    if (components == 1) {
      dst[0] = dst[1] = dst[2] = scanline[0];
    } else {
      dst[0] = scanline[0], dst[1] = scanline[1], dst[2] = scanline[2];
    }
    dst[3] = 255;
  }
}

bool QImage::ReadJPG(const char* name) {
  QStream fp(qfopen(name, "rb"));
  if (!fp) {
    QWARN("QImage::ReadJPG", "QImage:ReadJPG(); can't open '%s'", name);
    return false;
  }
  size_t size = 0;
  const QBlock data = ReadWholeStream(fp.get(), &size);
  return ReadJPG(data.get(), size, name);
}

bool QImage::ReadJPG(const uint8_t* data, size_t size, const char* name, int eighths,
                     int reduceWidth, int reduceHeight) {
  JpegDecoder dec;
  return Decode(&dec, this, data, size, name ? name : "", eighths, reduceWidth, reduceHeight);
}

bool QImage::ReadJPGSize(const uint8_t* data, size_t size, int* width, int* height) {
  // Walked here rather than by the library, which allocates for every call: an index asks this
  // of every file.
  if (!data || size < 4 || data[0] != 0xFF || data[1] != 0xD8) return false;
  size_t at = 2;
  while (at + 4 <= size) {
    if (data[at] != 0xFF) return false;
    const uint8_t marker = data[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
      at += 2;
      continue;
    }
    if (marker == 0xDA || marker == 0xD9) return false;  // a scan or the end before any frame
    const size_t length = Be16(data + at + 2);
    if (length < 2) return false;
    // The frame headers: C0-CF but for DHT (C4), JPG (C8) and DAC (CC).
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      if (length < 8 || at + 2 + length > size) return false;
      const int h = Be16(data + at + 5), w = Be16(data + at + 7);
      if (w == 0 || h == 0) return false;  // a height given later (DNL) is not supported
      if (width) *width = w;
      if (height) *height = h;
      return true;
    }
    at += 2 + length;
  }
  return false;
}
