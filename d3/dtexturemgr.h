// DTextureManager: the graphics library's texture cache, making each texture once from an
// image file name and sharing it through 1-based references (QObjectManager).
//
// Pictures are found with QFileExists and read with QImage; names containing ".dds" or ".DDS"
// go through DDDS. When something cannot be had (textures disabled, a missing picture, a failed
// or forbidden DDS) the reference still gets a texture, made from a small generated stub
// bitmap, so that whatever draws it shows the stub instead of nothing. The manager flags bits
// 16 (mipmaps) and 17 (compression) apply to new textures; both are set at construction.
//
// The manager owns the textures it made; releasing the last reference detaches the texture and
// deletes it. Main thread only (textures need the OpenGL context's thread).
#pragma once

#include "framework/qobjectmgr.h"

class DTexture;
class QBitMap;

class DTextureManager : public QObjectManager {
 public:
  enum Flags : int {
    MIPMAP_NEW = 1 << 16,
    COMPRESS_NEW = 1 << 17,
  };
  static constexpr int CAPACITY = 5000;

  DTextureManager();
  ~DTextureManager() override;

  // The texture of `ref`; null for a free slot, and null with "DTextureManager:GetTexture(ref
  // %d) out of range" for ref <= 0.
  DTexture* GetTexture(int ref) const;
  // A texture for `name` (see the header text); never null. The caller (normally the base
  // through CreateObject) owns it.
  DTexture* MakeObject(const char* name);
  // Lists every live texture and how many stay unreleased.
  void DbgPrint() override;

  // A new generated stub picture (8 x 8 checks); the caller deletes it.
  static QBitMap* MakeStubBitMap();

 protected:
  void* CreateObject(const char* name) override;
  // Detaches the texture and deletes it when that was the last holder, or when it was never
  // created (nothing else can hold it).
  void DestroyObject(void* object, int ref) override;

 private:
  DTexture* MakeStub(const char* name);
};
