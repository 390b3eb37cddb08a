// QXWindow: the OpenGL context, by the first method and by the old one.
#include <SDL.h>
#include <dlfcn.h>

#include <GL/gl.h>

#include <cstring>

#include "framework/qmessage.h"
#include "framework/qopengl.h"
#include "framework/qxwindow.h"

namespace {

// The fatal error of the step at which the old method last gave up.
const char* g_oldMethodFailure = "Failed to choose pixel format.";

void AskCompatibilityProfile() {
  SDL_GL_ResetAttributes();
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_COMPATIBILITY);
}

int Attr(SDL_GLattr a) {
  int v = 0;
  return SDL_GL_GetAttribute(a, &v) == 0 ? v : 0;
}

// The number of the current context's framebuffer configuration, as the driver counts them: the
// GLX FBConfig id on X11, the EGL config id on Wayland and KMS/DRM. 0 when neither answers. The
// calls are looked up at run time so that neither interface is needed to build or to start.
int FormatNumber() {
  using GetPtr = void* (*)();
  using QueryGlx = int (*)(void* display, void* context, int attribute, int* value);
  using QueryEgl = unsigned (*)(void* display, void* context, int attribute, int* value);
  constexpr int kGlxFbconfigId = 0x8013, kEglConfigId = 0x3028;
  int id = 0;
  auto glxDisplay = reinterpret_cast<GetPtr>(dlsym(RTLD_DEFAULT, "glXGetCurrentDisplay"));
  auto glxContext = reinterpret_cast<GetPtr>(dlsym(RTLD_DEFAULT, "glXGetCurrentContext"));
  auto glxQuery = reinterpret_cast<QueryGlx>(dlsym(RTLD_DEFAULT, "glXQueryContext"));
  if (glxDisplay && glxContext && glxQuery) {
    void* display = glxDisplay();
    void* context = glxContext();
    if (display && context && glxQuery(display, context, kGlxFbconfigId, &id) == 0 && id > 0)
      return id;
  }
  // SDL opens the EGL library itself when it uses it; only look where it is already loaded.
  void* egl = dlopen("libEGL.so.1", RTLD_LAZY | RTLD_NOLOAD);
  if (!egl) return 0;
  auto eglDisplay = reinterpret_cast<GetPtr>(dlsym(egl, "eglGetCurrentDisplay"));
  auto eglContext = reinterpret_cast<GetPtr>(dlsym(egl, "eglGetCurrentContext"));
  auto eglQuery = reinterpret_cast<QueryEgl>(dlsym(egl, "eglQueryContext"));
  id = 0;
  if (eglDisplay && eglContext && eglQuery) {
    void* display = eglDisplay();
    void* context = eglContext();
    if (!display || !context || !eglQuery(display, context, kEglConfigId, &id)) id = 0;
  }
  dlclose(egl);
  return id;
}

}  // namespace

bool QXWindow::DescribePixelFormat() {
  pixfmt_ = FormatNumber();
  int color = Attr(SDL_GL_BUFFER_SIZE);
  if (color == 0)
    color = Attr(SDL_GL_RED_SIZE) + Attr(SDL_GL_GREEN_SIZE) + Attr(SDL_GL_BLUE_SIZE) +
            Attr(SDL_GL_ALPHA_SIZE);
  const int stereo = Attr(SDL_GL_STEREO);
  QNOTE("QXWindow::EnableOpenGL",
        "Pixfmt %d: %d color bits, %d depthbuffer bits, %d stencil bits, %d alpha, stereo: %d.",
        pixfmt_, color, Attr(SDL_GL_DEPTH_SIZE), Attr(SDL_GL_STENCIL_SIZE),
        Attr(SDL_GL_ALPHA_SIZE), stereo);
  const char* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  software_ = renderer && (strstr(renderer, "llvmpipe") || strstr(renderer, "softpipe") ||
                           strstr(renderer, "Software"));
  if (software_)
    QWARN("QXWindow::EnableOpenGL", "Pixel format (%d) uses software rendering; will be slow!",
          pixfmt_);
  return stereo != 0;
}

