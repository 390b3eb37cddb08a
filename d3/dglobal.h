// DGlobal: the graphics library's global state, the settings that textures and the canvas read
// and the facts about the current OpenGL context they depend on.
//
// OpenGL counts as available while the application window has its context (framework/qopengl.h);
// the first query after a new context was made prepares it once: it learns the extensions and
// how the window's framebuffer stores colour.
//
// Colour: a picture's byte values must reach the screen unchanged. By default the linear-colour
// byte follows the framebuffer: on an sRGB-capable framebuffer it stays clear, textures get sRGB
// internal formats (decoded to linear when sampled) and GL_FRAMEBUFFER_SRGB is enabled so that
// writes are encoded back; both conversions cancel, filtering and blending happen in linear
// light, and mid-grey 128 still reads back as 128. On a framebuffer that is not sRGB-capable the
// byte is set, so textures and framebuffer both stay linear (plain byte copies). A program that
// sets the byte itself (SetLinearColour) pins it; then only the encoding switch follows the byte.
// Untextured colours (clears, text colours) are meant as screen values: the canvas switches the
// encoding off around them (IsFramebufferEncoding tells whether it is on).
//
// Main thread only; nothing is locked.
#pragma once

#include <cstdint>

struct DGraphicsSettings {
  uint8_t linearColour = 0;       // 0: sRGB internal formats; set: plain RGB(A)
  bool compressionAllowed = false;  // pictures must stay exact, so off by default
  bool texturesEnabled = true;    // off: the texture manager makes stub textures only
  bool ddsAllowed = true;
  bool autoMipmap = true;         // use the driver's mipmap generation when it has one
  float anisotropy = 1.0f;        // maximum anisotropy given to new textures (1: none)
};

class DGlobal {
 public:
  // "GL_NEAREST" .. "GL_LINEAR_MIPMAP_LINEAR"; "???" with the warning "DGlobal::FilterN2S(%d)
  // unknown" for any other value.
  static const char* FilterN2S(int value);
  // The GL value of a filter name; 0 with the warning "DGlobal::FilterS2N(%s) unknown".
  static int FilterS2N(const char* text);

  // The settings, readable and writable at any time; they apply to textures made afterwards.
  static DGraphicsSettings& Settings();
  // Pins the linear-colour byte (see the header text) and re-applies the encoding switch when
  // a context is prepared. Never fails.
  static void SetLinearColour(bool linear);
  // Lets the byte follow the framebuffer again (the default).
  static void FollowFramebuffer();

  // True while the application window has its context; prepares a new context first.
  static bool IsOpenGLAvailable();
  // Facts about the prepared context; false while none is.
  static bool IsFramebufferSRGB();
  static bool IsFramebufferEncoding();
  static bool CanGenerateMipmaps();
  static bool HasAnisotropy();
  static bool SupportsCompression();
  static bool SupportsS3TC();
  // The largest texture side the context takes (GL_MAX_TEXTURE_SIZE); 0 without a context.
  static int MaxTextureSize();
  // True when the context's extension string names `ext` exactly; false without a context.
  static bool HasExtension(const char* ext);

  // Reports every pending OpenGL error as "%s: OpenGL error 0x%x" under `label`; answers how
  // many there were.
  static int CheckGLErrors(const char* label);
};
