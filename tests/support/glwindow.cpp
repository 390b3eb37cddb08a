#include "support/glwindow.h"

#include <GL/gl.h>

#include <gtest/gtest.h>

#include <cstdlib>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "framework/qapp.h"
#include "framework/qshell.h"

// Mesa, the X libraries and D-Bus keep blocks for the life of the process.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libGLX_mesa\nleak:swrast_dri\nleak:libgallium\nleak:libLLVM\nleak:libX11\n"
         "leak:libdbus\nleak:libSDL2\nleak:libglapi\n";
}

namespace {
QApp* g_app = nullptr;
bool g_tried = false;

#if defined(__SANITIZE_ADDRESS__)
// The leak check runs once the tests are done, while the driver's threads are idle: at exit it
// runs beside the driver's own teardown, and its thread-stopping helper once died there on CI.
class LeakCheckBeforeExit : public ::testing::Environment {
 public:
  void TearDown() override { __lsan_do_leak_check(); }
};
[[maybe_unused]] ::testing::Environment* const g_leakCheck =
    ::testing::AddGlobalTestEnvironment(new LeakCheckBeforeExit);
#endif
}  // namespace

namespace testgl {

QShell* Window(int wid, int hgt) {
  if (!g_tried) {
    g_tried = true;
    const char* display = getenv("DISPLAY");
    if (!display || !*display) return nullptr;
    g_app = new QApp("gltest", "GLTest");
    g_app->SetNoStateManager();
    g_app->SetWindowRect(0, 0, wid, hgt);
    // Kept to the end of the program: the GL driver's own teardown runs at exit.
    if (!g_app->Create()) return nullptr;
  }
  QShell* w = g_app ? g_app->GetMainWindow() : nullptr;
  return w && w->MakeCurrent() ? w : nullptr;
}

uint32_t Pixel(int x, int yFromTop) {
  QShell* w = Window();
  if (!w) return 0;
  unsigned char px[4] = {};
  glReadBuffer(GL_BACK);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(x, w->GetHeight() - 1 - yFromTop, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
  return (uint32_t(px[0]) << 24) | (uint32_t(px[1]) << 16) | (uint32_t(px[2]) << 8) | px[3];
}

}  // namespace testgl
