// Animated GIF and WebP bytes (the kind by their magic) through every frame of two loops, each
// written out at a reduced size taken from the input's first bytes, as the slideshow asks for it.
#include <cstring>

#include "framework/image/qanimation.h"
#include "framework/qbitmap.h"
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  QAnimation::Animates(data, size);
  QBlock bytes(static_cast<uint8_t*>(qmalloc(size + 1)));
  if (!bytes) return 0;
  if (size) memcpy(bytes.get(), data, size);
  QAnimation anim;
  if (!anim.Open(std::move(bytes), size, "f")) return 0;
  int share = 256, eighths = 8;
  qimage_fuzz::ShrinkFrom(data, size, &share, &eighths);
  const int w = qimage_fuzz::Share(anim.GetWidth(), share);
  const int h = qimage_fuzz::Share(anim.GetHeight(), share);
  QBitMap out;
  int delay = 0, loops = 0;
  // A bounded number of frames: a file may hold thousands of tiny ones.
  for (int frame = 0; frame < 512 && loops < 2 && anim.Next(&out, w, h, &delay); ++frame)
    loops += anim.AtLoopEnd();
  return 0;
}
