// Fuzzes the chunk unpacker on raw bytes, and checks that packing the same bytes and unpacking
// the result gives them back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "framework/qarchive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 2 * QArchive::CHUNK_MAX) return 0;
  // Exact-size copies, so that any access past a block is caught.
  std::vector<uint8_t> in(data, data + size);
  std::vector<uint8_t> out(QArchive::CHUNK_MAX);
  const int n = static_cast<int>(size);
  QArchive::DecompressChunk(in.data(), n, out.data(), static_cast<int>(out.size()));
  std::vector<uint8_t> small(size % 97);
  QArchive::DecompressChunk(in.data(), n, small.data(), static_cast<int>(small.size()));

  const int plain = n < QArchive::CHUNK_IN ? n : QArchive::CHUNK_IN;
  std::vector<uint8_t> packed(plain + 8);
  uint16_t table[QArchive::MATCH_TABLE];
  const int p = QArchive::CompressChunk(in.data(), plain, packed.data(),
                                        static_cast<int>(packed.size()), table);
  if (p < 1 || p > plain + 1) abort();
  std::vector<uint8_t> back(plain);
  const int got = QArchive::DecompressChunk(packed.data(), p, back.data(), plain);
  if (got != plain || (plain > 0 && memcmp(back.data(), in.data(), plain) != 0)) abort();
  return 0;
}
