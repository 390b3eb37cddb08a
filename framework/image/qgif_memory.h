// giflib reading from bytes in memory, shared by the still reader and the frame decoder.
#pragma once

#include <gif_lib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qimage_detail {

// Where giflib's reads come from: DGifOpen's user data.
struct GifSource {
  const uint8_t* data;
  size_t size;
  size_t at;
};

// giflib's read function over a GifSource; 0 past the end.
inline int GifReadFromMemory(GifFileType* gif, GifByteType* out, int count) {
  GifSource* src = static_cast<GifSource*>(gif->UserData);
  if (count <= 0 || src->at >= src->size) return 0;
  const size_t n = std::min(size_t(count), src->size - src->at);
  memcpy(out, src->data + src->at, n);
  src->at += n;
  return int(n);
}

// giflib's text for an error code, never null.
inline const char* GifErrorText(int code) {
  const char* text = GifErrorString(code);
  return text ? text : "unknown error";
}

}  // namespace qimage_detail
