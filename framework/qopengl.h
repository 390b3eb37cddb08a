// OpenGL state shared by the framework: whether the application has a current OpenGL window,
// and the graphics settings that the texture and font code consult.
//
// The window layer installs the context hook when it has made its context; until then (and in
// programs without a window) QGLMakeAppContextCurrent answers false and callers take their
// non-GL path.
#pragma once

// Makes the application window's OpenGL context current; false when there is none.
bool QGLMakeAppContextCurrent();
// Installed by the window layer; null removes it.
void QGLSetAppContextHook(bool (*hook)());
