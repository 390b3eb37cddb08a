// QDrawable: anything the framework can draw into or show, a bitmap in memory or a window on the
// screen. It only fixes the common virtual interface; it owns nothing. Windows derive from it to
// bind an OpenGL context and present frames; bitmaps answer their pixel geometry.
//
// QRect is the framework's rectangle: x, y, width, height, all signed; which way y counts (from
// the top or from the bottom) is said by each operation that takes one.
#pragma once

#include "framework/qobject.h"

struct QRect {
  int x = 0;
  int y = 0;
  int wid = 0;
  int hgt = 0;
};

class QDrawable : public QObject {
 public:
  explicit QDrawable(const char* name = nullptr) : QObject(name) {}
  const char* ClassName() const override { return "QDrawable"; }
  ~QDrawable() override = default;

  // Makes the drawable's OpenGL context current; false when it has none (bitmaps never do).
  virtual bool MakeCurrent() { return false; }
  // Presents what was drawn; nothing for a drawable that is not on screen.
  virtual void Swap() {}
  // Bits per pixel; 0 when unknown.
  virtual int GetDepth() const { return 0; }
  // Size in pixels; 0 when there is nothing.
  virtual int GetWidth() const { return 0; }
  virtual int GetHeight() const { return 0; }
};
