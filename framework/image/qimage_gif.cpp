// QImage GIF reader over giflib.
//
// The file is read from memory through giflib's read callback. The logical screen's size comes
// first and is checked before anything is allocated; then the records are read up to the first
// picture, taking its transparent colour from the graphic control extension before it. That
// picture is laid on the screen at its offset through its own colour map or the global one, an
// interlaced one row by row in the four passes' order. Later frames are not read.
#include <gif_lib.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/image/qimage.h"
#include "framework/image/qgif_memory.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// Owner of giflib's state.
struct GifFile {
  GifFileType* gif = nullptr;
  ~GifFile() {
    int err = 0;
    if (gif) DGifCloseFile(gif, &err);
  }
};

}  // namespace

bool QImage::ReadGIF(const uint8_t* data, size_t size, const char* name) {
  if (!name) name = "";
  GifSource src = {data, data ? size : 0, 0};
  int err = 0;
  GifFile f;
  f.gif = DGifOpen(&src, GifReadFromMemory, &err);
  if (!f.gif) {
    QWARN("QImage::ReadGIF", "QImage:ReadGIF(%s); %s", name, GifErrorText(err));
    return false;
  }
  GifFileType* gif = f.gif;
  const int width = gif->SWidth, height = gif->SHeight;
  if (!AcceptHeaderSize("ReadGIF", name, width, height, size)) return false;
  // The file, the frame laid on its screen and a line of indices.
  if (!AcceptDecodeBytes("ReadGIF", name, width, height,
                         int64_t(size) + int64_t(width) * height * 4 + width))
    return false;

  // The records before the first picture: only the transparent colour matters.
  int transparent = -1;
  GifRecordType record = UNDEFINED_RECORD_TYPE;
  for (;;) {
    if (DGifGetRecordType(gif, &record) == GIF_ERROR) break;
    if (record == IMAGE_DESC_RECORD_TYPE || record == TERMINATE_RECORD_TYPE) break;
    if (record != EXTENSION_RECORD_TYPE) continue;
    int code = 0;
    GifByteType* ext = nullptr;
    if (DGifGetExtension(gif, &code, &ext) == GIF_ERROR) break;
    while (ext) {
      GraphicsControlBlock gcb;
      if (code == GRAPHICS_EXT_FUNC_CODE && ext[0] == 4 &&
          DGifExtensionToGCB(ext[0], ext + 1, &gcb) == GIF_OK)
        transparent = gcb.TransparentColor;
      if (DGifGetExtensionNext(gif, &ext) == GIF_ERROR) break;
    }
    if (gif->Error) break;
  }
  if (record != IMAGE_DESC_RECORD_TYPE || DGifGetImageDesc(gif) == GIF_ERROR) {
    QWARN("QImage::ReadGIF", "QImage:ReadGIF(%s); %s", name,
          gif->Error ? GifErrorText(gif->Error) : "no picture in the file");
    return false;
  }
  const GifImageDesc& desc = gif->Image;
  const ColorMapObject* map = desc.ColorMap ? desc.ColorMap : gif->SColorMap;
  if (desc.Width <= 0 || desc.Height <= 0 || desc.Width > MAX_SIZE || desc.Height > MAX_SIZE) {
    QWARN("QImage::ReadGIF", "QImage:ReadGIF(); (%s) has a %dx%d frame; supported only upto %dx%d",
          name, desc.Width, desc.Height, MAX_SIZE, MAX_SIZE);
    return false;
  }
  QImage decoded;
  if (!decoded.Alloc(32, width, height, int(GetFlags() & ~uint32_t(EXTERNAL)))) {
    QWARN("QImage::ReadGIF", "QImage:ReadGIF(); (%s) out of memory", name);
    return false;
  }
  memset(decoded.GetBuffer(), 0, size_t(decoded.GetSize()));

  // Rows in the order the file holds them: top-down, or the four interlace passes.
  static const int kPassStart[4] = {0, 4, 2, 1}, kPassStep[4] = {8, 8, 4, 2};
  std::vector<GifPixelType> line(size_t(desc.Width));
  const int passes = desc.Interlace ? 4 : 1;
  for (int pass = 0; pass < passes; ++pass) {
    const int first = desc.Interlace ? kPassStart[pass] : 0;
    const int step = desc.Interlace ? kPassStep[pass] : 1;
    for (int row = first; row < desc.Height; row += step) {
      if (DGifGetLine(gif, line.data(), desc.Width) == GIF_ERROR) {
        QWARN("QImage::ReadGIF", "QImage:ReadGIF(%s); %s", name, GifErrorText(gif->Error));
        return false;
      }
      const int y = desc.Top + row;
      if (y < 0 || y >= height) continue;
      uint8_t* out = decoded.GetAddress(0, height - 1 - y);
      for (int x = 0; x < desc.Width; ++x) {
        const int sx = desc.Left + x;
        if (sx >= width) break;
        const int index = line[size_t(x)];
        if (index == transparent) continue;
        uint8_t* p = out + size_t(sx) * 4;
        if (map && index < map->ColorCount) {
          p[0] = map->Colors[index].Red, p[1] = map->Colors[index].Green;
          p[2] = map->Colors[index].Blue;
        }
        p[3] = 255;  // an index outside the map is black
      }
    }
  }
  SwapPixels(&decoded);
  return true;
}
