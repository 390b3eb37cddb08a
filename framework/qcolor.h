// QColor: one colour packed in a 32-bit value, red in the top byte, then green, blue, and alpha
// in the low byte. Writing a colour to a pixel stores the bytes red, green, blue, alpha in that
// order, whatever the machine's byte order. A plain value: copy it freely.
#pragma once

#include <cstdint>

class QColor {
 public:
  constexpr QColor() = default;
  // The packed value as it stands (0xRRGGBBAA).
  constexpr explicit QColor(uint32_t rgba) : rgba_(rgba) {}
  // Components are cut to their low 8 bits.
  constexpr QColor(int r, int g, int b, int a = 255)
      : rgba_((uint32_t(r & 255) << 24) | (uint32_t(g & 255) << 16) | (uint32_t(b & 255) << 8) |
              uint32_t(a & 255)) {}

  constexpr uint32_t GetRGBA() const { return rgba_; }
  constexpr int GetR() const { return int(rgba_ >> 24); }
  constexpr int GetG() const { return int((rgba_ >> 16) & 255); }
  constexpr int GetB() const { return int((rgba_ >> 8) & 255); }
  constexpr int GetA() const { return int(rgba_ & 255); }

  constexpr bool operator==(QColor o) const { return rgba_ == o.rgba_; }
  constexpr bool operator!=(QColor o) const { return rgba_ != o.rgba_; }

 private:
  uint32_t rgba_ = 0;
};
