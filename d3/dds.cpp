// DDDS: DDS parsing (no OpenGL) and the upload of its levels.
#define GL_GLEXT_PROTOTYPES
#include "d3/dds.h"

#include <GL/gl.h>
#include <GL/glext.h>

#include <algorithm>
#include <cstring>

#include "d3/dglobal.h"
#include "d3/dtexture.h"
#include "framework/qfile.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/virtualfilesystem.h"

namespace {

constexpr uint32_t kMagic = 0x20534444;  // "DDS "
constexpr uint32_t kFourCCFlag = 4;

// Offsets inside the 124-byte header (which follows the magic).
constexpr size_t kHeight = 8, kWidth = 12, kMipCount = 24, kPfFlags = 76, kFourCC = 80,
                 kBitCount = 84, kRedMask = 88;

uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Reverses the first `n` of the 4 rows of an 8-byte colour block (one index byte per row).
void FlipColourRows(uint8_t* b, int n) { std::reverse(b + 4, b + 4 + n); }

// DXT3 alpha: 4 rows of 2 bytes.
void FlipExplicitAlphaRows(uint8_t* b, int n) {
  for (int r = 0; r < n / 2; ++r) {
    std::swap(b[2 * r], b[2 * (n - 1 - r)]);
    std::swap(b[2 * r + 1], b[2 * (n - 1 - r) + 1]);
  }
}

// DXT5 alpha: two end points, then 48 bits of 3-bit indices, 12 bits per row.
void FlipInterpolatedAlphaRows(uint8_t* b, int n) {
  uint64_t bits = 0;
  for (int i = 0; i < 6; ++i) bits |= uint64_t(b[2 + i]) << (8 * i);
  uint64_t rows[4];
  for (int r = 0; r < 4; ++r) rows[r] = (bits >> (12 * r)) & 0xfff;
  std::reverse(rows, rows + n);
  bits = 0;
  for (int r = 0; r < 4; ++r) bits |= rows[r] << (12 * r);
  for (int i = 0; i < 6; ++i) b[2 + i] = uint8_t(bits >> (8 * i));
}

}  // namespace

void DDDS::Deleter::operator()(uint8_t* p) const { qfree(p); }

DDDS::~DDDS() { Free(); }

void DDDS::Free() {
  for (int i = 0; i < MAX_LEVELS; ++i) {
    data_[i].reset();
    sizes_[i] = 0;
  }
  width_ = height_ = levels_ = blockBytes_ = 0;
  format_ = 0;
}

const uint8_t* DDDS::GetLevel(int level) const {
  return level >= 0 && level < levels_ ? data_[level].get() : nullptr;
}

size_t DDDS::GetLevelSize(int level) const {
  return level >= 0 && level < levels_ ? sizes_[level] : 0;
}

size_t DDDS::LevelBytes(int w, int h) const {
  if (blockBytes_)
    return size_t((w + 3) / 4) * size_t((h + 3) / 4) * size_t(blockBytes_);
  return size_t(w) * size_t(h) * 4;
}

// ---------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------

bool DDDS::Load(const char* name) {
  Free();
  QVirtualFileSystem* vfs = QGetVirtualFileSystem();
  std::unique_ptr<QFile> file(vfs ? vfs->OpenFile(name, QFile::READ)
                                  : new QFile(name, QFile::READ));
  if (!file || !file->IsOpen()) {
    QWARN("DDDS::Load", "Can't open DDS '%s'", name ? name : "");
    return false;
  }
  const int fileSize = file->Size();
  // Read the header first; the rest only as far as the header's levels reach.
  uint8_t header[HEADER_BYTES] = {};
  const int got = file->Read(header, std::min(fileSize, HEADER_BYTES));
  if (got < HEADER_BYTES) return Parse(header, size_t(std::max(got, 0)), name);
  size_t want = HEADER_BYTES;
  {
    DDDS probe;
    if (!probe.ReadHeader(header, HEADER_BYTES, name, false))
      return Parse(header, HEADER_BYTES, name);  // reports the header's fault
    int w = probe.width_, h = probe.height_;
    for (int i = 0; i < probe.levels_; ++i) {
      want += probe.LevelBytes(w, h);
      w = std::max(1, w / 2);
      h = std::max(1, h / 2);
    }
  }
  want = std::min(want, size_t(fileSize));
  Block bytes(static_cast<uint8_t*>(qmalloc(want)));
  if (!bytes) {
    QERR("DDDS::Load", "DDDS:Load(%s); out of memory for mipmap level %d", name, 0);
    return false;
  }
  memcpy(bytes.get(), header, HEADER_BYTES);
  const int rest = int(want - HEADER_BYTES);
  const int read = rest > 0 ? file->Read(bytes.get() + HEADER_BYTES, rest) : 0;
  return Parse(bytes.get(), HEADER_BYTES + size_t(std::max(read, 0)), name);
}

