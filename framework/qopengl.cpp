// OpenGL state shared by the framework.
#include "framework/qopengl.h"

#include <thread>

namespace {
bool (*g_contextHook)() = nullptr;
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
