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