bool DDDS::ReadHeader(const uint8_t* data, size_t length, const char* name, bool report) {
  Free();
  const bool quiet = !report;
  if (!name) name = "";
  uint8_t magicBytes[4] = {};
  if (data) memcpy(magicBytes, data, std::min<size_t>(length, 4));
  const uint32_t magic = Le32(magicBytes);
  if (magic != kMagic) {
    if (!quiet)
      QWARN("DDDS::Load", "DDS file '%s' doesn't start with the right magic number (0x%x)", name,
            magic);
    return false;
  }
  if (length < size_t(HEADER_BYTES)) {
    if (!quiet)
      QWARN("DDDS::Load", "DDDS:Load(%s); header cut short at '%d' bytes", name, int(length));
    return false;
  }
  const uint8_t* h = data + 4;
  const int height = int(Le32(h + kHeight)), width = int(Le32(h + kWidth));
  if (width < 1 || width > MAX_SIZE || height < 1 || height > MAX_SIZE) {
    if (!quiet)
      QWARN("DDDS::Load", "DDDS:Load(%s); size '%dx%d' out of range", name, width, height);
    return false;
  }
  int mipCount = int(Le32(h + kMipCount));
  if (mipCount < 1) {
    if (!quiet) QDBG("DDDS::Load", "DDDS:Load: Changing dwMipMapCount to 1, was %d", mipCount);
    mipCount = 1;
  }
  const bool linear = DGlobal::Settings().linearColour != 0;
  if (Le32(h + kPfFlags) & kFourCCFlag) {
    const uint8_t* cc = h + kFourCC;
    if (memcmp(cc, "DXT1", 4) == 0) {
      blockBytes_ = 8;
      format_ = linear ? GL_COMPRESSED_RGBA_S3TC_DXT1_EXT : GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT1_EXT;
    } else if (memcmp(cc, "DXT3", 4) == 0) {
      blockBytes_ = 16;
      format_ = linear ? GL_COMPRESSED_RGBA_S3TC_DXT3_EXT : GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT3_EXT;
    } else if (memcmp(cc, "DXT5", 4) == 0) {
      blockBytes_ = 16;
      format_ = linear ? GL_COMPRESSED_RGBA_S3TC_DXT5_EXT : GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT5_EXT;
    } else {
      char text[5] = {};
      for (int i = 0; i < 4; ++i) text[i] = cc[i] >= 32 && cc[i] < 127 ? char(cc[i]) : '?';
      if (!quiet)
        QWARN("DDDS::Load", "DDDS:Load(%s); unknown compressed format (%s)", name, text);
      return false;
    }
  } else {
    if (Le32(h + kBitCount) != 32) {
      if (!quiet)
        QWARN("DDDS::Load", "DDDS:Load(%s); unknown DDS format (rgb bitcount not 32, not DXT5)",
              name);
      return false;
    }
    if (!quiet)
      QWARN("DDDS::Load", "DDDS:Load(%s); DDS format might be unreliable, pls use DXT5.", name);
    blockBytes_ = 0;
    format_ = Le32(h + kRedMask) == 0x000000ffu ? GL_RGBA : GL_BGRA;
  }
  width_ = width;
  height_ = height;
  levels_ = std::min(mipCount, MAX_LEVELS);
  return true;
}

