// glimra-demopics: paints a small set of photo-like demo pictures into a folder, so that the
// slideshow has something to show on a machine without pictures of its own.
//   glimra-demopics FOLDER
// Every scene is procedural and deterministic: the same pictures each run. Four JPEGs carry an
// EXIF orientation (1, 3, 6, 8); their pixels are stored turned the other way, so that they come
// out upright only when the viewer honours the orientation. The set also holds a Targa, a wide
// panorama and a high-contrast snow scene that survives black and white well.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/image/qexif.h"
#include "framework/qbitmap.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Colours, noise, canvas
// ---------------------------------------------------------------------------------------------

struct Col {
  float r, g, b;
};
Col Mix(Col a, Col b, float t) {
  return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}
Col Scale(Col a, float s) { return {a.r * s, a.g * s, a.b * s}; }
float Clamp01(float v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }
float Smooth(float e0, float e1, float v) {
  const float t = Clamp01((v - e0) / (e1 - e0));
  return t * t * (3 - 2 * t);
}

uint32_t Hash(int x, int y, uint32_t seed) {
  uint32_t h = uint32_t(x) * 374761393u + uint32_t(y) * 668265263u + seed * 2246822519u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return h ^ (h >> 16);
}
float Lattice(int x, int y, uint32_t seed) { return float(Hash(x, y, seed) & 0xffff) / 65535.0f; }

// Smooth value noise in 0..1.
float Noise(float x, float y, uint32_t seed) {
  const float fx = std::floor(x), fy = std::floor(y);
  const int ix = int(fx), iy = int(fy);
  float tx = x - fx, ty = y - fy;
  tx = tx * tx * (3 - 2 * tx);
  ty = ty * ty * (3 - 2 * ty);
  const float a = Lattice(ix, iy, seed), b = Lattice(ix + 1, iy, seed);
  const float c = Lattice(ix, iy + 1, seed), d = Lattice(ix + 1, iy + 1, seed);
  return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}
float Fbm(float x, float y, uint32_t seed, int octaves = 5) {
  float sum = 0, amp = 0.5f, norm = 0;
  for (int i = 0; i < octaves; ++i) {
    sum += Noise(x, y, seed + uint32_t(i) * 101u) * amp;
    norm += amp;
    x *= 2.03f, y *= 2.03f, amp *= 0.5f;
  }
  return sum / norm;
}

// Deterministic random numbers for placing things.
struct Rng {
  uint32_t s;
  float Next() {
    s = s * 1664525u + 1013904223u;
    return float(s >> 8) / 16777216.0f;
  }
  float Range(float a, float b) { return a + (b - a) * Next(); }
};

struct Pt {
  float x, y;
};

// A picture being painted: linear floats, y growing downward (row 0 is the top).
class Canvas {
 public:
  Canvas(int w, int h) : w_(w), h_(h), px_(size_t(w) * size_t(h)) {}
  int W() const { return w_; }
  int H() const { return h_; }
  Col& At(int x, int y) { return px_[size_t(y) * size_t(w_) + size_t(x)]; }
  Col Get(int x, int y) const {
    x = std::clamp(x, 0, w_ - 1), y = std::clamp(y, 0, h_ - 1);
    return px_[size_t(y) * size_t(w_) + size_t(x)];
  }
  void Blend(int x, int y, Col c, float a) {
    if (x < 0 || y < 0 || x >= w_ || y >= h_ || a <= 0) return;
    Col& p = At(x, y);
    p = Mix(p, c, std::min(a, 1.0f));
  }

  // Every pixel from a function of its position.
  void Shade(const std::function<Col(int x, int y)>& f) {
    for (int y = 0; y < h_; ++y)
      for (int x = 0; x < w_; ++x) At(x, y) = f(x, y);
  }

  // Fills a polygon (any winding, even-odd) with anti-aliased edges: four sub-rows per row,
  // exact coverage across each row.
  void Poly(const std::vector<Pt>& pts, const std::function<Col(int x, int y)>& colour,
            float alpha = 1) {
    if (pts.size() < 3) return;
    float minY = pts[0].y, maxY = pts[0].y;
    for (const Pt& p : pts) minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
    const int y0 = std::max(0, int(std::floor(minY))), y1 = std::min(h_ - 1, int(maxY));
    std::vector<float> cover(size_t(w_) + 2);
    std::vector<float> xs;
    for (int y = y0; y <= y1; ++y) {
      std::fill(cover.begin(), cover.end(), 0.0f);
      int lo = w_, hi = -1;
      for (int sub = 0; sub < 4; ++sub) {
        const float sy = float(y) + 0.125f + 0.25f * float(sub);
        xs.clear();
        for (size_t i = 0; i < pts.size(); ++i) {
          const Pt& a = pts[i];
          const Pt& b = pts[(i + 1) % pts.size()];
          if ((a.y <= sy && b.y > sy) || (b.y <= sy && a.y > sy))
            xs.push_back(a.x + (sy - a.y) / (b.y - a.y) * (b.x - a.x));
        }
        std::sort(xs.begin(), xs.end());
        for (size_t i = 0; i + 1 < xs.size(); i += 2) {
          const float xa = std::max(0.0f, xs[i]), xb = std::min(float(w_), xs[i + 1]);
          if (xb <= xa) continue;
          const int ia = int(xa), ib = std::min(w_ - 1, int(xb));
          lo = std::min(lo, ia), hi = std::max(hi, ib);
          if (ia == ib) {
            cover[size_t(ia)] += (xb - xa) * 0.25f;
            continue;
          }
          cover[size_t(ia)] += (float(ia + 1) - xa) * 0.25f;
          for (int x = ia + 1; x < ib; ++x) cover[size_t(x)] += 0.25f;
          cover[size_t(ib)] += (xb - float(ib)) * 0.25f;
        }
      }
      for (int x = lo; x <= hi; ++x)
        if (cover[size_t(x)] > 0) Blend(x, y, colour(x, y), cover[size_t(x)] * alpha);
    }
  }
  void Poly(const std::vector<Pt>& pts, Col c, float alpha = 1) {
    Poly(pts, [c](int, int) { return c; }, alpha);
  }

