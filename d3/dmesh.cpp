// DMesh: the flat quad and its painting.
#include "d3/dmesh.h"

#include <GL/gl.h>

#include "d3/dglobal.h"
#include "d3/dtexture.h"
#include "framework/qmessage.h"

bool DMesh::DefineFlat2D(float w, float h, int turn) {
  polygons_ = 0;
  if (!(w > 0.0f) || !(h > 0.0f)) {
    QWARN("DMesh::DefineFlat2D", "DMesh(%s): flat quad size '%gx%g' is empty", GetName(),
          double(w), double(h));
    return false;
  }
  return DefineRect(-w / 2.0f, -h / 2.0f, w / 2.0f, h / 2.0f, 0.0f, 0.0f, 1.0f, 1.0f, turn);
}

bool DMesh::DefineRect(float x0, float y0, float x1, float y1, float s0, float t0, float s1,
                       float t1, int turn) {
  polygons_ = 0;
  if (!(x1 > x0) || !(y1 > y0)) {
    QWARN("DMesh::DefineRect", "DMesh(%s): quad '%g,%g - %g,%g' is empty", GetName(), double(x0),
          double(y0), double(x1), double(y1));
    return false;
  }
  quad_[0] = {x0, y0, 0.0f, s0, t0};
  quad_[1] = {x1, y0, 0.0f, s1, t0};
  quad_[2] = {x1, y1, 0.0f, s1, t1};
  quad_[3] = {x0, y1, 0.0f, s0, t1};
  // A corner at (u, v) of the turned picture shows texel (u', v') of the stored one; in memory
  // order a quarter turn clockwise puts stored (x, y) at (y, W - 1 - x).
  for (DMeshVertex& p : quad_) {
    const float u = p.u, v = p.v;
    if (turn == 90) p.u = 1.0f - v, p.v = u;
    if (turn == 180) p.u = 1.0f - u, p.v = 1.0f - v;
    if (turn == 270) p.u = v, p.v = 1.0f - u;
  }
  polygons_ = 1;
  return true;
}

void DMesh::Shift(float dx, float dy) {
  for (DMeshVertex& p : quad_) p.x += dx, p.y += dy;
}

const DMeshVertex* DMesh::GetVertex(int i) const {
  return polygons_ > 0 && i >= 0 && i < QUAD_VERTICES ? &quad_[i] : nullptr;
}

bool DMesh::SetPolygonTexture(int poly, DTexture* texture, const QRect& texRect) {
  if (poly < 0 || poly >= polygons_) {
    QWARN("DMesh::SetPolygonTexture", "DMesh(%s): no polygon '%d'", GetName(), poly);
    return false;
  }
  texture_ = texture;
  texRect_ = texRect;
  return true;
}

DTexture* DMesh::GetPolygonTexture(int poly) const {
  return poly >= 0 && poly < polygons_ ? texture_ : nullptr;
}

void DMesh::SetTextureWindow(float u0, float v0, float du, float dv) {
  window_[0] = u0, window_[1] = v0, window_[2] = du, window_[3] = dv;
}

void DMesh::Paint(float weight, bool add) const {
  if (polygons_ == 0 || !DGlobal::IsOpenGLAvailable()) return;
  // Texture coordinates span the texture rectangle, in texels of the texture's own size.
  float u0 = 0.0f, v0 = 0.0f, du = 1.0f, dv = 1.0f;
  const bool textured = texture_ && texture_->GetID() != 0;
  if (textured && texture_->GetWidth() > 0 && texture_->GetHeight() > 0 && texRect_.wid > 0 &&
      texRect_.hgt > 0) {
    const float tw = float(texture_->GetWidth()), th = float(texture_->GetHeight());
    u0 = float(texRect_.x) / tw;
    v0 = float(texRect_.y) / th;
    du = float(texRect_.wid) / tw;
    dv = float(texRect_.hgt) / th;
  }
  const bool weighted = weight < 1.0f;
  if (add) {
    glEnable(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE);
  } else {
    glDisable(GL_BLEND);
  }
  if (textured) {
    glEnable(GL_TEXTURE_2D);
    texture_->Select();
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, weighted ? GL_MODULATE : GL_REPLACE);
    if (weighted) {
      const float w = weight < 0.0f ? 0.0f : weight;
      glColor4f(w, w, w, 1.0f);
    }
  } else {
    glDisable(GL_TEXTURE_2D);
  }
  glBegin(GL_QUADS);
  for (const DMeshVertex& p : quad_) {
    const float u = window_[0] + p.u * window_[2], v = window_[1] + p.v * window_[3];
    glTexCoord2f(u0 + u * du, v0 + v * dv);
    glVertex3f(p.x, p.y, p.z);
  }
  glEnd();
  if (textured) glDisable(GL_TEXTURE_2D);
  if (weighted) glColor4f(1.0f, 1.0f, 1.0f, 1.0f);
  if (add) glDisable(GL_BLEND);
}
