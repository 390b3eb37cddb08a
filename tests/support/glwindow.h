// The framework's window for tests that draw with OpenGL: one per test program, opened on first
// use; tests skip when there is no display.
#pragma once

#include <cstdint>

class QShell;

namespace testgl {

// The main window at `wid` x `hgt` (the first call decides); null without a display.
QShell* Window(int wid = 800, int hgt = 600);
// The back buffer's pixel at column x and row y counted from the top: red, green, blue, alpha.
uint32_t Pixel(int x, int yFromTop);
inline int R(uint32_t p) { return int(p >> 24); }
inline int G(uint32_t p) { return int((p >> 16) & 255); }
inline int B(uint32_t p) { return int((p >> 8) & 255); }

}  // namespace testgl
