// QCanvas: drawing into a window's back buffer through its OpenGL context: clearing, a
// three-dimensional and a two-dimensional projection, a colour, a font and text.
//
// Modes: Set3D(d) is the perspective in which one unit is one pixel at depth -d with the origin
// at the window's centre (frustum +-W/(2d), +-H/(2d), near 1, far 100000, eye moved back by d);
// a quad of the window's height drawn at z = 0 spans exactly the window's height. Set2D is the
// window in pixels with the origin at the top-left corner and y growing downward, the mode for
// text. Both set the viewport to the whole window, or with SetShrink(k) to its lower-left
// 1/k-th each way: the same picture k times smaller, for a small copy that costs a k-th squared
// of a frame.
//
// Colours are screen values: the clear colour, the drawing colour and the text colour reach the
// screen as given, whether or not the framebuffer encodes to sRGB (the canvas switches the
// encoding off around clears and text and gives OpenGL the linear value of the drawing colour;
// see d3/dglobal.h).
//
// The drawable and the font are borrowed. Every drawing call first makes the drawable's context
// current and does nothing (false) when it cannot. Main thread only.
#pragma once

#include "framework/qcolor.h"
#include "framework/qobject.h"

class QBitMap;
class QDrawable;
class QFont;

class QCanvas : public QObject {
 public:
  enum ClearBits : int { CLEAR_COLOR = 1, CLEAR_DEPTH = 2 };
  enum Mode : int { MODE_NONE = 0, MODE_2D = 2, MODE_3D = 3 };
  static constexpr float DEFAULT_DISTANCE = 1000.0f;
  static constexpr float NEAR_PLANE = 1.0f;
  static constexpr float FAR_PLANE = 100000.0f;

  explicit QCanvas(QDrawable* drawable, const char* name = nullptr);
  const char* ClassName() const override { return "QCanvas"; }

  void SetClearColor(int r, int g, int b, int a);
  // Clears the colour and/or depth buffer of the back buffer; false without a context.
  bool Clear(int what = CLEAR_COLOR | CLEAR_DEPTH);
  // Directs drawing to the back buffer; false without a context.
  bool DrawBackBuffer();

  // Perspective at viewing distance `d` (> 0; another value is refused with a warning).
  bool Set3D(float d = DEFAULT_DISTANCE);
  // Window pixels, y down. False without a context.
  bool Set2D();
  Mode GetMode() const { return mode_; }

  // Colour for untextured drawing (made current at once) and text.
  void SetColor(int r, int g, int b, int a);
  QColor GetColor() const { return color_; }
  // The drawing flag given to text: the font's paint flags (bit 0 premultiplied blending, bit 1
  // bold) for the texts that follow.
  void SetDrawFlag(int flag) { drawFlag_ = flag; }
  int GetDrawFlag() const { return drawFlag_; }

  // Borrowed; null means no text is drawn.
  void SetFont(QFont* font) { font_ = font; }
  QFont* GetFont() const { return font_; }
  // Draws `len` bytes of UTF-8 `text` (-1: to the terminating zero) with the pen at (x, y), y
  // being the text's top edge in 2D mode. Answers the pen x after the text; x when there is no
  // texture font, no text or no context.
  int Text(int x, int y, const char* text, int len = -1);

  // Draws the following frames k times smaller each way (1: the whole window; values below 1
  // count as 1). The modes set afterwards take it up.
  void SetShrink(int k) { shrink_ = k > 1 ? k : 1; }
  // The back buffer's whole window (its shrunk part, see SetShrink) as it was drawn, into `out`
  // (32-bit, rows bottom-up, as QBitMap has them; the bytes the screen shows, whatever the
  // framebuffer's encoding). Waits for the drawing to end, so call it once the frame is out. False, `out` empty, without a context
  // or memory (warned).
  bool ReadPixels(QBitMap* out);

  int GetWidth() const;
  int GetHeight() const;

 private:
  bool Current() const;

  QDrawable* drawable_ = nullptr;
  QFont* font_ = nullptr;
  QColor clearColor_{0, 0, 0, 0};
  QColor color_{255, 255, 255, 255};
  int drawFlag_ = 0;
  int shrink_ = 1;
  Mode mode_ = MODE_NONE;
};
