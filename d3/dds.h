// DDDS: a DDS texture file, read into memory level by level and uploaded as a DTexture.
//
// Formats: DXT1 (8-byte blocks), DXT3 and DXT5 (16-byte blocks), each with its sRGB form when
// the linear-colour byte is clear, and uncompressed 32-bit pixels. At most 16 levels are kept;
// each level halves both dimensions down to 1. Rows are stored bottom-up after loading (blocks
// and the rows inside each block are reordered; 32-bit rows reversed), so the pictures come out
// the same way up as bitmaps do.
//
// Every number in the file is distrusted: the size must lie within 1 .. MAX_SIZE, and each
// level's size is checked against the bytes the file still holds before anything is allocated
// or copied. A file that ends inside a later level keeps the levels before it (the rest stays
// missing and is reported at upload). Parsing needs no OpenGL; only CreateTexture does.
//
// The object owns its level blocks (counted allocator). Not copyable; main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

class DTexture;

class DDDS {
 public:
  static constexpr int MAX_LEVELS = 16;
  static constexpr int MAX_SIZE = 16384;
  static constexpr int HEADER_BYTES = 128;  // "DDS " and the 124-byte header

  DDDS() = default;
  ~DDDS();
  DDDS(const DDDS&) = delete;
  DDDS& operator=(const DDDS&) = delete;

  // Reads the file through the virtual file system when one exists, else from disk. False
  // with "Can't open DDS '%s'" or the reason Parse gives; what was loaded before is gone.
  bool Load(const char* name);
  // Takes the file's bytes. False, with a warning naming `name`, for a wrong magic, a short
  // header, a size out of range, an unknown format, no room for level 0, or no memory.
  bool Parse(const uint8_t* data, size_t length, const char* name);
  // Forgets the levels. Cannot fail.
  void Free();

  // Sizes `tex` (which must be uncreated), creates it and uploads the levels; missing levels
  // end the chain with "DDDS:CreateTexture(); missing pixels for mipmap level %d". False without
  // OpenGL, without loaded pixels, or when the texture cannot be made.
  bool CreateTexture(DTexture* tex) const;

  int GetWidth() const { return width_; }
  int GetHeight() const { return height_; }
  int GetLevelCount() const { return levels_; }
  // GL format: a DXT internal format, or GL_RGBA / GL_BGRA for 32-bit pixels.
  unsigned int GetFormat() const { return format_; }
  bool IsCompressed() const { return blockBytes_ != 0; }
  // Pixels of `level` (null when missing or out of range) and their size in bytes.
  const uint8_t* GetLevel(int level) const;
  size_t GetLevelSize(int level) const;
  // Bytes a level of w x h takes in this format.
  size_t LevelBytes(int w, int h) const;

 private:
  struct Deleter {
    void operator()(uint8_t* p) const;
  };
  using Block = std::unique_ptr<uint8_t, Deleter>;

  // Geometry and format from the header; the reasons are logged only when `report` is set.
  bool ReadHeader(const uint8_t* data, size_t length, const char* name, bool report);
  void FlipLevel(uint8_t* p, int w, int h) const;

  int width_ = 0;
  int height_ = 0;
  int levels_ = 0;
  int blockBytes_ = 0;  // 0: uncompressed 32-bit
  unsigned int format_ = 0;
  Block data_[MAX_LEVELS];
  size_t sizes_[MAX_LEVELS] = {};
};
