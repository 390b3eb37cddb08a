// OpenGL state shared by the framework.
#include "framework/qopengl.h"

#include <thread>

namespace {
bool (*g_contextHook)() = nullptr;
const char* (*g_scaleHook)(int, int, const void*, int, int, void*) = nullptr;
int g_contextSerial = 0;
std::thread::id g_contextThread;
}

bool QGLMakeAppContextCurrent() { return g_contextHook && g_contextHook(); }

void QGLSetAppContextHook(bool (*hook)()) {
  g_contextHook = hook;
  if (hook) {
    ++g_contextSerial;
    g_contextThread = std::this_thread::get_id();
  }
}

bool QGLHasAppContext() { return g_contextHook != nullptr; }

int QGLGetAppContextSerial() { return g_contextSerial; }

bool QGLIsContextThread() {
  return g_contextHook && g_contextThread == std::this_thread::get_id();
}

void QGLSetScaleHook(const char* (*scale)(int w, int h, const void* src, int tw, int th,
                                          void* dst)) {
  g_scaleHook = scale;
}

const char* QGLScaleImage(int w, int h, const void* src, int tw, int th, void* dst) {
  if (!g_scaleHook || !QGLMakeAppContextCurrent()) return "no OpenGL context";
  return g_scaleHook(w, h, src, tw, th, dst);
}
