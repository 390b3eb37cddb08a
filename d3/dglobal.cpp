// DGlobal: filter names, graphics settings and per-context facts.
#define GL_GLEXT_PROTOTYPES
#include "d3/dglobal.h"

#include <GL/gl.h>
#include <GL/glext.h>

#include <cstdlib>
#include <cstring>

#include "framework/qmessage.h"
#include "framework/qopengl.h"

namespace {

struct FilterName {
  const char* text;
  int value;
};
const FilterName kFilters[] = {
    {"GL_NEAREST", 9728},
    {"GL_LINEAR", 9729},
    {"GL_NEAREST_MIPMAP_NEAREST", 9984},
    {"GL_LINEAR_MIPMAP_NEAREST", 9985},
    {"GL_NEAREST_MIPMAP_LINEAR", 9986},
    {"GL_LINEAR_MIPMAP_LINEAR", 9987},
};

DGraphicsSettings g_settings;
bool g_linearPinned = false;

// What was learnt about the application context numbered `serial`.
struct ContextFacts {
  int serial = 0;
  bool srgbFramebuffer = false;
  bool encoding = false;
  bool generateMipmap = false;
  bool anisotropy = false;
  bool compression = false;
  bool s3tc = false;
};
ContextFacts g_facts;

bool ExtensionIn(const char* list, const char* ext) {
  if (!list || !ext || !*ext) return false;
  const size_t n = strlen(ext);
  for (const char* p = strstr(list, ext); p; p = strstr(p + 1, ext)) {
    const bool startOk = p == list || p[-1] == ' ';
    const bool endOk = p[n] == ' ' || p[n] == 0;
    if (startOk && endOk) return true;
  }
  return false;
}

int GLMajorVersion() {
  const char* v = reinterpret_cast<const char*>(glGetString(GL_VERSION));
  return v ? atoi(v) : 0;
}

// Switches the framebuffer's encoding to match the linear-colour byte.
void ApplyEncoding() {
  if (!g_facts.serial) return;
  g_facts.encoding = g_facts.srgbFramebuffer && g_settings.linearColour == 0;
  if (g_facts.srgbFramebuffer) {
    if (g_facts.encoding)
      glEnable(GL_FRAMEBUFFER_SRGB);
    else
      glDisable(GL_FRAMEBUFFER_SRGB);
  }
}

void Prepare(int serial) {
  if (!QGLGetCurrentContext() && !QGLMakeAppContextCurrent()) return;
  while (glGetError() != GL_NO_ERROR) {
  }
  ContextFacts f;
  f.serial = serial;
  const char* ext = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  const int major = GLMajorVersion();
  GLint encoding = GL_LINEAR;
  if (major >= 3) {
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_BACK_LEFT,
                                          GL_FRAMEBUFFER_ATTACHMENT_COLOR_ENCODING, &encoding);
  }
  if (glGetError() != GL_NO_ERROR) encoding = GL_LINEAR;
  f.srgbFramebuffer = encoding == GL_SRGB;
  f.generateMipmap = major >= 3 || ExtensionIn(ext, "GL_ARB_framebuffer_object");
  f.anisotropy = ExtensionIn(ext, "GL_EXT_texture_filter_anisotropic") ||
                 ExtensionIn(ext, "GL_ARB_texture_filter_anisotropic");
  f.compression = major >= 2 || ExtensionIn(ext, "GL_ARB_texture_compression");
  f.s3tc = ExtensionIn(ext, "GL_EXT_texture_compression_s3tc");
  g_facts = f;
  if (!g_linearPinned) g_settings.linearColour = f.srgbFramebuffer ? 0 : 1;
  ApplyEncoding();
  QDBG("DGlobal::Prepare", "OpenGL %s: sRGB framebuffer %d, linear colour %d\n",
       reinterpret_cast<const char*>(glGetString(GL_VERSION)), f.srgbFramebuffer ? 1 : 0,
       g_settings.linearColour);
}

bool Prepared() { return DGlobal::IsOpenGLAvailable() && g_facts.serial != 0; }

}  // namespace

const char* DGlobal::FilterN2S(int value) {
  for (const FilterName& f : kFilters)
    if (f.value == value) return f.text;
  QWARN("DGlobal::FilterN2S", "DGlobal::FilterN2S(%d) unknown", value);
  return "???";
}

int DGlobal::FilterS2N(const char* text) {
  for (const FilterName& f : kFilters)
    if (text && strcmp(f.text, text) == 0) return f.value;
  QWARN("DGlobal::FilterS2N", "DGlobal::FilterS2N(%s) unknown", text ? text : "(null)");
  return 0;
}

DGraphicsSettings& DGlobal::Settings() { return g_settings; }

void DGlobal::SetLinearColour(bool linear) {
  g_linearPinned = true;
  g_settings.linearColour = linear ? 1 : 0;
  if (IsOpenGLAvailable()) ApplyEncoding();
}

void DGlobal::FollowFramebuffer() {
  g_linearPinned = false;
  if (IsOpenGLAvailable() && g_facts.serial) {
    g_settings.linearColour = g_facts.srgbFramebuffer ? 0 : 1;
    ApplyEncoding();
  }
}

bool DGlobal::IsOpenGLAvailable() {
  if (!QGLHasAppContext()) return false;
  const int serial = QGLGetAppContextSerial();
  if (g_facts.serial != serial) Prepare(serial);
  return true;
}

bool DGlobal::IsFramebufferSRGB() { return Prepared() && g_facts.srgbFramebuffer; }
bool DGlobal::IsFramebufferEncoding() { return Prepared() && g_facts.encoding; }
bool DGlobal::CanGenerateMipmaps() { return Prepared() && g_facts.generateMipmap; }
bool DGlobal::HasAnisotropy() { return Prepared() && g_facts.anisotropy; }
bool DGlobal::SupportsCompression() { return Prepared() && g_facts.compression; }
bool DGlobal::SupportsS3TC() { return Prepared() && g_facts.s3tc; }

int DGlobal::MaxTextureSize() {
  if (!Prepared()) return 0;
  GLint size = 0;
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
  return size;
}

bool DGlobal::HasExtension(const char* ext) {
  if (!Prepared()) return false;
  return ExtensionIn(reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS)), ext);
}

int DGlobal::CheckGLErrors(const char* label) {
  int n = 0;
  // Bounded: a lost context can report errors for ever.
  for (GLenum e = glGetError(); e != GL_NO_ERROR && n < 32; e = glGetError(), ++n)
    QWARN("DGlobal::CheckGLErrors", "%s: OpenGL error 0x%x", label ? label : "", e);
  return n;
}