  // A filled ellipse with a soft rim.
  void Ellipse(float cx, float cy, float rx, float ry, const std::function<Col(int, int)>& colour,
               float alpha = 1) {
    const int x0 = std::max(0, int(cx - rx - 1)), x1 = std::min(w_ - 1, int(cx + rx + 1));
    const int y0 = std::max(0, int(cy - ry - 1)), y1 = std::min(h_ - 1, int(cy + ry + 1));
    const float r = std::min(rx, ry);
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const float dx = (float(x) + 0.5f - cx) / rx, dy = (float(y) + 0.5f - cy) / ry;
        const float d = (1 - std::sqrt(dx * dx + dy * dy)) * r;  // pixels inside the rim
        if (d > -0.5f) Blend(x, y, colour(x, y), Clamp01(d + 0.5f) * alpha);
      }
  }
  void Ellipse(float cx, float cy, float rx, float ry, Col c, float alpha = 1) {
    Ellipse(cx, cy, rx, ry, [c](int, int) { return c; }, alpha);
  }

  // A thick line, as a quad tapering from width w0 to w1.
  void Line(Pt a, Pt b, float w0, float w1, Col c) {
    const float dx = b.x - a.x, dy = b.y - a.y, len = std::sqrt(dx * dx + dy * dy);
    if (len <= 0) return;
    const float nx = -dy / len * 0.5f, ny = dx / len * 0.5f;
    Poly({{a.x + nx * w0, a.y + ny * w0}, {b.x + nx * w1, b.y + ny * w1},
          {b.x - nx * w1, b.y - ny * w1}, {a.x - nx * w0, a.y - ny * w0}},
         c);
  }

  // Copies the picture into a 32-bit bitmap (rows bottom-up there); false when it can't be had.
  bool ToBitMap(QBitMap* bm) const {
    if (!bm->Alloc(32, w_, h_)) return false;
    uint8_t* out = bm->GetBuffer();
    for (int y = 0; y < h_; ++y) {
      uint8_t* row = out + size_t(h_ - 1 - y) * size_t(w_) * 4;
      for (int x = 0; x < w_; ++x) {
        const Col c = px_[size_t(y) * size_t(w_) + size_t(x)];
        row[x * 4 + 0] = uint8_t(std::lround(Clamp01(c.r / 255.0f) * 255));
        row[x * 4 + 1] = uint8_t(std::lround(Clamp01(c.g / 255.0f) * 255));
        row[x * 4 + 2] = uint8_t(std::lround(Clamp01(c.b / 255.0f) * 255));
        row[x * 4 + 3] = 255;
      }
    }
    return true;
  }

 private:
  int w_, h_;
  std::vector<Col> px_;
};

// ---------------------------------------------------------------------------------------------
// Scenery
// ---------------------------------------------------------------------------------------------

struct Sun {
  float x, y, r;
  Col colour;
  float glow;  // 0 none .. 1 strong
};

// Sky from zenith to horizon colour, a sun with its glow, and soft clouds.
void Sky(Canvas& c, Col zenith, Col horizon, float horizonY, const Sun& sun, float clouds,
         Col cloudColour, uint32_t seed) {
  const float scale = float(c.H());
  c.Shade([&](int x, int y) {
    const float t = Clamp01(float(y) / horizonY);
    Col col = Mix(zenith, horizon, std::pow(t, 1.6f));
    const float dx = float(x) - sun.x, dy = float(y) - sun.y;
    const float d = std::sqrt(dx * dx + dy * dy);
    col = Mix(col, sun.colour, sun.glow * std::exp(-d / (sun.r * 5.0f)) * 0.8f);
    if (clouds > 0) {
      const float n = Fbm(float(x) / scale * 3.0f, float(y) / scale * 9.0f, seed);
      const float a = Smooth(1 - clouds, 1 - clouds + 0.25f, n) * (1 - t * 0.6f);
      const Col lit = Mix(cloudColour, sun.colour, 0.25f * std::exp(-d / (sun.r * 8.0f)));
      col = Mix(col, Scale(lit, 0.85f + 0.3f * n), a * 0.85f);
    }
    return col;
  });
  c.Ellipse(sun.x, sun.y, sun.r, sun.r, sun.colour);
}

