// DTexture and DBitMapTexture: creation, upload, reference counts and the name table.
#define GL_GLEXT_PROTOTYPES
#include "d3/dtexture.h"

#include <GL/gl.h>
#include <GL/glext.h>

#include <cstdio>
#include <cstring>

#include "d3/dglobal.h"
#include "framework/qbitmap.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/qopengl.h"

namespace {

// One more entry than the setter fills, so that the getter's bound of 200 stays inside; each
// keeps NAME_LENGTH characters and its terminator.
char g_names[DTexture::NAME_TABLE_SIZE + 1][DTexture::NAME_LENGTH + 1];
char g_tooHigh[64];
// Id found still in use by the first-texture check; a later creation of it may be a leak.
int g_suspectId = 0;
// GL names held by textures right now; soak runs watch it for textures that are never released.
int g_liveTextures = 0;

constexpr int kLeakCheckIds = 199;

const char* NameOf(const QObject* o) {
  const char* n = o->GetName();
  return n && *n ? n : "unnamed";
}

void LeakCheck() {
  QINFO("DTexture::CreateTexture", "## First texture; verify that all textures are released\n");
  int active = 0;
  for (int id = 1; id <= kLeakCheckIds; ++id) {
    if (!glIsTexture(GLuint(id))) continue;
    QWARN("DTexture::CreateTexture", "Texture ID %d is still in use; possible memory leak ['%s']",
          id, DTextureGetLastKnownTextureName(id));
    if (!active) g_suspectId = id;
    ++active;
  }
  if (active)
    QERR("DTexture::CreateTexture", "Unreleased texture(s) exist (%d are active)", active);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Name table
// ---------------------------------------------------------------------------------------------

void DTextureSetLastKnownTextureName(int id, const char* name) {
  if (id < 0) {
    QERR("DTextureSetLastKnownTextureName", "Bad id '%d' passed", id);
    return;
  }
  if (id >= DTexture::NAME_TABLE_SIZE) return;
  snprintf(g_names[id], sizeof(g_names[id]), "%s", name ? name : "");
}

const char* DTextureGetLastKnownTextureName(int id) {
  if (id < 0) {
    QERR("DTextureGetLastKnownTextureName", "Bad id '%d' passed", id);
    return "<bad_texture_id>";
  }
  if (id <= DTexture::NAME_TABLE_SIZE) return g_names[id];
  snprintf(g_tooHigh, sizeof(g_tooHigh), "<texture_id_%d_too_high>", id);
  return g_tooHigh;
}

// ---------------------------------------------------------------------------------------------
// DTexture
// ---------------------------------------------------------------------------------------------

DTexture::DTexture(const char* name)
    : QObject(name),
      target_(GL_TEXTURE_2D),
      minFilter_(GL_LINEAR_MIPMAP_LINEAR),
      magFilter_(GL_LINEAR),
      wrap_{GL_REPEAT, GL_REPEAT, GL_REPEAT, GL_REPEAT} {
  if (DGlobal::Settings().compressionAllowed && DGlobal::SupportsCompression())
    flags_ |= COMPRESSED;
  ChooseFormat();
}

DTexture::~DTexture() {
  if (id_ && DGlobal::IsOpenGLAvailable()) {
    glBindTexture(target_, 0);
    GLuint id = id_;
    glDeleteTextures(1, &id);
    --g_liveTextures;
  }
  id_ = 0;
  qfree(pixels_);
  pixels_ = nullptr;
}

int DTexture::GetLiveCount() { return g_liveTextures; }

unsigned int DTexture::ChooseInternalFormat(unsigned int requested, bool compressed,
                                            bool linear) {
  if (!compressed) {
    if (!linear) return GL_SRGB8_ALPHA8;
    switch (requested) {
      case GL_RGB:
      case GL_COMPRESSED_RGB:
        return GL_RGB;
      default:
        return GL_RGBA;
    }
  }
  if (requested != GL_RGBA && requested != GL_RGB) return requested;
  if (!linear) return GL_COMPRESSED_SRGB_ALPHA;
  return requested == GL_RGB ? GL_COMPRESSED_RGB : GL_COMPRESSED_RGBA;
}

void DTexture::ChooseFormat() {
  internalFormat_ = ChooseInternalFormat(GL_RGBA, (flags_ & COMPRESSED) != 0,
                                         DGlobal::Settings().linearColour != 0);
}

bool DTexture::SetSize(int width, int height) {
  if (width_ != 0 || height_ != 0) {
    QERR("DTexture::SetSize", "DTexture::SetSize() called twice for the same object (%s)",
         NameOf(this));
    return false;
  }
  width_ = width;
  height_ = height;
  return true;
}

bool DTexture::CreateTexture() {
  if (refCount_ > 0)
    QWARN("DTexture::CreateTexture", "DTexture::CreateTexture(); texture was already created (%s)",
          NameOf(this));
  if (!DGlobal::IsOpenGLAvailable()) return false;
  void* context = QGLGetCurrentContext();
  if (!context) return false;
  context_ = context;

  GLuint id = 0;
  glGenTextures(1, &id);
  if (id == 0) {
    QERR("DTexture::CreateTexture", "Failed to create textureID (%s)", NameOf(this));
    DGlobal::CheckGLErrors("DTexture::CreateTexture");
    if (!QGLIsContextThread())
      QERR("DTexture::CreateTexture",
           "You are calling this function from a different thread than the OpenGL context "
           "creation thread");
    return false;
  }
  // A second creation leaves the previous name alone only if someone else owns it; ours goes.
  if (id_) {
    GLuint old = id_;
    glDeleteTextures(1, &old);
  } else {
    ++g_liveTextures;
  }
  id_ = id;
  if (g_suspectId && int(id) == g_suspectId) {
    QERR("DTexture::CreateTexture",
         "Creation of texture ID %d (%s) spotted; this ID was previously marked as still in use, "
         "so perhaps leaking",
         int(id), NameOf(this));
    g_suspectId = 0;
  }
  DTextureSetLastKnownTextureName(int(id), NameOf(this));
  if (id == 1) LeakCheck();

  glBindTexture(target_, id);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  if (target_ == GL_TEXTURE_2D)
    glTexImage2D(target_, 0, GL_RGBA, width_, height_, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  glTexParameteri(target_, GL_TEXTURE_MIN_FILTER, GLint(minFilter_));
  glTexParameteri(target_, GL_TEXTURE_MAG_FILTER, GLint(magFilter_));
  glTexParameteri(target_, GL_TEXTURE_WRAP_S, GLint(wrap_[0]));
  glTexParameteri(target_, GL_TEXTURE_WRAP_T, GLint(wrap_[1]));
  glTexParameteri(target_, GL_TEXTURE_WRAP_R, GLint(wrap_[2]));
  if (DGlobal::HasAnisotropy())
    glTexParameterf(target_, GL_TEXTURE_MAX_ANISOTROPY_EXT, DGlobal::Settings().anisotropy);

  ++refCount_;
  switch (internalFormat_) {
    case GL_RGB:
    case GL_COMPRESSED_RGB:
      bytesPerPixel_ = 3;
      break;
    case GL_RGBA:
    case GL_COMPRESSED_RGBA:
    case GL_SRGB8_ALPHA8:
    case GL_COMPRESSED_SRGB_ALPHA:
      bytesPerPixel_ = 4;
      break;
    default:
      bytesPerPixel_ = 0;
  }
  return true;
}

void DTexture::Select() {
  if (!context_) {
    QERR("DTexture::Select", "DTexture:Select(); no OpenGL context yet");
    return;
  }
  if (DGlobal::IsOpenGLAvailable()) glBindTexture(target_, id_);
}

void DTexture::UsePictureFiltering() {
  EnableMipmap(false);
  if (id_) return;
  minFilter_ = magFilter_ = GL_LINEAR;
  wrap_[0] = wrap_[1] = wrap_[2] = GL_CLAMP_TO_EDGE;
}

void DTexture::EnableMipmap(bool on) {
  if (id_) {
    QWARN("DTexture::EnableMipmap", "DTexture:EnableMipmap() called after creation (%s)",
          NameOf(this));
    return;
  }
  if (on) {
    flags_ |= MIPMAP;
  } else {
    flags_ &= ~uint32_t(MIPMAP);
    minFilter_ = GL_NEAREST;
    magFilter_ = GL_LINEAR;
  }
}

void DTexture::EnableCompression(bool on) {
  if (on && DGlobal::Settings().compressionAllowed)
    flags_ |= COMPRESSED;
  else if (!on)
    flags_ &= ~uint32_t(COMPRESSED);
  ChooseFormat();
}

void DTexture::SetTransparent(bool on) {
  flags_ = on ? (flags_ | TRANSPARENT) : (flags_ & ~uint32_t(TRANSPARENT));
}

bool DTexture::Detach() {
  --refCount_;
  if (refCount_ > 0) return false;
  if (refCount_ == 0) return true;
  if (DGlobal::IsOpenGLAvailable())
    QERR("DTexture::Detach", "DTexture:Detach(); refCount<0 (refCount=%d); too many Detach() calls",
         refCount_);
  return false;
}

void DTexture::DbgPrint(const char* label) {
  qmessage("DTexture '%s' %dx%d dbgprint (%s)\n", NameOf(this), width_, height_,
           label ? label : "");
  if (!id_ || !DGlobal::IsOpenGLAvailable()) return;
  GLint previous = 0;
  glGetIntegerv(target_ == GL_TEXTURE_3D ? GL_TEXTURE_BINDING_3D : GL_TEXTURE_BINDING_2D,
                &previous);
  glBindTexture(target_, id_);
  GLint s = 0, t = 0, mag = 0, min = 0;
  glGetTexParameteriv(target_, GL_TEXTURE_WRAP_S, &s);
  glGetTexParameteriv(target_, GL_TEXTURE_WRAP_T, &t);
  glGetTexParameteriv(target_, GL_TEXTURE_MAG_FILTER, &mag);
  glGetTexParameteriv(target_, GL_TEXTURE_MIN_FILTER, &min);
  qmessage("- Wrap: S 0x%x T 0x%x, GL_CLAMP_TO_EDGE 0x%x\n", unsigned(s), unsigned(t),
           unsigned(GL_CLAMP_TO_EDGE));
  qmessage("- Filtering: Mag 0x%x Min 0x%x\n", unsigned(mag), unsigned(min));
  glBindTexture(target_, GLuint(previous));
}

// ---------------------------------------------------------------------------------------------
// DBitMapTexture
// ---------------------------------------------------------------------------------------------

DBitMapTexture::DBitMapTexture(QBitMap* bitmap, const char* name) {
  SetName(name);
  if (id_ >= 1 && id_ < NAME_TABLE_SIZE) {
    char shortName[NAME_LENGTH];  // this entry keeps one character less than the table allows
    snprintf(shortName, sizeof(shortName), "%s", name ? name : "");
    DTextureSetLastKnownTextureName(int(id_), shortName);
  }
  FromBitMap(bitmap);
}

DBitMapTexture::DBitMapTexture(QBitMap* bitmap)
    : DBitMapTexture(bitmap, bitmap ? bitmap->GetName() : nullptr) {}

bool DBitMapTexture::FromBitMap(QBitMap* bitmap) {
  if (!DGlobal::IsOpenGLAvailable()) return false;
  if (!bitmap || !bitmap->GetBuffer() || bitmap->GetDepth() != 32) {
    QWARN("DBitMapTexture::FromBitMap", "DBitmapTexture:FromBitMap(); no 32-bit pixels (%s)",
          GetName());
    return false;
  }
  bitmapWidth_ = bitmap->GetWidth();
  bitmapHeight_ = bitmap->GetHeight();
  if (!id_) {
    if (width_ == 0 && height_ == 0)
      SetSize(bitmapWidth_, bitmapHeight_);
    else
      QERR("DBitMapTexture::FromBitMap",
           "DTexture::SetSize() called twice for the same object (%s)", GetName());
    if (!CreateTexture()) return false;
  } else {
    Select();
  }
  // The upload reads a texture's worth of pixels: refuse a bitmap that holds fewer.
  const long long need = 4LL * width_ * height_;
  if (width_ <= 0 || height_ <= 0 || need > bitmap->GetSize()) {
    QWARN("DBitMapTexture::FromBitMap",
          "DBitmapTexture:FromBitMap(); bitmap %dx%d doesn't fill texture %dx%d (%s)",
          bitmapWidth_, bitmapHeight_, width_, height_, GetName());
    return false;
  }
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_PACK_ROW_LENGTH, 0);
  glPixelStorei(GL_PACK_SKIP_ROWS, 0);
  glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
  glTexImage2D(target_, 0, GLint(internalFormat_), width_, height_, 0, GL_RGBA, GL_UNSIGNED_BYTE,
               bitmap->GetBuffer());
  if (flags_ & MIPMAP) {
    glEnable(GL_TEXTURE_2D);
    if (DGlobal::Settings().autoMipmap && DGlobal::CanGenerateMipmaps()) {
      glGenerateMipmap(target_);
    } else if (minFilter_ != GL_NEAREST && minFilter_ != GL_LINEAR) {
      // Without a chain a mipmapped filter would leave the texture incomplete (black).
      minFilter_ = GL_LINEAR;
      glTexParameteri(target_, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    }
  }
  return DGlobal::CheckGLErrors("DBitmapTexture:FromBitMap()") == 0;
}

bool DBitMapTexture::Update(QBitMap* bitmap) { return UpdateRows(bitmap, 0, height_); }

bool DBitMapTexture::UpdateRows(QBitMap* bitmap, int first, int count) {
  if (!DGlobal::IsOpenGLAvailable()) return false;
  if (!id_ || !bitmap || !bitmap->GetBuffer() || bitmap->GetDepth() != 32 ||
      bitmap->GetWidth() != width_ || bitmap->GetHeight() != height_ ||
      4LL * width_ * height_ > bitmap->GetSize() || first < 0 || count < 0 ||
      first > height_ - count) {
    QWARN("DBitMapTexture::Update",
          "DBitmapTexture:Update(); bitmap %dx%d for texture %dx%d, rows '%d+%d' (%s)",
          bitmap ? bitmap->GetWidth() : 0, bitmap ? bitmap->GetHeight() : 0, width_, height_,
          first, count, GetName());
    return false;
  }
  Select();
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
  glTexSubImage2D(target_, 0, 0, first, width_, count, GL_RGBA, GL_UNSIGNED_BYTE,
                  bitmap->GetBuffer() + size_t(first) * size_t(width_) * 4);
  if ((flags_ & MIPMAP) && DGlobal::Settings().autoMipmap && DGlobal::CanGenerateMipmaps())
    glGenerateMipmap(target_);
  return DGlobal::CheckGLErrors("DBitmapTexture:Update()") == 0;
}

// ---------------------------------------------------------------------------------------------
// DDrawableTexture
// ---------------------------------------------------------------------------------------------

DDrawableTexture::DDrawableTexture(int width, int height, const char* name) : DTexture(name) {
  EnableMipmap(false);
  SetSize(width, height);
}

bool DDrawableTexture::CopyFromScreen(int x, int y) {
  if (!DGlobal::IsOpenGLAvailable()) return false;
  if (!id_) {
    if (!CreateTexture()) return false;
    // The copy below fills the level: give it the chosen internal format first.
    glTexImage2D(target_, 0, GLint(internalFormat_), width_, height_, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, nullptr);
  } else {
    Select();
  }
  glCopyTexSubImage2D(target_, 0, 0, 0, x, y, width_, height_);
  return DGlobal::CheckGLErrors("DDrawableTexture:CopyFromScreen()") == 0;
}

// ---------------------------------------------------------------------------------------------
// DTexture3D
// ---------------------------------------------------------------------------------------------

DTexture3D::DTexture3D(const char* name) : DTexture(name) {
  target_ = GL_TEXTURE_3D;
  // Slices are uploaded as they are; no chain is made for a volume.
  EnableMipmap(false);
}

bool DTexture3D::FromBitMaps(QBitMap* const* slices, int count) {
  if (!DGlobal::IsOpenGLAvailable()) return false;
  const QBitMap* first = slices && count > 0 ? slices[0] : nullptr;
  if (!first || !first->GetBuffer() || first->GetDepth() != 32) {
    QWARN("DTexture3D::FromBitMaps", "DTexture3D:FromBitMaps(); no 32-bit slices (%s)",
          NameOf(this));
    return false;
  }
  const int w = first->GetWidth(), h = first->GetHeight();
  const size_t sliceBytes = size_t(w) * size_t(h) * 4;
  for (int i = 0; i < count; ++i) {
    const QBitMap* b = slices[i];
    if (!b || !b->GetBuffer() || b->GetDepth() != 32 || b->GetWidth() != w ||
        b->GetHeight() != h || size_t(b->GetSize()) < sliceBytes) {
      QWARN("DTexture3D::FromBitMaps", "DTexture3D:FromBitMaps(); slice %d is not %dx%d (%s)", i,
            w, h, NameOf(this));
      return false;
    }
  }
  if (id_ && (w != width_ || h != height_ || count != depth_)) {
    QWARN("DTexture3D::FromBitMaps", "DTexture3D:FromBitMaps(); %dx%dx%d doesn't fit %dx%dx%d (%s)",
          w, h, count, width_, height_, depth_, NameOf(this));
    return false;
  }
  uint8_t* volume = static_cast<uint8_t*>(qmalloc(sliceBytes * size_t(count)));
  if (!volume) {
    QWARN("DTexture3D::FromBitMaps", "DTexture3D:FromBitMaps(); out of memory (%s)",
          NameOf(this));
    return false;
  }
  for (int i = 0; i < count; ++i) memcpy(volume + sliceBytes * size_t(i), slices[i]->GetBuffer(),
                                         sliceBytes);
  if (!id_) {
    SetSize(w, h);
    depth_ = count;
    if (!CreateTexture()) {
      qfree(volume);
      return false;
    }
  } else {
    Select();
  }
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_UNPACK_IMAGE_HEIGHT, 0);
  glPixelStorei(GL_UNPACK_SKIP_IMAGES, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
  glTexImage3D(target_, 0, GLint(internalFormat_), width_, height_, depth_, 0, GL_RGBA,
               GL_UNSIGNED_BYTE, volume);
  qfree(volume);
  return DGlobal::CheckGLErrors("DTexture3D:FromBitMaps()") == 0;
}
