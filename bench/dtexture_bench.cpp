// Uploading a 12-megapixel bitmap (4000 x 3000) as a texture, with and without mipmaps, on the
// framework's window. Needs a display; without one, run it under Xvfb:
//   xvfb-run -a -s "-screen 0 1280x1024x24" build/bench/dtexture_bench
// (Mesa's llvmpipe then renders in software, so the numbers are the CPU's, not a GPU's.)
#include <GL/gl.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qbitmap.h"
#include "framework/qshell.h"

namespace {

QApp* g_app = nullptr;

bool OpenWindow() {
  if (g_app) return g_app->GetMainWindow() != nullptr;
  const char* display = getenv("DISPLAY");
  if (!display || !*display) return false;
  g_app = new QApp("texbench", "TexBench");
  g_app->SetNoStateManager();
  g_app->SetWindowRect(0, 0, 640, 480);
  return g_app->Create() && g_app->GetMainWindow()->MakeCurrent();
}

QBitMap* Picture() {
  static std::unique_ptr<QBitMap> bm;
  if (!bm) {
    bm.reset(new QBitMap(32, 4000, 3000));
    uint8_t* p = bm->GetBuffer();
    for (int i = 0; i < bm->GetSize(); ++i) p[i] = uint8_t(i * 31 + (i >> 12));
  }
  return bm.get();
}

void Upload(benchmark::State& state, bool mipmaps) {
  if (!OpenWindow()) {
    state.SkipWithError("needs a display (run under xvfb-run)");
    return;
  }
  QBitMap* bm = Picture();
  for (auto _ : state) {
    DBitMapTexture tex;
    tex.EnableMipmap(mipmaps);
    tex.FromBitMap(bm);
    glFinish();  // the upload is done when the driver has the pixels
    benchmark::DoNotOptimize(tex.GetID());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * bm->GetSize());
}

void BM_Upload12MP(benchmark::State& state) { Upload(state, false); }
void BM_Upload12MPMipmaps(benchmark::State& state) { Upload(state, true); }

BENCHMARK(BM_Upload12MP)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Upload12MPMipmaps)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
