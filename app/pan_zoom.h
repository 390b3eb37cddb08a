// PanZoom: the slow motion of a standing picture ("effects.pan_zoom"): from one framing to
// another, eased at both ends so that it neither starts nor stops with a jerk. A framing is the
// part of the picture's texture its quad shows, in fractions of the texture: a square of side
// 1 / zoom (zoom from 1 to MAX_ZOOM) that always lies inside the whole texture, so the quad stays
// filled exactly where it stands unmoved and never shows more than the picture has. Which way a
// picture moves (zooming in towards a corner, a side or the centre, zooming out from one, or
// panning across at the largest zoom) follows from its name, so it moves the same way each time
// it is shown. Plain arithmetic: no OpenGL, any thread.
#pragma once

#include <string>

class PanZoom {
 public:
  // The largest zoom; pictures are decoded this much larger than their quad, so that the
  // closest framing still has a texel for each pixel.
  static constexpr double MAX_ZOOM = 1.15;

  // The part of the texture shown: from (u0, v0), `size` wide and high (fractions).
  struct Framing {
    double u0 = 0, v0 = 0, size = 1;
  };

  // No motion: every framing is the whole picture.
  PanZoom() = default;
  // The motion of the picture named `name`.
  explicit PanZoom(const std::string& name);

  // The framing at `progress` through the motion (0 its start, 1 its end; clamped to those).
  Framing At(double progress) const;

 private:
  double zoomFrom_ = 1, zoomTo_ = 1;
  // The anchor: where the framing lies in the room the zoom leaves (0 left or top, 1 right or
  // bottom), at the start and at the end.
  double fromX_ = 0.5, fromY_ = 0.5, toX_ = 0.5, toY_ = 0.5;
};
