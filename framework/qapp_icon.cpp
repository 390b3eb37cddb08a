// Icon resources compiled into the library: each picture is drawn as character art with a small
// palette and expanded to RGBA once, on first use.
#include <cstdint>
#include <cstring>

#include "framework/qapp_display.h"

namespace {

constexpr int kIconSize = 16;

// Resource 101: a framed picture (sky, sun, hills) on a dark frame.
constexpr const char* kIcon101[kIconSize] = {
    "................",
    ".ffffffffffffff.",
    ".fsssssssssssssf",
    ".fsssssssssyyssf",
    ".fssssssssyyyysf",
    ".fssssssssyyyysf",
    ".fsssssssssyyssf",
    ".fssssgssssssssf",
    ".fsssgggssssssff",
    ".fssgggggsssgssf",
    ".fsgggggggsgggsf",
    ".fgggggggggggggf",
    ".fgggggggggggggf",
    ".fgggggggggggggf",
    ".ffffffffffffff.",
    "................",
};

uint32_t PaletteRGBA(char c) {
  switch (c) {
    case 'f': return 0x303030FF;
    case 's': return 0x5A9BE0FF;
    case 'y': return 0xF5D142FF;
    case 'g': return 0x3C9A46FF;
    default: return 0x00000000;
  }
}

}  // namespace

bool qGetIconResource(int resource, const uint8_t** rgba, int* width, int* height) {
  if (resource != 101 || !rgba || !width || !height) return false;
  static uint8_t pixels[kIconSize * kIconSize * 4];
  static bool made = false;
  if (!made) {
    for (int y = 0; y < kIconSize; ++y)
      for (int x = 0; x < kIconSize; ++x) {
        uint32_t c = PaletteRGBA(kIcon101[y][x]);
        uint8_t* p = pixels + (y * kIconSize + x) * 4;
        p[0] = uint8_t(c >> 24);
        p[1] = uint8_t(c >> 16);
        p[2] = uint8_t(c >> 8);
        p[3] = uint8_t(c);
      }
    made = true;
  }
  *rgba = pixels;
  *width = *height = kIconSize;
  return true;
}
