// OpenGL state shared by the framework: whether the application has a current OpenGL window,
// and the graphics settings that the texture and font code consult.
//
// The window layer installs the context hook when it has made its context; until then (and in
// programs without a window) QGLMakeAppContextCurrent answers false and callers take their
// non-GL path. Each installation counts as a new context (QGLGetAppContextSerial), so code that
// prepares per-context state (d3/dglobal) knows when to do it again.
#pragma once

// Makes the application window's OpenGL context current; false when there is none.
bool QGLMakeAppContextCurrent();
// Installed by the window layer; null removes it. Remembers the installing thread as the one
// that made the context.
void QGLSetAppContextHook(bool (*hook)());
// True while a hook is installed (the application window has its context). Never fails.
bool QGLHasAppContext();
// Number of hooks installed so far; changes with every new application context.
int QGLGetAppContextSerial();
// True on the thread that installed the current hook; false when none is installed.
bool QGLIsContextThread();
// The calling thread's current OpenGL context, or null when it has none (window layer).
void* QGLGetCurrentContext();

// Scales a tightly packed `w` x `h` RGBA block into `tw` x `th` at `dst` in the application's
// context; null when done, else why not ("no OpenGL context" while no scaler is installed, or
// the library's text). Keeps the pixel-store state it found.
const char* QGLScaleImage(int w, int h, const void* src, int tw, int th, void* dst);
// Installed with the context hook by the window layer; null removes it.
void QGLSetScaleHook(const char* (*scale)(int w, int h, const void* src, int tw, int th,
                                          void* dst));
// The window layer's scaler: GLU's, under the context that must be current.
const char* QGLGluScaleImage(int w, int h, const void* src, int tw, int th, void* dst);