// A range of hills: the ridge line follows noise around baseY; the body is textured and fades
// into `haze` with distance.
void Hills(Canvas& c, float baseY, float amp, float freq, Col colour, Col haze, float hazeAmt,
           uint32_t seed, bool snow = false) {
  std::vector<Pt> pts;
  const float w = float(c.W());
  for (int x = 0; x <= c.W(); x += 4) {
    const float n = Fbm(float(x) / w * freq, 0.5f, seed, 6);
    pts.push_back({float(x), baseY - (n - 0.3f) * amp});
  }
  pts.push_back({w, float(c.H()) + 1});
  pts.push_back({0, float(c.H()) + 1});
  const float scale = float(c.H());
  c.Poly(pts, [&](int x, int y) {
    const float n = Fbm(float(x) / scale * 40, float(y) / scale * 40, seed + 7, 3);
    Col col = Scale(colour, 0.75f + 0.5f * n);
    if (snow) {
      const float ridge = baseY - (Fbm(float(x) / w * freq, 0.5f, seed, 6) - 0.3f) * amp;
      const float depth = (float(y) - ridge) / amp;
      const float s = Smooth(0.35f, 0.15f, depth + (n - 0.5f) * 0.3f);
      col = Mix(col, Col{240, 243, 250}, s);
    }
    return Mix(col, haze, hazeAmt);
  });
}

// Water below waterY: the scene above it mirrored, rippled, and tinted.
void Water(Canvas& c, float waterY, Col tint, float tintAmt, uint32_t seed) {
  const int wy = int(waterY);
  const float scale = float(c.H());
  for (int y = wy; y < c.H(); ++y) {
    const float depth = float(y - wy) / float(c.H() - wy + 1);
    for (int x = 0; x < c.W(); ++x) {
      const float ripple = (Noise(float(x) / scale * 6, float(y) / scale * 120, seed) - 0.5f);
      const int sx = x + int(ripple * 14 * (0.3f + depth));
      const int sy = 2 * wy - y - 1 + int(ripple * 6);
      Col col = c.Get(sx, std::max(0, sy));
      const float wave = Noise(float(x) / scale * 30, float(y) / scale * 200, seed + 3);
      col = Mix(col, tint, std::min(1.0f, tintAmt + depth * 0.35f));
      c.At(x, y) = Scale(col, 0.8f + 0.35f * wave);
    }
  }
}

void House(Canvas& c, float x, float groundY, float w, float h, Col wall, Col roof,
           uint32_t seed, Col window = {60, 70, 90}) {
  const float roofH = h * 0.45f;
  const float scale = float(c.H());
  c.Poly({{x, groundY - h}, {x + w, groundY - h}, {x + w, groundY}, {x, groundY}},
         [&](int px, int py) {
           return Scale(wall, 0.9f + 0.15f * Noise(float(px) / scale * 300,
                                                   float(py) / scale * 300, seed));
         });
  c.Poly({{x - w * 0.08f, groundY - h}, {x + w * 0.5f, groundY - h - roofH},
          {x + w * 1.08f, groundY - h}},
         [&](int px, int py) {
           const float stripe = std::fmod(float(py) / std::max(2.0f, h * 0.06f), 1.0f);
           return Scale(roof, 0.8f + 0.25f * stripe +
                                  0.1f * Noise(float(px) / scale * 200, 0.3f, seed + 1));
         });
  c.Line({x + w * 0.5f, groundY - h - roofH}, {x + w * 1.02f, groundY - h}, 2, 2,
         Scale(roof, 0.6f));
  const int cols = std::max(1, int(w / (h * 0.35f)));
  const float ww = w / float(cols) * 0.4f, wh = h * 0.22f;
  for (int i = 0; i < cols; ++i) {
    const float cx = x + w * (float(i) + 0.5f) / float(cols);
    for (int row = 0; row < 2; ++row) {
      const float top = groundY - h * (row == 0 ? 0.85f : 0.45f);
      if (row == 1 && i == cols / 2) continue;  // the door goes there
      c.Poly({{cx - ww / 2, top}, {cx + ww / 2, top}, {cx + ww / 2, top + wh}, {cx - ww / 2, top + wh}},
             window);
      c.Line({cx - ww / 2 - 1, top}, {cx + ww / 2 + 1, top}, 2, 2, Scale(wall, 1.15f));
    }
  }
  const float dx = x + w * (float(cols / 2) + 0.5f) / float(cols);
  c.Poly({{dx - ww / 2, groundY - h * 0.4f}, {dx + ww / 2, groundY - h * 0.4f}, {dx + ww / 2, groundY},
          {dx - ww / 2, groundY}},
         Scale(roof, 0.55f));
}

void Pine(Canvas& c, float x, float groundY, float h, Col green, uint32_t seed) {
  c.Line({x, groundY}, {x, groundY - h * 0.3f}, h * 0.05f, h * 0.04f, {70, 50, 35});
  const int layers = 5;
  const float scale = float(c.H());
  for (int i = 0; i < layers; ++i) {
    const float t = float(i) / layers;
    const float top = groundY - h * (0.35f + 0.65f * (t + 1.0f / layers));
    const float bot = groundY - h * (0.15f + 0.6f * t);
    const float half = h * 0.24f * (1 - t * 0.7f);
    c.Poly({{x, top}, {x + half, bot}, {x + half * 0.3f, bot - h * 0.03f}, {x - half * 0.3f, bot - h * 0.03f},
            {x - half, bot}},
           [&](int px, int py) {
             const float n = Noise(float(px) / scale * 250, float(py) / scale * 250, seed);
             const float side = (float(px) - x) / (half + 1);
             return Scale(green, 0.75f + 0.3f * n + 0.2f * side);
           });
  }
}

