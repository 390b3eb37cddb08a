// TestGLWindow: the framework's application window for tests that draw with OpenGL. One window
// per test program, opened on first use and kept until the program ends; tests skip when no
// display is there (ctest runs under Xvfb, where Mesa renders in software).
#pragma once

#include <cstdint>

class QShell;

namespace testgl {

// The main window at `wid` x `hgt` (the first call decides), or null when there is no display
// or the window cannot be made.
QShell* Window(int wid = 800, int hgt = 600);
// The back buffer's pixel at column x and row y counted from the top: red, green, blue, alpha.
uint32_t Pixel(int x, int yFromTop);
inline int R(uint32_t p) { return int(p >> 24); }
inline int G(uint32_t p) { return int((p >> 16) & 255); }
inline int B(uint32_t p) { return int((p >> 8) & 255); }

}  // namespace testgl