bool QXWindow::EnableOpenGL() {
  AskCompatibilityProfile();
  SDL_GL_SetAttribute(SDL_GL_RED_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_GREEN_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_BLUE_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_ALPHA_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_DEPTH_SIZE, 16);
  SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
  SDL_GL_SetAttribute(SDL_GL_FRAMEBUFFER_SRGB_CAPABLE, 1);
  if (!window_ && !CreateNative()) {
    QDBG("QXWindow::EnableOpenGL", "QXWindow(%s): first method window refused: %s\n", GetName(),
         SDL_GetError());
  } else {
    context_ = SDL_GL_CreateContext(window_);
    if (context_ && SDL_GL_MakeCurrent(window_, static_cast<SDL_GLContext>(context_)) == 0) {
      DescribePixelFormat();
      return true;
    }
  }
  // Drivers that refuse the first method still give a context the old way.
  QWARN("QXWindow::EnableOpenGL", "SetPixelFormat failed, are you using an Intel GPU?.");
  QWARN("QXWindow::EnableOpenGL", "Reverting to the old method of creating the OpenGL context.");
  if (EnableOpenGLOld()) return true;
  // Nothing can be drawn without a context: the window says so, not the first user of OpenGL.
  qfatal("%s", g_oldMethodFailure);
  return false;
}

bool QXWindow::EnableOpenGLOld() {
  DestroyNative();
  AskCompatibilityProfile();
  const bool wantStereo = (settings_.flags & QFullScreenSettings::QUAD_BUFFERED) != 0;
  SDL_GL_SetAttribute(SDL_GL_BUFFER_SIZE, 32);
  SDL_GL_SetAttribute(SDL_GL_RED_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_GREEN_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_BLUE_SIZE, 8);
  SDL_GL_SetAttribute(SDL_GL_ALPHA_SIZE, settings_.alphaBits);
  SDL_GL_SetAttribute(SDL_GL_DEPTH_SIZE, settings_.depthBits);
  SDL_GL_SetAttribute(SDL_GL_STENCIL_SIZE, settings_.stencilBits);
  SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
  if (wantStereo) {
    SDL_GL_SetAttribute(SDL_GL_STEREO, 1);
    QNOTE("QXWindow::EnableOpenGLOld", "Quad-buffered stereo enabled - PFD_STEREO flag set");
  }
  // SDL's own reason goes to a debug line, so that the error keeps its fixed text.
  if (!CreateNative()) {
    QDBG("QXWindow::EnableOpenGLOld", "QXWindow(%s): window refused: %s\n", GetName(),
         SDL_GetError());
    QERR("QXWindow::EnableOpenGLOld", "(QXWindow) ChoosePixelFormat() failed");
    g_oldMethodFailure = "Failed to choose pixel format.";
    return false;
  }
  context_ = SDL_GL_CreateContext(window_);
  g_oldMethodFailure = context_ ? "wglMakeCurrent failed." : "wglCreateContextfailed.";
  if (!context_ || SDL_GL_MakeCurrent(window_, static_cast<SDL_GLContext>(context_)) != 0) {
    QDBG("QXWindow::EnableOpenGLOld", "QXWindow(%s): context refused: %s\n", GetName(),
         SDL_GetError());
    QERR("QXWindow::EnableOpenGLOld", "(QXWindow) SetPixelFormat() failed");
    DestroyNative();
    return false;
  }
  if (!DescribePixelFormat() && wantStereo)
    QERR("QXWindow::EnableOpenGLOld",
         "Requested STEREO (quadbuffered) but no suitable pixelformat present");
  return true;
}

bool QXWindow::MakeCurrent() {
  if (!window_ || !context_) return false;
  if (SDL_GL_GetCurrentContext() == context_ && SDL_GL_GetCurrentWindow() == window_) return true;
  return SDL_GL_MakeCurrent(window_, static_cast<SDL_GLContext>(context_)) == 0;
}

void QXWindow::Swap() {
  if (window_ && context_) SDL_GL_SwapWindow(window_);
}

// Declared in qopengl.h: the one place portable code learns the current context.
void* QGLGetCurrentContext() { return SDL_GL_GetCurrentContext(); }