void LeafTree(Canvas& c, float x, float groundY, float h, Col green, uint32_t seed) {
  c.Line({x, groundY}, {x, groundY - h * 0.55f}, h * 0.08f, h * 0.05f, {80, 58, 40});
  Rng rng{seed};
  const float scale = float(c.H());
  for (int i = 0; i < 9; ++i) {
    const float cx = x + rng.Range(-0.22f, 0.22f) * h, cy = groundY - h * rng.Range(0.5f, 0.85f);
    const float r = h * rng.Range(0.14f, 0.22f);
    c.Ellipse(cx, cy, r, r * 0.9f, [&](int px, int py) {
      const float n = Fbm(float(px) / scale * 120, float(py) / scale * 120, seed + 5, 3);
      const float light = (cy - float(py)) / r * 0.15f + (float(px) - cx) / r * 0.1f;
      return Scale(green, 0.7f + 0.5f * n + light);
    });
  }
}

// A leafless tree: recursive branches, dark against snow.
void BareTree(Canvas& c, Pt base, float len, float angle, float width, int depth, Rng& rng,
              Col bark) {
  const Pt tip{base.x + std::sin(angle) * len, base.y - std::cos(angle) * len};
  c.Line(base, tip, width, width * 0.7f, bark);
  if (depth == 0 || width < 0.8f) return;
  const int forks = 2 + (rng.Next() < 0.35f ? 1 : 0);
  for (int i = 0; i < forks; ++i) {
    const float a = angle + rng.Range(-0.7f, 0.7f) + (i - (forks - 1) * 0.5f) * 0.35f;
    BareTree(c, tip, len * rng.Range(0.62f, 0.8f), a, width * 0.62f, depth - 1, rng, bark);
  }
}

void Boat(Canvas& c, float x, float waterY, float len, Col hull, bool sail) {
  const float h = len * 0.18f;
  c.Poly({{x, waterY - h}, {x + len, waterY - h}, {x + len * 0.85f, waterY}, {x + len * 0.12f, waterY}},
         hull);
  c.Line({x, waterY - h}, {x + len, waterY - h}, 2, 2, Scale(hull, 0.6f));
  c.Poly({{x + len * 0.05f, waterY + 1}, {x + len * 0.95f, waterY + 1}, {x + len * 0.8f, waterY + h * 0.5f},
          {x + len * 0.2f, waterY + h * 0.5f}},
         {20, 30, 40}, 0.35f);
  if (sail) {
    const float mx = x + len * 0.45f;
    c.Line({mx, waterY - h}, {mx, waterY - h - len * 1.1f}, 3, 2, {90, 80, 70});
    c.Poly({{mx + 3, waterY - h - len * 1.05f}, {mx + len * 0.5f, waterY - h - 4}, {mx + 3, waterY - h - 4}},
           {245, 240, 228});
    c.Poly({{mx - 3, waterY - h - len * 0.9f}, {mx - 3, waterY - h - 4}, {mx - len * 0.35f, waterY - h - 4}},
           {235, 228, 215});
  } else {
    c.Poly({{x + len * 0.55f, waterY - h - len * 0.22f}, {x + len * 0.85f, waterY - h - len * 0.22f},
            {x + len * 0.85f, waterY - h}, {x + len * 0.55f, waterY - h}},
           {230, 230, 225});
  }
}

void Gull(Canvas& c, float x, float y, float s) {
  c.Line({x - s, y - s * 0.3f}, {x, y + s * 0.15f}, 2.5f, 2, {50, 50, 60});
  c.Line({x, y + s * 0.15f}, {x + s, y - s * 0.35f}, 2, 2.5f, {50, 50, 60});
}

// ---------------------------------------------------------------------------------------------
// Scenes (each painted upright)
// ---------------------------------------------------------------------------------------------

const Col kHouseWalls[] = {{200, 70, 55}, {230, 190, 90}, {235, 232, 220}, {90, 130, 170},
                           {215, 140, 80}, {150, 170, 120}};
const Col kRoofs[] = {{120, 45, 35}, {70, 60, 60}, {140, 60, 40}};

void Harbour(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), wl = H * 0.64f;
  Sky(c, {60, 115, 195}, {235, 215, 185}, wl, {W * 0.78f, H * 0.2f, H * 0.04f, {255, 245, 215}, 0.8f},
      0.45f, {250, 250, 250}, 11);
  Hills(c, H * 0.55f, H * 0.12f, 3, {95, 120, 140}, {185, 195, 205}, 0.45f, 21);
  Hills(c, H * 0.6f, H * 0.1f, 5, {70, 105, 60}, {150, 170, 180}, 0.15f, 22);
  // The quay along the left with its row of houses.
  c.Poly({{0, wl - H * 0.035f}, {W * 0.62f, wl - H * 0.035f}, {W * 0.64f, wl}, {0, wl}}, {120, 115, 105});
  Rng rng{5};
  float x = W * 0.01f;
  int i = 0;
  while (x < W * 0.58f) {
    const float w = W * rng.Range(0.05f, 0.075f), h = H * rng.Range(0.08f, 0.12f);
    House(c, x, wl - H * 0.035f, w, h, kHouseWalls[i % 6], kRoofs[i % 3], uint32_t(30 + i));
    x += w + W * rng.Range(0.004f, 0.012f);
    ++i;
  }
  LeafTree(c, W * 0.6f, wl - H * 0.035f, H * 0.12f, {60, 110, 50}, 3);
  Water(c, wl, {30, 70, 110}, 0.35f, 41);
  Boat(c, W * 0.66f, H * 0.74f, W * 0.12f, {240, 240, 235}, true);
  Boat(c, W * 0.3f, H * 0.8f, W * 0.1f, {180, 50, 40}, false);
  Boat(c, W * 0.82f, H * 0.9f, W * 0.09f, {40, 80, 140}, true);
  // Dark stone pier in the foreground.
  c.Poly({{0, H * 0.93f}, {W * 0.45f, H * 0.95f}, {W * 0.47f, H}, {0, H}}, [&](int px, int py) {
    return Scale(Col{80, 75, 70}, 0.6f + 0.5f * Fbm(float(px) / H * 30, float(py) / H * 30, 9, 3));
  });
  Gull(c, W * 0.4f, H * 0.18f, H * 0.02f);
  Gull(c, W * 0.46f, H * 0.22f, H * 0.015f);
}

