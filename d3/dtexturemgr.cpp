// DTextureManager: textures made from image files, shared by reference.
#include "d3/dtexturemgr.h"

#include <cstring>
#include <memory>

#include "d3/dds.h"
#include "d3/dglobal.h"
#include "d3/dtexture.h"
#include "framework/qfile.h"
#include "framework/image/qimage.h"
#include "framework/qmessage.h"
#include "framework/qthread.h"

namespace {

constexpr int kStubSize = 8;

bool HasTransparentPixel(const QBitMap* bm) {
  const uint8_t* p = bm->GetBuffer();
  if (!p || bm->GetDepth() != 32) return false;
  for (int i = 3; i < bm->GetSize(); i += 4)
    if (p[i] != 255) return true;
  return false;
}

}  // namespace

DTextureManager::DTextureManager() : QObjectManager("TextureManager", CAPACITY) {
  SetFlags(GetFlags() | MIPMAP_NEW | COMPRESS_NEW);
}

DTextureManager::~DTextureManager() = default;

QBitMap* DTextureManager::MakeStubBitMap() {
  auto* bm = new QBitMap(32, kStubSize, kStubSize);
  uint8_t* p = bm->GetBuffer();
  for (int y = 0; p && y < kStubSize; ++y)
    for (int x = 0; x < kStubSize; ++x, p += 4) {
      const bool dark = ((x / 2) + (y / 2)) % 2 != 0;
      p[0] = dark ? 0 : 255, p[1] = 0, p[2] = dark ? 0 : 255, p[3] = 255;
    }
  return bm;
}

DTexture* DTextureManager::MakeStub(const char* name) {
  std::unique_ptr<QBitMap> bm(MakeStubBitMap());
  return new DBitMapTexture(bm.get(), name);
}

DTexture* DTextureManager::GetTexture(int ref) const {
  if (ref <= 0) {
    QERR("DTextureManager::GetTexture", "DTextureManager:GetTexture(ref %d) out of range", ref);
    return nullptr;
  }
  return static_cast<DTexture*>(GetObject(ref));
}

void* DTextureManager::CreateObject(const char* name) { return MakeObject(name); }

DTexture* DTextureManager::MakeObject(const char* name) {
  if (!name) name = "";
  const DGraphicsSettings& settings = DGlobal::Settings();
  if (!settings.texturesEnabled) return MakeStub("stubimg1");

  if (!strstr(name, ".dds") && !strstr(name, ".DDS")) {
    std::unique_ptr<QImage> img(new QImage());
    if (!QFileExists(name) || !img->Read(name)) {
      QWARN("DTextureManager::MakeObject", "DTextureManager:MakeObject(%s) couldn't find image",
            name);
      return MakeStub(name);
    }
    auto* tex = new DBitMapTexture();
    tex->SetName(name);
    tex->EnableCompression((GetFlags() & COMPRESS_NEW) != 0);
    tex->EnableMipmap((GetFlags() & MIPMAP_NEW) != 0);
    if ((strstr(name, ".bmp") || strstr(name, ".BMP")) && HasTransparentPixel(img.get()))
      tex->SetTransparent(true);
    tex->FromBitMap(img.get());
    return tex;
  }

  if (!settings.ddsAllowed) return MakeStub("subimg1b");
  DDDS dds;
  if (!dds.Load(name)) {
    QWARN("DTextureManager::MakeObject", "Image '%s' loading failed (not found?)", name);
    return MakeStub("");
  }
  auto* tex = new DTexture(name);
  dds.CreateTexture(tex);
  return tex;
}

void DTextureManager::DestroyObject(void* object, int /*ref*/) {
  auto* tex = static_cast<DTexture*>(object);
  if (!tex) return;
  const bool created = tex->GetID() != 0;
  if (tex->Detach() || !created) delete tex;
}

void DTextureManager::DbgPrint() {
  qmessage("DTextureManager (%s)\n", GetName());
  int live = 0, refs = 0;
  for (int ref = 1; ref <= GetCount(); ++ref) {
    DTexture* tex = static_cast<DTexture*>(GetObject(ref));
    if (!tex) continue;
    qSleep(1);
    const int users = GetRefCount(ref);
    qmessage("  tex[%d]=%p: '%s' (refCount %d)\n", ref, static_cast<void*>(tex), tex->GetName(),
             users);
    ++live;
    refs += users;
  }
  if (live)
    qmessage(
        "DTextureManager:DbgPrint(); %d textures NOT RELEASED, total number of references %d\n",
        live, refs);
  else
    qmessage("DTextureManager:DbgPrint(); all textures released\n");
}
