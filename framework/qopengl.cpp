// OpenGL state shared by the framework.
#include "framework/qopengl.h"

namespace {
bool (*g_contextHook)() = nullptr;
}

bool QGLMakeAppContextCurrent() { return g_contextHook && g_contextHook(); }

void QGLSetAppContextHook(bool (*hook)()) { g_contextHook = hook; }
