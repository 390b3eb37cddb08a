// QArchive: the chunk codec (LZ with runs, 12-bit offsets, one control bit per item).
#include <climits>
#include <cstring>

#include "framework/qarchive.h"

namespace {

constexpr int kRunMin = 16;
constexpr int kRunCap = 4095;
constexpr int kMatchMin = 3;
constexpr int kMatchMax = 18;
constexpr int kWindow = 4096;
constexpr uint16_t kNoPosition = 65535;

inline unsigned Hash(const uint8_t* p) {
  unsigned v = (static_cast<unsigned>(p[0]) << 8) ^ (static_cast<unsigned>(p[1]) << 4) ^ p[2];
  return ((v * 40543u) >> 4) & (QArchive::MATCH_TABLE - 1);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Packing
// ---------------------------------------------------------------------------------------------

int QArchive::CompressChunk(const uint8_t* in, int n, uint8_t* out, int outCap, uint16_t* table) {
  if (n < 0 || n > CHUNK_IN || outCap < n + 8 || (n > 0 && !in) || !out || !table) return -1;
  for (int i = 0; i < MATCH_TABLE; ++i) table[i] = kNoPosition;

  out[0] = CHUNK_PACKED;
  int controlPos = 1;
  int pos = 3;
  unsigned control = 0;
  int bits = 0;
  int p = 0;
  // Once the output passes n the chunk is stored anyway, so stop there: this also keeps every
  // write below n + 8.
  while (p < n && pos <= n) {
    const uint8_t c = in[p];
    bool packed = false;
    if (p + 1 < n && in[p + 1] == c) {
      int run = 1;
      while (p + run < n && run < kRunCap && in[p + run] == c) ++run;
      if (run >= kRunMin) {
        out[pos++] = 0;
        out[pos++] = static_cast<uint8_t>((run - kRunMin) >> 8);
        out[pos++] = static_cast<uint8_t>((run - kRunMin) & 255);
        out[pos++] = c;
        p += run;
        packed = true;
      }
    }
    if (!packed && p + 2 < n) {
      const unsigned h = Hash(in + p);
      const int q = table[h];
      table[h] = static_cast<uint16_t>(p);
      if (q != kNoPosition && p - q < kWindow) {
        int len = 0;
        while (len < kMatchMax && p + len < n && in[q + len] == in[p + len]) ++len;
        if (len >= kMatchMin) {
          const unsigned v = static_cast<unsigned>(p - q) * 16 + (len - kMatchMin);
          out[pos++] = static_cast<uint8_t>(v >> 8);
          out[pos++] = static_cast<uint8_t>(v & 255);
          p += len;
          packed = true;
        }
      }
    }
    if (packed) {
      control = (control << 1) | 1;
    } else {
      out[pos++] = c;
      ++p;
      control <<= 1;
    }
    if (++bits == 16) {
      out[controlPos] = static_cast<uint8_t>(control >> 8);
      out[controlPos + 1] = static_cast<uint8_t>(control & 255);
      controlPos = pos;
      pos += 2;
      control = 0;
      bits = 0;
    }
  }
  control <<= (16 - bits);
  out[controlPos] = static_cast<uint8_t>((control >> 8) & 255);
  out[controlPos + 1] = static_cast<uint8_t>(control & 255);

  if (pos > n) {
    out[0] = CHUNK_STORED;
    if (n > 0) memcpy(out + 1, in, n);
    return n + 1;
  }
  return pos;
}

// ---------------------------------------------------------------------------------------------
// Unpacking
// ---------------------------------------------------------------------------------------------

int QArchive::DecompressChunk(const uint8_t* in, int n, uint8_t* out, int outCap,
                              const char** why) {
  const char* dummy = nullptr;
  const char** reason = why ? why : &dummy;
  *reason = nullptr;
  if (!in || n < 1) {
    *reason = "empty chunk";
    return -1;
  }
  if (!out || outCap < 0) outCap = 0;

  if (in[0] == CHUNK_STORED) {
    const int len = n - 1;
    if (len > 0 && outCap > 0) memcpy(out, in + 1, len < outCap ? len : outCap);
    return len;
  }
  if (in[0] != CHUNK_PACKED) {
    *reason = "unknown chunk kind";
    return -1;
  }

  // Lengths are counted in 64 bits: a hostile chunk of runs may claim more than fits an int.
  long long length = 0;
  int pos = 1;
  unsigned control = 0;
  int bits = 0;
  while (pos < n) {
    if (bits == 0) {
      if (pos + 2 > n) {
        *reason = "control word cut short";
        return -1;
      }
      control = (static_cast<unsigned>(in[pos]) << 8) | in[pos + 1];
      pos += 2;
      bits = 16;
      continue;
    }
    const bool item = (control & 0x8000) != 0;
    control = (control << 1) & 0xFFFF;
    --bits;
    if (!item) {
      if (length < outCap) out[length] = in[pos];
      ++length;
      ++pos;
      continue;
    }
    if (pos + 2 > n) {
      *reason = "match cut short";
      return -1;
    }
    const int a = in[pos];
    const int b = in[pos + 1];
    const int offset = a * 16 + (b >> 4);
    if (offset == 0) {
      if (pos + 4 > n) {
        *reason = "run cut short";
        return -1;
      }
      const int run = b * 256 + in[pos + 2] + kRunMin;
      const uint8_t value = in[pos + 3];
      pos += 4;
      if (length < outCap) {
        const long long fit = outCap - length < run ? outCap - length : run;
        memset(out + length, value, static_cast<size_t>(fit));
      }
      length += run;
      continue;
    }
    const int len = (b & 15) + kMatchMin;
    pos += 2;
    if (offset > length) {
      *reason = "match reaches before the start of the output";
      return -1;
    }
    if (length + len <= outCap) {
      // Byte by byte: an overlapping match repeats what it has just written.
      uint8_t* dst = out + length;
      const uint8_t* src = dst - offset;
      for (int i = 0; i < len; ++i) dst[i] = src[i];
    } else {
      for (int i = 0; i < len && length + i < outCap; ++i)
        out[length + i] = out[length + i - offset];
    }
    length += len;
  }
  return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}
