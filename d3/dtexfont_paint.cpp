// DTexFont: the sheets' textures and drawing text as textured quads.
#define GL_GLEXT_PROTOTYPES 1
#include <GL/gl.h>
#include <GL/glext.h>

#include <cstring>
#include <vector>

#include "d3/dtexfont.h"
#include "d3/dtexture.h"
#include "framework/qstring.h"
#include "framework/qmessage.h"

void DTexFont::TextureDeleter::operator()(DBitMapTexture* t) const { delete t; }

DBitMapTexture* DTexFont::MakeTexture(QBitMap* sheet, const char* name) {
  // Without OpenGL the texture stays uncreated: such a font cannot draw. Glyphs are drawn at
  // their own size, so a mipmap chain would only cost start-up time (a software renderer builds
  // it slowly).
  DBitMapTexture* t = new DBitMapTexture();
  t->SetName(name);
  t->UsePictureFiltering();
  t->FromBitMap(sheet);
  if (t->GetID() == 0) {
    delete t;
    return nullptr;
  }
  return t;
}

void DTexFont::BeginPaint(bool modulate) const {
  texture_->Select();
  const GLenum src = (flags_ & PREMULTIPLIED) ? GL_ONE : GL_SRC_ALPHA;
  glDisable(GL_LIGHTING);
  glEnable(GL_BLEND);
  glBlendFunc(src, GL_ONE_MINUS_SRC_ALPHA);
  glEnable(GL_TEXTURE_2D);
  glDisable(GL_CULL_FACE);
  if (modulate) {
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_MODULATE);
    const float k = 1.0f / 255.0f;
    glColor4f(color_.GetR() * k, color_.GetG() * k, color_.GetB() * k, color_.GetA() * k);
  } else {
    glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
  }
  glDisable(GL_DEPTH_TEST);
  // Alpha saturates so that text drawn into a window with alpha leaves it covered there.
  glBlendFuncSeparate(src, GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA_SATURATE, GL_ONE);
}

void DTexFont::EndPaint() const {
  glDisable(GL_BLEND);
  glDisable(GL_TEXTURE_2D);
  glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
}

float DTexFont::EmitGlyph(const DTexFontGlyph* g, float x, float y) const {
  const float s = scaleX_;
  const float h = float(g->height) * scaleY_;
  const float w = float(g->width) * s;
  float left = x + s * g->bearingX;
  // v low sits at the edge y: the sheet stores glyphs for a y-down 2D mode (see the header).
  for (int copy = 0; copy < ((flags_ & BOLD) ? 2 : 1); ++copy) {
    glTexCoord2f(g->uLeft, g->vLow);
    glVertex2f(left, y);
    glTexCoord2f(g->uLeft, g->vHigh);
    glVertex2f(left + slantX_, y + h);
    glTexCoord2f(g->uRight, g->vHigh);
    glVertex2f(left + w + slantX_, y + h);
    glTexCoord2f(g->uRight, g->vLow);
    glVertex2f(left + w, y);
    left += boldOffset_;
  }
  return s * g->advance + spacing_;
}

int DTexFont::Paint(const char* text, float x, float y, int len) {
  if (!texture_ || !text) return int(x);
  if (len < 0) len = int(strlen(text));
  if (len == 0) return int(x);
  std::vector<int> codes;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  for (const unsigned char* end = p + len; p < end;) codes.push_back(qutf8decode(&p, end));
  // Atlas glyphs are all placed before its texture is brought up to date once.
  bool inAtlas = false, anyInAtlas = false;
  for (int code : codes) {
    Resolve(code, &inAtlas);
    anyInAtlas = anyInAtlas || inAtlas;
  }
  const bool atlasDraws = anyInAtlas && UploadAtlas();
  BeginPaint(color_ != QColor(255, 255, 255, 255));
  // The sheet's glyphs, then the atlas's, each with its own texture bound.
  const float start = x;
  for (int pass = 0; pass < (atlasDraws ? 2 : 1); ++pass) {
    if (pass == 1) SelectAtlas();
    x = start;
    glBegin(GL_QUADS);
    for (int code : codes) {
      const DTexFontGlyph* g = Resolve(code, &inAtlas);
      if (!g) continue;
      if (inAtlas == (pass == 1))
        x += EmitGlyph(g, x, y);
      else
        x += scaleX_ * g->advance + spacing_;
    }
    glEnd();
  }
  EndPaint();
  return int(x);
}

int DTexFont::Paint(const uint16_t* text, float x, float y, int len) {
  if (!texture_ || !text) return int(x);
  if (len < 0) {
    len = 0;
    while (text[len]) ++len;
  }
  if (len == 0) return int(x);
  BeginPaint(true);
  const float start = x;
  // Colour first without touching alpha, then alpha alone with the saturating blend.
  for (int pass = 0; pass < 2; ++pass) {
    x = start;
    if (pass == 0) {
      glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_FALSE);
      glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    } else {
      glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_TRUE);
      glBlendFunc(GL_SRC_ALPHA_SATURATE, GL_ONE);
    }
    glBegin(GL_QUADS);
    for (int i = 0; i < len; ++i) {
      const int c = text[i];
      if (c < minChar_ || c > maxChar_) continue;
      const DTexFontGlyph* g = FindGlyph(c);
      if (!g) {
        if (pass == 0) QWARN("DTexFont::Paint", "DTexFont: can't find char 0x%x", c);
        continue;
      }
      x += EmitGlyph(g, x, y);
    }
    glEnd();
  }
  glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
  EndPaint();
  return int(x);
}