bool DDDS::Parse(const uint8_t* data, size_t length, const char* name) {
  if (!name) name = "";
  if (!ReadHeader(data, length, name, true)) return false;
  size_t offset = HEADER_BYTES;
  int w = width_, hh = height_;
  for (int i = 0; i < levels_; ++i) {
    const size_t size = LevelBytes(w, hh);
    if (size > length - offset) {
      if (i == 0) {
        QWARN("DDDS::Load", "DDDS:Load(%s); file too short for mipmap level %d ('%d' bytes)",
              name, i, int(length));
        Free();
        return false;
      }
      break;  // later levels stay missing
    }
    data_[i].reset(static_cast<uint8_t*>(qmalloc(size)));
    if (!data_[i]) {
      QERR("DDDS::Load", "DDDS:Load(%s); out of memory for mipmap level %d", name, i);
      Free();
      return false;
    }
    memcpy(data_[i].get(), data + offset, size);
    sizes_[i] = size;
    FlipLevel(data_[i].get(), w, hh);
    offset += size;
    w = std::max(1, w / 2);
    hh = std::max(1, hh / 2);
  }
  return true;
}

void DDDS::FlipLevel(uint8_t* p, int w, int h) const {
  if (!blockBytes_) {
    const size_t row = size_t(w) * 4;
    for (int y = 0; y < h / 2; ++y)
      std::swap_ranges(p + size_t(y) * row, p + size_t(y + 1) * row, p + size_t(h - 1 - y) * row);
    return;
  }
  const int bw = (w + 3) / 4, bh = (h + 3) / 4;
  const size_t row = size_t(bw) * size_t(blockBytes_);
  for (int y = 0; y < bh / 2; ++y)
    std::swap_ranges(p + size_t(y) * row, p + size_t(y + 1) * row, p + size_t(bh - 1 - y) * row);
  // Inside each block only the rows the level really has change places.
  const int n = std::min(h, 4);
  for (size_t i = 0; i < size_t(bw) * size_t(bh); ++i) {
    uint8_t* b = p + i * size_t(blockBytes_);
    if (blockBytes_ == 8) {
      FlipColourRows(b, n);
    } else if (format_ == GL_COMPRESSED_RGBA_S3TC_DXT3_EXT ||
               format_ == GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT3_EXT) {
      FlipExplicitAlphaRows(b, n);
      FlipColourRows(b + 8, n);
    } else {
      FlipInterpolatedAlphaRows(b, n);
      FlipColourRows(b + 8, n);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Upload
// ---------------------------------------------------------------------------------------------

bool DDDS::CreateTexture(DTexture* tex) const {
  if (!tex || levels_ == 0 || !data_[0] || !DGlobal::IsOpenGLAvailable()) return false;
  if (levels_ == 1) tex->EnableMipmap(false);
  tex->SetSize(width_, height_);
  if (!tex->CreateTexture()) return false;
  tex->Select();
  DGlobal::CheckGLErrors("DDDS:CreateTexture() 1");
  const bool linear = DGlobal::Settings().linearColour != 0;
  int w = width_, h = height_, last = 0;
  for (int i = 0; i < levels_; ++i) {
    if (!data_[i]) {
      QERR("DDDS::CreateTexture", "DDDS:CreateTexture(); missing pixels for mipmap level %d", i);
      break;
    }
    if (blockBytes_) {
      glCompressedTexImage2D(GL_TEXTURE_2D, i, format_, w, h, 0, GLsizei(sizes_[i]),
                             data_[i].get());
      GLint compressed = 0;
      glGetTexLevelParameteriv(GL_TEXTURE_2D, i, GL_TEXTURE_COMPRESSED, &compressed);
      if (!compressed)
        QERR("DDDS::CreateTexture",
             "DDDS:CreateTexture(); mipmap level %d indicated compression failed", i);
    } else {
      glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
      glTexImage2D(GL_TEXTURE_2D, i, linear ? GL_RGBA : GL_SRGB8_ALPHA8, w, h, 0, format_,
                   GL_UNSIGNED_BYTE, data_[i].get());
    }
    last = i;
    w = std::max(1, w / 2);
    h = std::max(1, h / 2);
  }
  // The chain ends at the last level given, so a mipmapped filter still finds it complete.
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, last);
  return DGlobal::CheckGLErrors("DDDS:CreateTexture() 2") == 0;
}