void Lighthouse(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), wl = H * 0.6f;
  Sky(c, {45, 100, 190}, {200, 225, 240}, wl, {W * 0.2f, H * 0.12f, H * 0.03f, {255, 250, 230}, 0.7f},
      0.5f, {252, 252, 252}, 12);
  Water(c, wl, {25, 75, 120}, 0.55f, 42);
  // The headland on the right, up to the tower's foot.
  std::vector<Pt> rock{{W * 0.3f, H}, {W * 0.38f, H * 0.78f}, {W * 0.5f, H * 0.66f}, {W * 0.62f, H * 0.55f},
                       {W * 0.8f, H * 0.52f}, {W, H * 0.53f}, {W, H}};
  c.Poly(rock, [&](int px, int py) {
    const float n = Fbm(float(px) / H * 12, float(py) / H * 12, 13);
    return Mix(Col{95, 85, 75}, Col{60, 95, 50}, Smooth(0.64f, 0.56f, float(py) / H + n * 0.05f));
  });
  c.Poly(rock, [&](int px, int py) {
    return Scale(Col{40, 35, 30}, Fbm(float(px) / H * 40, float(py) / H * 40, 14, 3));
  }, 0.45f);
  const float tx = W * 0.72f, base = H * 0.53f, th = H * 0.33f;
  const float bw = W * 0.09f, tw = W * 0.06f;
  for (int band = 0; band < 6; ++band) {
    const float t0 = float(band) / 6, t1 = float(band + 1) / 6;
    const float y0 = base - th * t0, y1 = base - th * t1;
    const float w0 = bw + (tw - bw) * t0, w1 = bw + (tw - bw) * t1;
    const Col colour = band % 2 ? Col{200, 40, 40} : Col{245, 245, 240};
    c.Poly({{tx - w0 / 2, y0}, {tx + w0 / 2, y0}, {tx + w1 / 2, y1}, {tx - w1 / 2, y1}},
           [&](int px, int) { return Scale(colour, 1.05f - 0.35f * (float(px) - (tx - w0 / 2)) / w0); });
  }
  const float top = base - th;
  c.Poly({{tx - tw * 0.7f, top}, {tx + tw * 0.7f, top}, {tx + tw * 0.7f, top + H * 0.008f},
          {tx - tw * 0.7f, top + H * 0.008f}},
         {40, 40, 45});
  c.Poly({{tx - tw * 0.4f, top}, {tx + tw * 0.4f, top}, {tx + tw * 0.4f, top - H * 0.035f},
          {tx - tw * 0.4f, top - H * 0.035f}},
         {255, 230, 140});
  c.Poly({{tx - tw * 0.5f, top - H * 0.035f}, {tx, top - H * 0.06f}, {tx + tw * 0.5f, top - H * 0.035f}},
         {150, 30, 30});
  c.Ellipse(tx, top - H * 0.018f, W * 0.07f, H * 0.022f, {255, 235, 160}, 0.15f);
  House(c, W * 0.8f, base, W * 0.12f, H * 0.05f, {240, 238, 230}, {150, 40, 35}, 15);
  Boat(c, W * 0.12f, H * 0.68f, W * 0.13f, {250, 250, 245}, true);
  Gull(c, W * 0.45f, H * 0.25f, H * 0.012f);
  Gull(c, W * 0.52f, H * 0.29f, H * 0.009f);
  Gull(c, W * 0.36f, H * 0.31f, H * 0.01f);
}

void SunsetLake(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), wl = H * 0.6f;
  Sky(c, {35, 35, 95}, {255, 150, 70}, wl, {W * 0.42f, wl - H * 0.06f, H * 0.06f, {255, 215, 140}, 1.0f},
      0.35f, {230, 120, 110}, 13);
  Hills(c, wl - H * 0.02f, H * 0.09f, 4, {110, 60, 90}, {220, 120, 100}, 0.35f, 23);
  Hills(c, wl + H * 0.005f, H * 0.05f, 7, {60, 35, 55}, {150, 80, 80}, 0.2f, 24);
  Water(c, wl, {60, 40, 70}, 0.2f, 43);
  // Dark shore with reeds and pines in front.
  c.Poly({{0, H * 0.86f}, {W * 0.3f, H * 0.88f}, {W * 0.6f, H * 0.93f}, {W, H * 0.9f}, {W, H}, {0, H}},
         {25, 18, 25});
  Rng rng{17};
  for (int i = 0; i < 140; ++i) {
    const float x = rng.Range(0, W), base = H * rng.Range(0.9f, 1.0f);
    c.Line({x, base}, {x + rng.Range(-8, 8), base - H * rng.Range(0.04f, 0.1f)}, 3, 1, {20, 14, 20});
  }
  for (int i = 0; i < 5; ++i)
    Pine(c, W * (0.02f + 0.045f * float(i)), H * (0.9f + 0.01f * float(i % 2)),
         H * (0.45f - 0.04f * float(i)), {22, 20, 28}, uint32_t(50 + i));
  Pine(c, W * 0.93f, H * 0.92f, H * 0.35f, {22, 20, 28}, 56);
  Gull(c, W * 0.6f, H * 0.3f, H * 0.014f);
}

