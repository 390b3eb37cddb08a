// Archive codec throughput beside zlib level 1 on the same data, with the packed/plain ratio.
//
// Data sets: the framework's own sources (text), this benchmark's executable (machine code) and a
// smooth 512 x 512 RGBA gradient (picture-like). Our codec packs in chunks of 16384 bytes as the
// archive writer does; zlib packs each data set in one call.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "framework/qarchive.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Append(const std::string& path, Bytes* out) {
  FILE* fp = fopen(path.c_str(), "rb");
  if (!fp) return;
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) out->insert(out->end(), buf, buf + n);
  fclose(fp);
}

Bytes SourceText() {
  Bytes b;
  const std::filesystem::path dir = std::filesystem::path(__FILE__).parent_path().parent_path() /
                                    "framework";
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) Append(e.path().string(), &b);
  return b;
}

Bytes Executable() {
  Bytes b;
  Append("/proc/self/exe", &b);
  return b;
}

Bytes Gradient() {
  Bytes b;
  for (int y = 0; y < 512; ++y)
    for (int x = 0; x < 512; ++x)
      b.insert(b.end(), {static_cast<uint8_t>(x / 2), static_cast<uint8_t>(y / 2),
                         static_cast<uint8_t>((x + y) / 4), 255});
  return b;
}

const Bytes& Data(int which) {
  static const Bytes sets[] = {SourceText(), Executable(), Gradient()};
  return sets[which];
}

const char* kNames[] = {"source", "executable", "gradient"};

// Packs the way the archive does: a 16-bit size and a chunk per 16384 input bytes.
Bytes PackAll(const Bytes& in) {
  Bytes out;
  uint8_t chunk[QArchive::CHUNK_MAX];
  uint16_t table[QArchive::MATCH_TABLE];
  for (size_t pos = 0; pos < in.size(); pos += QArchive::CHUNK_IN) {
    const int n = static_cast<int>(std::min<size_t>(QArchive::CHUNK_IN, in.size() - pos));
    const int len = QArchive::CompressChunk(in.data() + pos, n, chunk, sizeof(chunk), table);
    out.push_back(static_cast<uint8_t>(len & 255));
    out.push_back(static_cast<uint8_t>(len >> 8));
    out.insert(out.end(), chunk, chunk + len);
  }
  return out;
}

size_t UnpackAll(const Bytes& packed, uint8_t* out, size_t cap) {
  size_t done = 0;
  for (size_t pos = 0; pos + 2 <= packed.size();) {
    const int len = packed[pos] | (packed[pos + 1] << 8);
    pos += 2;
    const int got = QArchive::DecompressChunk(packed.data() + pos, len, out + done,
                                              static_cast<int>(cap - done));
    if (got < 0) return 0;
    done += got;
    pos += len;
  }
  return done;
}

void Report(benchmark::State& state, const Bytes& in, size_t packed) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
  state.counters["ratio"] = static_cast<double>(packed) / static_cast<double>(in.size());
  state.SetLabel(kNames[state.range(0)]);
}

void BM_ArchiveCompress(benchmark::State& state) {
  const Bytes& in = Data(static_cast<int>(state.range(0)));
  size_t packed = 0;
  for (auto _ : state) {
    Bytes out = PackAll(in);
    packed = out.size();
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, in, packed);
}

void BM_ArchiveDecompress(benchmark::State& state) {
  const Bytes& in = Data(static_cast<int>(state.range(0)));
  const Bytes packed = PackAll(in);
  Bytes out(in.size());
  for (auto _ : state) {
    if (UnpackAll(packed, out.data(), out.size()) != in.size() || out != in) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  Report(state, in, packed.size());
}

void BM_ZlibCompress(benchmark::State& state) {
  const Bytes& in = Data(static_cast<int>(state.range(0)));
  Bytes out(compressBound(in.size()));
  uLongf len = 0;
  for (auto _ : state) {
    len = out.size();
    compress2(out.data(), &len, in.data(), in.size(), 1);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, in, len);
}

void BM_ZlibDecompress(benchmark::State& state) {
  const Bytes& in = Data(static_cast<int>(state.range(0)));
  Bytes packed(compressBound(in.size()));
  uLongf len = packed.size();
  compress2(packed.data(), &len, in.data(), in.size(), 1);
  Bytes out(in.size());
  for (auto _ : state) {
    uLongf outLen = out.size();
    if (uncompress(out.data(), &outLen, packed.data(), len) != Z_OK || outLen != in.size()) {
      state.SkipWithError("zlib round trip failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, in, len);
}

BENCHMARK(BM_ArchiveCompress)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZlibCompress)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArchiveDecompress)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZlibDecompress)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
