// DTexture: an OpenGL 2D texture object; DBitMapTexture: one made from a QBitMap.
//
// A texture owns exactly one GL name from CreateTexture until it is destroyed (the destructor
// unbinds it and deletes the name); it is not copyable. It is touched only while OpenGL is
// available (DGlobal::IsOpenGLAvailable) and only on the thread that made the context. Until
// created its id is 0. Filters, wrap modes, mipmaps and compression are fixed at creation:
// changing the mipmap choice afterwards is refused with a warning.
//
// Sizes are exact: a bitmap of 1000 x 750 gives a texture of 1000 x 750, never a power of two.
// Bitmap rows are bottom-up, so the first uploaded row is the picture's bottom line, which
// matches OpenGL's texture coordinate origin.
//
// Reference counting: CreateTexture sets the count to 1; Detach lowers it and answers true
// exactly when it reaches 0, and then the holder deletes the texture. A process-wide table keeps
// the last known name of texture ids 0 .. 199 for the leak report made when a context hands out
// its first texture id.
//
// Internal format (from the requested GL_RGBA or GL_RGB): compressed flag clear and the
// linear-colour byte set give GL_RGBA / GL_RGB; byte clear gives GL_SRGB8_ALPHA8; compressed
// with the byte set GL_COMPRESSED_RGBA / GL_COMPRESSED_RGB, with it clear
// GL_COMPRESSED_SRGB_ALPHA (see d3/dglobal.h for why the byte follows the framebuffer).
#pragma once

#include <cstdint>

#include "framework/qobject.h"

class QBitMap;

class DTexture : public QObject {
 public:
  enum Flags : uint32_t {
    TRANSPARENT = 1,  // has transparency
    MIPMAP = 2,       // mipmaps wanted (default)
    COMPRESSED = 8,   // compressed storage
    PBO_UPLOAD = 16,  // pixel-buffer upload in use
  };
  static constexpr int NAME_TABLE_SIZE = 200;
  static constexpr int NAME_LENGTH = 200;

  // Defaults: mipmaps on, GL_LINEAR_MIPMAP_LINEAR / GL_LINEAR, GL_REPEAT; compression when the
  // settings allow it and the context supports it.
  explicit DTexture(const char* name = nullptr);
  // Unbinds and deletes the GL name (when OpenGL is available). Never fails.
  ~DTexture() override;
  const char* ClassName() const override { return "DTexture"; }

  // Makes the GL texture at the current size. Stops, uncreated, without a current context;
  // errors "Failed to create textureID (%s)" (plus the thread hint) when the driver gives no
  // name. A second call warns "DTexture::CreateTexture(); texture was already created (%s)" and
  // makes another name. False when no name was made.
  bool CreateTexture();
  // Fixes the size before creation; "DTexture::SetSize() called twice for the same object (%s)"
  // and false once a size is set.
  bool SetSize(int width, int height);
  // Binds the texture (OpenGL available); error "DTexture:Select(); no OpenGL context yet"
  // when it was never created in a context.
  void Select();
  // Before creation only; afterwards "DTexture:EnableMipmap() called after creation (%s)" and
  // nothing changes. Off also sets the filters to GL_NEAREST (min) / GL_LINEAR (mag).
  void EnableMipmap(bool on);
  // Before creation: no mipmaps, linear filtering both ways and edges clamped, for a picture
  // made at about the size it is drawn (no chain to build, no wrap-around at the borders).
  // Afterwards it warns as EnableMipmap does and changes nothing.
  void UsePictureFiltering();
  // On takes effect only when the settings allow compression; the internal format follows.
  void EnableCompression(bool on);
  void SetTransparent(bool on);
  // One holder less; true when the last one went (delete it then). Below zero: false and, with
  // OpenGL available, "DTexture:Detach(); refCount<0 (refCount=%d); too many Detach() calls".
  bool Detach();
  // Logs the size, wrap modes and filters as OpenGL reports them; the binding is restored.
  void DbgPrint(const char* label);

  // GL names held by all textures of the process now (made and not yet deleted). Cannot fail.
  static int GetLiveCount();

  // The internal-format rule of the header text.
  static unsigned int ChooseInternalFormat(unsigned int requested, bool compressed, bool linear);

  unsigned int GetID() const { return id_; }
  int GetWidth() const { return width_; }
  int GetHeight() const { return height_; }
  int GetRefCount() const { return refCount_; }
  uint32_t GetFlags() const { return flags_; }
  int GetBytesPerPixel() const { return bytesPerPixel_; }
  unsigned int GetTarget() const { return target_; }
  unsigned int GetInternalFormat() const { return internalFormat_; }
  unsigned int GetMinFilter() const { return minFilter_; }
  unsigned int GetMagFilter() const { return magFilter_; }
  // The context the texture was created in; null before.
  void* GetContext() const { return context_; }

