// PanZoom: every framing stays inside the picture, the motion eases in and out, and pictures
// move different ways.
#include "app/pan_zoom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

namespace {

// How far the framing's edges moved between two points of the motion.
double Shift(const PanZoom& m, double a, double b) {
  const PanZoom::Framing x = m.At(a), y = m.At(b);
  return std::max({std::fabs(x.u0 - y.u0), std::fabs(x.v0 - y.v0),
                   std::fabs(x.u0 + x.size - y.u0 - y.size),
                   std::fabs(x.v0 + x.size - y.v0 - y.size)});
}

TEST(PanZoomMotion, StaysInsideEasesAtBothEndsAndDiffersBetweenPictures) {
  std::set<std::vector<double>> ends;
  for (int i = 0; i < 60; ++i) {
    const PanZoom m("IMG_" + std::to_string(i) + ".jpg");
    for (int k = -2; k <= 102; ++k) {
      const PanZoom::Framing f = m.At(k / 100.0);
      ASSERT_TRUE(f.size >= 1.0 / PanZoom::MAX_ZOOM - 1e-9 && f.size <= 1.0 && f.u0 >= 0.0 &&
                  f.v0 >= 0.0 && f.u0 + f.size <= 1.0 + 1e-9 && f.v0 + f.size <= 1.0 + 1e-9)
          << i << " at " << k << ": " << f.u0 << " " << f.v0 << " " << f.size;
    }
    // Every picture moves, slowly at the ends and fastest in the middle.
    const double middle = Shift(m, 0.49, 0.51);
    ASSERT_GT(middle, 1e-3) << i;
    EXPECT_LT(std::max(Shift(m, 0.0, 0.02), Shift(m, 0.98, 1.0)), middle / 10) << i;
    const PanZoom::Framing a = m.At(0.0), b = m.At(1.0);
    ends.insert({std::round(a.u0 * 1e3), std::round(a.v0 * 1e3), std::round(a.size * 1e3),
                 std::round(b.u0 * 1e3), std::round(b.v0 * 1e3), std::round(b.size * 1e3)});
  }
  // Zooming in and out and panning, towards different places.
  EXPECT_GE(ends.size(), 10u);
}

}  // namespace
