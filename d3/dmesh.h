// DMesh: the graphics library's mesh as far as the slideshow draws one: polygons of textured
// vertices, each polygon with an optional texture and a texture rectangle.
//
// DefineFlat2D makes the one flat quad the slideshow shows its picture on, centred at (0, 0) in
// the plane z = 0: corners (-w/2, -h/2), (w/2, -h/2), (w/2, h/2), (-w/2, h/2) with texture
// coordinates (0,0), (1,0), (1,1), (0,1) (taken round for a turned picture). A polygon's
// texture rectangle (texels, x and y from the texture's origin) chooses the part of the texture
// those coordinates span; the whole texture is the rectangle (0, 0, texture width, texture
// height). DefineRect makes a quad anywhere in that plane showing a part of the turned texture:
// the blurred background's strips beside the picture, which meet its quad edge to edge.
// Within that rectangle, a texture window (fractions of it; the whole by default)
// chooses the part the quad shows, so a picture can be shown enlarged inside its own quad.
//
// Textures are borrowed: the owner keeps them alive while the mesh can be painted. Paint draws
// with texturing on, blending off and the texels unmodulated, in whatever projection is set
// (QCanvas::Set3D for the slideshow). Main thread only.
#pragma once

#include "framework/qdrawable.h"
#include "framework/qobject.h"

class DTexture;

struct DMeshVertex {
  float x, y, z;
  float u, v;
};

class DMesh : public QObject {
 public:
  static constexpr int MAX_POLYGONS = 1;
  static constexpr int QUAD_VERTICES = 4;

  explicit DMesh(const char* name = nullptr) : QObject(name) {}
  const char* ClassName() const override { return "DMesh"; }

  // Replaces the mesh by one quad of `w` x `h`; false with a warning for a size that is not
  // positive (the mesh is then empty). With `turn` 90, 180 or 270 the texture coordinates go
  // round so that the quad shows the texture turned clockwise by that angle, as QBitMap::Rotate
  // would store it, without copying a pixel; other values show it as stored.
  bool DefineFlat2D(float w, float h, int turn = 0);
  // Replaces the mesh by one quad from (x0, y0) to (x1, y1) showing the part (s0, t0) - (s1, t1)
  // of the texture turned clockwise by `turn` (coordinates 0..1 of the turned texture, t up);
  // false with a warning, the mesh empty, when x1 <= x0 or y1 <= y0.
  bool DefineRect(float x0, float y0, float x1, float y1, float s0, float t0, float s1, float t1,
                  int turn = 0);
  // Moves every vertex by (`dx`, `dy`): a quad beside another one (a portrait pair).
  void Shift(float dx, float dy);
  int GetPolygonCount() const { return polygons_; }
  // Vertex `i` of polygon 0; null outside.
  const DMeshVertex* GetVertex(int i) const;

  // Gives polygon `poly` its texture (may be null: drawn untextured) and texture rectangle.
  // False with a warning for a polygon the mesh does not have.
  bool SetPolygonTexture(int poly, DTexture* texture, const QRect& texRect);
  DTexture* GetPolygonTexture(int poly) const;
  // The part of the texture rectangle the quad shows: from (u0, v0), du x dv of it, in
  // fractions; (0, 0, 1, 1) shows it whole. Kept as given: values outside [0, 1] repeat or
  // clamp as the texture does.
  void SetTextureWindow(float u0, float v0, float du, float dv);

  // Draws the polygons; nothing while OpenGL is unavailable or the mesh is empty.
  // With `weight` below 1 the texture's colours are scaled by it (a fade): drawn over what is
  // there with `add`, else in its place.
  void Paint(float weight = 1.0f, bool add = false) const;

 private:
  int polygons_ = 0;
  DMeshVertex quad_[QUAD_VERTICES] = {};
  DTexture* texture_ = nullptr;
  QRect texRect_;
  float window_[4] = {0.0f, 0.0f, 1.0f, 1.0f};  // u0, v0, du, dv
};