 protected:
  // Re-applies the internal-format rule to GL_RGBA with the current flags and settings.
  void ChooseFormat();

  int32_t refCount_ = 0;
  void* context_ = nullptr;
  uint32_t id_ = 0;
  uint8_t* pixels_ = nullptr;  // optional owned copy (qmalloc); unused by bitmap textures
  int32_t bytesPerPixel_ = 0;
  uint32_t flags_ = MIPMAP;
  int32_t width_ = 0;
  int32_t height_ = 0;
  unsigned int target_;
  unsigned int internalFormat_ = 0;
  unsigned int minFilter_;
  unsigned int magFilter_;
  unsigned int wrap_[4];  // S, T, R and a fourth
  float lodRange_[2] = {0.0f, 1000.0f};  // kept for the level-of-detail range; not applied
};

class DBitMapTexture : public DTexture {
 public:
  // Not uploaded yet: set mipmaps, compression and transparency, then FromBitMap.
  DBitMapTexture() = default;
  // Names the texture and uploads `bitmap` (borrowed; the texture keeps no pointer to it).
  DBitMapTexture(QBitMap* bitmap, const char* name);
  // The same, named after the bitmap object.
  explicit DBitMapTexture(QBitMap* bitmap);
  const char* ClassName() const override { return "DBitMapTexture"; }

  // Uploads the bitmap at the texture's size, creating the texture on first use. Does nothing
  // (false) while OpenGL is unavailable. False with a warning for an empty bitmap or one whose
  // block is smaller than the texture; GL errors are reported under
  // "DBitmapTexture:FromBitMap()" and answer false.
  bool FromBitMap(QBitMap* bitmap);
  // Replaces the pixels of a texture already made by FromBitMap with `bitmap`'s, which must
  // have the same size: the next frame of an animation. False, with a warning, for another size
  // or no texture yet; GL errors as for FromBitMap.
  bool Update(QBitMap* bitmap);
  // Replaces only rows first .. first + count - 1 (memory rows, bottom-up) with `bitmap`'s, of
  // the texture's size; false with a warning as Update, or for rows outside the texture.
  bool UpdateRows(QBitMap* bitmap, int first, int count);

  int GetBitMapWidth() const { return bitmapWidth_; }
  int GetBitMapHeight() const { return bitmapHeight_; }

 private:
  int32_t bitmapWidth_ = 0;
  int32_t bitmapHeight_ = 0;
};

// A texture the program draws into: its pixels come from what was rendered, copied out of the
// current read buffer (normally the window's back buffer). Not used by the slideshow.
class DDrawableTexture : public DTexture {
 public:
  // Sized now, created by the first copy; mipmaps off (a rendered picture changes too often).
  DDrawableTexture(int width, int height, const char* name = nullptr);
  const char* ClassName() const override { return "DDrawableTexture"; }

  // Copies the texture's size of pixels from the read buffer, lower-left corner at window
  // pixel (x, y counted from the bottom), creating the texture on first use. False while OpenGL
  // is unavailable or without a context; GL errors are reported under
  // "DDrawableTexture:CopyFromScreen()" and answer false.
  bool CopyFromScreen(int x, int y);
};

// A volume texture (GL_TEXTURE_3D): equally sized slices stacked in depth. Not used by the
// slideshow.
class DTexture3D : public DTexture {
 public:
  explicit DTexture3D(const char* name = nullptr);
  const char* ClassName() const override { return "DTexture3D"; }

  // Uploads `count` 32-bit bitmaps of one size as slices 0 .. count - 1 (borrowed), creating
  // the texture on first use. False, with a warning, for no slices or slices of another depth
  // or size than the first; false while OpenGL is unavailable. GL errors are reported under
  // "DTexture3D:FromBitMaps()".
  bool FromBitMaps(QBitMap* const* slices, int count);
  int GetDepth() const { return depth_; }

 private:
  int32_t depth_ = 0;
};

// The name table: a negative id is reported as "Bad id '%d' passed"; ids 0 .. 199 keep up to
// 200 characters, larger ones are ignored. A bitmap texture named before creation enters at most
// 199 of them.
void DTextureSetLastKnownTextureName(int id, const char* name);
// "<bad_texture_id>" for a negative id (reported), the stored name for 0 .. 200 (200 is always
// empty: the bound is one higher than the setter's on purpose), "<texture_id_N_too_high>"
// beyond (a process-wide buffer, overwritten by the next such call).
const char* DTextureGetLastKnownTextureName(int id);