void Forest(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), ground = H * 0.68f;
  Sky(c, {90, 150, 210}, {225, 235, 230}, ground, {W * 0.7f, H * 0.1f, H * 0.025f, {255, 250, 225}, 0.9f},
      0.3f, {255, 255, 255}, 14);
  Hills(c, ground - H * 0.05f, H * 0.08f, 3, {120, 150, 140}, {200, 215, 215}, 0.4f, 25);
  Rng rng{3};
  // Rows of pines, farther ones paler in the morning haze.
  for (int row = 0; row < 3; ++row) {
    const float haze = 0.55f - 0.25f * float(row);
    const Col green = Mix(Col{35, 80, 45}, Col{190, 210, 205}, haze);
    const float gy = ground + H * 0.02f * float(row);
    for (int i = 0; i < 9 + row * 2; ++i) {
      const float x = rng.Range(-0.05f, 1.05f) * W;
      Pine(c, x, gy, H * rng.Range(0.3f, 0.45f) * (0.8f + 0.25f * float(row)), green,
           uint32_t(row * 20 + i));
    }
  }
  // The meadow with grass texture and flowers.
  c.Poly({{0, ground + H * 0.03f}, {W, ground + H * 0.05f}, {W, H}, {0, H}}, [&](int px, int py) {
    const float n = Fbm(float(px) / H * 60, float(py) / H * 15, 15, 4);
    const float depth = (float(py) - ground) / (H - ground);
    return Scale(Mix(Col{120, 160, 70}, Col{50, 90, 35}, depth), 0.7f + 0.6f * n);
  });
  House(c, W * 0.2f, ground + H * 0.1f, W * 0.22f, H * 0.07f, {160, 45, 35}, {60, 55, 55}, 16,
        {240, 235, 220});
  LeafTree(c, W * 0.08f, ground + H * 0.2f, H * 0.22f, {70, 120, 45}, 4);
  for (int i = 0; i < 400; ++i) {
    const float x = rng.Range(0, W), y = rng.Range(ground + H * 0.12f, H);
    const Col f = i % 3 == 0 ? Col{250, 240, 120} : (i % 3 == 1 ? Col{250, 250, 250} : Col{200, 90, 160});
    const float r = 1.5f + 4 * (y - ground) / (H - ground);
    c.Ellipse(x, y, r, r, f);
  }
  Pine(c, W * 0.88f, H * 1.02f, H * 0.75f, {28, 60, 35}, 99);
}

void Mountains(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), wl = H * 0.7f;
  Sky(c, {50, 110, 200}, {205, 225, 245}, H * 0.5f, {W * 0.15f, H * 0.14f, H * 0.035f, {255, 252, 235}, 0.6f},
      0.4f, {255, 255, 255}, 15);
  Hills(c, H * 0.35f, H * 0.42f, 5, {105, 100, 110}, {190, 205, 225}, 0.2f, 26, true);
  Hills(c, H * 0.58f, H * 0.15f, 4, {50, 85, 55}, {150, 175, 190}, 0.2f, 27);
  Water(c, wl, {40, 95, 120}, 0.3f, 44);
  c.Poly({{0, H * 0.82f}, {W * 0.5f, H * 0.8f}, {W, H * 0.84f}, {W, H}, {0, H}}, [&](int px, int py) {
    return Scale(Col{85, 130, 55}, 0.65f + 0.6f * Fbm(float(px) / H * 50, float(py) / H * 20, 16, 4));
  });
  Rng rng{8};
  for (int i = 0; i < 4; ++i) {
    const float x = W * (0.45f + 0.09f * float(i)), gy = H * 0.83f;
    House(c, x, gy, W * rng.Range(0.05f, 0.07f), H * rng.Range(0.06f, 0.08f), kHouseWalls[(i + 2) % 6],
          kRoofs[i % 3], uint32_t(60 + i));
  }
  for (int i = 0; i < 6; ++i) Pine(c, W * rng.Range(0, 0.4f), H * rng.Range(0.86f, 0.98f), H * 0.22f, {30, 70, 40}, uint32_t(70 + i));
}

