// PanZoom: a picture's framings from its name.
#include "app/pan_zoom.h"

#include <algorithm>
#include <cstdint>

PanZoom::PanZoom(const std::string& name) {
  // FNV-1a: stable across runs and machines, unlike std::hash.
  uint32_t h = 2166136261u;
  for (unsigned char c : name) h = (h ^ c) * 16777619u;
  // One of the nine anchors: corners, sides, centre.
  const int anchor = int((h >> 2) % 9);
  const double x = (anchor % 3) / 2.0, y = (anchor / 3) / 2.0;
  switch (h % 3) {
    case 0:  // zooming in towards the anchor
      zoomTo_ = MAX_ZOOM;
      toX_ = x, toY_ = y;
      break;
    case 1:  // zooming out from it
      zoomFrom_ = MAX_ZOOM;
      fromX_ = x, fromY_ = y;
      break;
    default: {
      // Panning from an edge or a corner to the opposite one: the centre would stand still.
      const int edge = int((h >> 2) % 8);
      const int a = edge < 4 ? edge : edge + 1;
      zoomFrom_ = zoomTo_ = MAX_ZOOM;
      fromX_ = (a % 3) / 2.0, fromY_ = (a / 3) / 2.0;
      toX_ = 1.0 - fromX_, toY_ = 1.0 - fromY_;
    }
  }
}

PanZoom::Framing PanZoom::At(double progress) const {
  const double p = std::min(1.0, std::max(0.0, progress));
  const double s = p * p * (3.0 - 2.0 * p);  // smoothstep: no speed at either end
  const double zoom = zoomFrom_ + (zoomTo_ - zoomFrom_) * s;
  Framing f;
  f.size = 1.0 / zoom;
  // The room the zoom leaves, shared out by the anchor; never more, so the square stays inside.
  const double room = 1.0 - f.size;
  f.u0 = room * (fromX_ + (toX_ - fromX_) * s);
  f.v0 = room * (fromY_ + (toY_ - fromY_) * s);
  return f;
}