void Panorama(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), wl = H * 0.62f;
  Sky(c, {70, 130, 205}, {240, 220, 190}, wl, {W * 0.55f, H * 0.22f, H * 0.05f, {255, 245, 210}, 0.8f},
      0.4f, {255, 255, 255}, 16);
  Hills(c, H * 0.5f, H * 0.25f, 8, {100, 120, 145}, {190, 200, 215}, 0.45f, 28);
  // Cliffs on the left, a beach on the right.
  Hills(c, H * 0.56f, H * 0.18f, 10, {75, 110, 60}, {160, 180, 185}, 0.1f, 29);
  Water(c, wl, {30, 90, 130}, 0.4f, 45);
  c.Poly({{W * 0.55f, H}, {W * 0.62f, H * 0.8f}, {W * 0.8f, H * 0.74f}, {W, H * 0.72f}, {W, H}},
         [&](int px, int py) {
           return Scale(Col{225, 205, 160}, 0.85f + 0.25f * Fbm(float(px) / H * 40, float(py) / H * 40, 17, 3));
         });
  Rng rng{9};
  float x = W * 0.63f;
  int i = 0;
  while (x < W * 0.97f) {
    const float w = H * rng.Range(0.1f, 0.15f), h = H * rng.Range(0.09f, 0.13f);
    // On the sand: its edge runs from (0.62 W, 0.8 H) to (0.8 W, 0.74 H) to (W, 0.72 H).
    const float right = (x + w) / W;
    const float edge = right < 0.8f ? 0.8f - (right - 0.62f) / 0.18f * 0.06f
                                    : 0.74f - (right - 0.8f) / 0.2f * 0.02f;
    const float gy = H * (edge + 0.03f);
    House(c, x, gy, w, h, kHouseWalls[i % 6], kRoofs[(i + 1) % 3], uint32_t(80 + i));
    if (i % 3 == 2) LeafTree(c, x + w + H * 0.02f, gy, H * 0.14f, {70, 120, 50}, uint32_t(90 + i));
    x += w + H * rng.Range(0.03f, 0.09f);
    ++i;
  }
  for (int b = 0; b < 4; ++b)
    Boat(c, W * (0.12f + 0.11f * float(b)), H * (0.7f + 0.06f * float(b % 2)), H * 0.12f,
         b % 2 ? Col{190, 60, 40} : Col{245, 245, 240}, b != 1);
  for (int g = 0; g < 5; ++g) Gull(c, W * (0.3f + 0.04f * float(g)), H * (0.15f + 0.03f * float(g % 2)), H * 0.012f);
}

void Winter(Canvas& c) {
  const float W = float(c.W()), H = float(c.H()), ground = H * 0.62f;
  Sky(c, {150, 165, 190}, {235, 238, 242}, ground, {W * 0.75f, H * 0.25f, H * 0.03f, {255, 255, 250}, 0.4f},
      0.55f, {250, 250, 252}, 17);
  Hills(c, ground - H * 0.04f, H * 0.08f, 3, {70, 75, 85}, {190, 195, 205}, 0.35f, 30);
  // Snow: bright, with drifts and fine grain.
  c.Poly({{0, ground}, {W * 0.3f, ground - H * 0.02f}, {W * 0.7f, ground + H * 0.01f}, {W, ground - H * 0.01f},
          {W, H}, {0, H}},
         [&](int px, int py) {
           const float drift = Fbm(float(px) / H * 4, float(py) / H * 12, 18, 4);
           const float grain = Noise(float(px) * 0.7f, float(py) * 0.7f, 19);
           return Scale(Col{238, 242, 250}, 0.78f + 0.25f * drift + 0.06f * grain);
         });
  // A dark river winding across the foreground.
  std::vector<Pt> river;
  for (int i = 0; i <= 64; ++i) {
    const float x = W * float(i) / 64;
    river.push_back({x, H * (0.83f + 0.03f * std::sin(x / W * 5.0f + 0.5f))});
  }
  for (int i = 64; i >= 0; --i) {
    const float x = W * float(i) / 64;
    river.push_back({x, H * (0.89f + 0.035f * std::sin(x / W * 5.0f + 0.9f))});
  }
  c.Poly(river, [&](int px, int py) {
    return Scale(Col{35, 40, 50}, 0.6f + 0.8f * Fbm(float(px) / H * 20, float(py) / H * 80, 20, 4));
  });
  // Cabins of dark timber with lit windows.
  for (int i = 0; i < 2; ++i) {
    const float x = W * (0.52f + 0.2f * float(i)), gy = ground + H * 0.03f;
    const float w = W * 0.14f, h = H * 0.1f;
    House(c, x, gy, w, h, {55, 40, 30}, {235, 238, 245}, uint32_t(100 + i), {255, 210, 120});
    for (int l = 1; l < 6; ++l)
      c.Line({x, gy - h * float(l) / 6}, {x + w, gy - h * float(l) / 6}, 1.5f, 1.5f, {30, 20, 15});
  }
  Rng rng{21};
  for (int i = 0; i < 6; ++i) {
    const float x = W * (0.05f + 0.16f * float(i)) + rng.Range(-20, 20);
    const float base = ground + H * rng.Range(0.05f, 0.14f);
    BareTree(c, {x, base}, H * rng.Range(0.12f, 0.18f), rng.Range(-0.1f, 0.1f), H * 0.016f, 7, rng,
             {25, 22, 20});
  }
  // A fence along the bank.
  for (int i = 0; i < 24; ++i) {
    const float x = W * 0.02f + float(i) * W * 0.04f, y = H * 0.76f - float(i) * H * 0.002f;
    c.Line({x, y}, {x, y - H * 0.05f}, 6, 5, {30, 25, 22});
  }
  c.Line({W * 0.02f, H * 0.74f}, {W * 0.94f, H * 0.74f - H * 0.046f}, 4, 4, {30, 25, 22});
  c.Line({W * 0.02f, H * 0.725f}, {W * 0.94f, H * 0.725f - H * 0.046f}, 4, 4, {30, 25, 22});
  // Falling snow.
  for (int i = 0; i < 700; ++i) {
    const float r = rng.Range(1.0f, 3.5f);
    c.Ellipse(rng.Range(0, W), rng.Range(0, H), r, r, {255, 255, 255}, 0.8f);
  }
}

// ---------------------------------------------------------------------------------------------
// Output
// ---------------------------------------------------------------------------------------------

bool ReadWhole(const std::string& path, std::vector<uint8_t>* out) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path.c_str(), "rb"), fclose);
  if (!f) return false;
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f.get())) > 0) out->insert(out->end(), buf, buf + n);
  return !ferror(f.get());
}

bool WriteWhole(const std::string& path, const std::vector<uint8_t>& data) {
  std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path.c_str(), "wb"), fclose);
  if (!f) return false;
  const bool ok = fwrite(data.data(), 1, data.size(), f.get()) == data.size();
  return fclose(f.release()) == 0 && ok;
}

// Puts the orientation segment right after the JPEG's start marker.
bool InsertOrientation(const std::string& path, uint16_t orientation) {
  std::vector<uint8_t> jpg;
  if (!ReadWhole(path, &jpg) || jpg.size() < 4 || jpg[0] != 0xFF || jpg[1] != 0xD8) {
    fprintf(stderr, "glimra-demopics: '%s' is not a JPEG file\n", path.c_str());
    return false;
  }
  uint8_t seg[QExif::ORIENTATION_SEGMENT_SIZE];
  QExif::WriteOrientationSegment(orientation, seg);
  jpg.insert(jpg.begin() + 2, seg, seg + sizeof(seg));
  if (!WriteWhole(path, jpg)) {
    fprintf(stderr, "glimra-demopics: can't write '%s'\n", path.c_str());
    return false;
  }
  return true;
}

struct Picture {
  const char* name;
  int width, height;  // as seen upright
  int orientation;    // EXIF value written; 0 writes none
  void (*paint)(Canvas&);
};

// The stored pixels are the upright picture turned back: the viewer turns 3 by a half turn,
// 6 a quarter clockwise and 8 a quarter anticlockwise.
const Picture kPictures[] = {
    {"01-harbour.jpg", 1600, 1200, 1, Harbour},
    {"02-lighthouse.jpg", 1200, 1600, 6, Lighthouse},
    {"03-sunset-lake.jpg", 1600, 1200, 3, SunsetLake},
    {"04-forest-meadow.jpg", 1200, 1600, 8, Forest},
    {"05-alpine-lake.tga", 1500, 1000, 0, Mountains},
    {"06-coast-panorama.jpg", 3200, 800, 0, Panorama},
    {"07-winter-river.jpg", 1600, 1200, 0, Winter},
};

bool MakePicture(const std::string& folder, const Picture& p, int quality) {
  Canvas canvas(p.width, p.height);
  p.paint(canvas);
  QBitMap upright;
  upright.SetName(p.name);
  if (!canvas.ToBitMap(&upright)) {
    fprintf(stderr, "glimra-demopics: no memory for '%s'\n", p.name);
    return false;
  }
  const int angle = p.orientation == 3 ? 180 : p.orientation == 6 ? 270 : p.orientation == 8 ? 90 : 0;
  const bool quarter = angle == 90 || angle == 270;
  QBitMap stored(32, quarter ? p.height : p.width, quarter ? p.width : p.height);
  if (!stored.GetBuffer() || !upright.Rotate(angle, nullptr, &stored, nullptr)) {
    fprintf(stderr, "glimra-demopics: can't turn '%s'\n", p.name);
    return false;
  }
  const std::string path = folder + "/" + p.name;
  const bool tga = strstr(p.name, ".tga") != nullptr;
  if (!stored.Write(path.c_str(), tga ? 1 : 3, quality)) {
    fprintf(stderr, "glimra-demopics: can't write '%s'\n", path.c_str());
    return false;
  }
  if (!tga && p.orientation > 0 && !InsertOrientation(path, uint16_t(p.orientation))) return false;
  printf("%s\n", path.c_str());
  return true;
}

void Usage(FILE* out) {
  fprintf(out,
          "usage: glimra-demopics FOLDER\n"
          "Paints the demo pictures into FOLDER (made when missing), replacing files of the same\n"
          "names, and prints each path written:\n");
  for (const Picture& p : kPictures) {
    fprintf(out, "  %-24s %4d x %-4d", p.name, p.width, p.height);
    if (p.orientation) fprintf(out, "  EXIF orientation %d", p.orientation);
    fprintf(out, "\n");
  }
  fprintf(out,
          "Pictures with orientation 3, 6 or 8 are stored turned, and look upright only in a\n"
          "viewer that applies the orientation. Exit status 0 when every picture was written.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    Usage(stdout);
    return 0;
  }
  if (argc != 2 || argv[1][0] == '-') {
    Usage(stderr);
    return 2;
  }
  std::string folder = argv[1];
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  std::error_code err;
  std::filesystem::create_directories(folder, err);
  if (err) {
    fprintf(stderr, "glimra-demopics: can't create folder '%s': %s\n", folder.c_str(),
            err.message().c_str());
    return 1;
  }
  for (const Picture& p : kPictures)
    if (!MakePicture(folder, p, 90)) return 1;
  return 0;
}
