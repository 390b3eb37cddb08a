// QImage colour profiles: keeping a picture's embedded ICC profile, and taking its pixels to sRGB
// through lcms2.
//
// The conversion runs on the screen-size pixels, so its cost follows the screen, not the file.
// The intent is perceptual: for the matrix-and-curve profiles that cameras and phones write
// (Display P3, Adobe RGB) lcms2 has no perceptual tables and it is the same as relative
// colorimetric, while a profile that has them (a scanner's or a print proof's) maps colours
// outside sRGB into it smoothly instead of clipping them flat, which is what a photograph wants.
// lcms2 runs in one context of our own whose errors come to our log; the last transform made is
// kept, since a phone writes the same profile into every picture. Transforms are made without
// lcms2's one-pixel cache, so that the slideshow's loader and its prefetch may share one.
#include <lcms2.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "framework/image/qimage.h"
#include "framework/image/qimage_internal.h"
#include "framework/qmessage.h"

using namespace qimage_detail;

namespace {

// An ICC header is 128 bytes, followed by the tag count.
constexpr size_t kIccHeaderBytes = 132;

// lcms2's text for the call in progress on this thread; null when no call collects it.
thread_local std::string* tlsLcmsError = nullptr;

// lcms2's errors go to the call that made them, which names the picture in its one warning;
// anything else is logged here.
void OnLcmsError(cmsContext, cmsUInt32Number, const char* text) {
  if (tlsLcmsError) {
    if (tlsLcmsError->empty()) *tlsLcmsError = text ? text : "";
  } else {
    QWARN("QImage::ConvertToSRGB", "lcms2: %s", text ? text : "");
  }
}

// The process's lcms2 context, made at first use and kept to the end (transforms in the cache
// belong to it).
cmsContext Context() {
  static const cmsContext context = [] {
    cmsContext c = cmsCreateContext(nullptr, nullptr);
    if (c) cmsSetLogErrorHandlerTHR(c, OnLcmsError);
    return c;
  }();
  return context;
}

// Collects lcms2's error text on this thread while it lives.
struct LcmsErrors {
  std::string text;
  LcmsErrors() { tlsLcmsError = &text; }
  ~LcmsErrors() { tlsLcmsError = nullptr; }
};

struct ProfileCloser {
  void operator()(void* p) const {
    if (p) cmsCloseProfile(p);
  }
};
using Profile = std::unique_ptr<void, ProfileCloser>;
using Transform = std::shared_ptr<void>;

// The transform last made, for the profile it was made from.
struct TransformCache {
  std::mutex mutex;
  std::vector<uint8_t> profile;
  Transform transform;
};
TransformCache& Cache() {
  static TransformCache* cache = new TransformCache();  // outlives every loader thread
  return *cache;
}

// A transform from `icc` to sRGB for RGBA pixels; null, with the reason in `why`, when lcms2
// can't open the profile or it is not for RGB.
Transform MakeTransform(const std::vector<uint8_t>& icc, std::string* why) {
  cmsContext ctx = Context();
  if (!ctx) {
    *why = "no lcms2 context";
    return nullptr;
  }
  LcmsErrors errors;
  Profile in(cmsOpenProfileFromMemTHR(ctx, icc.data(), cmsUInt32Number(icc.size())));
  if (!in) {
    *why = "lcms2 can't open it ('" + errors.text + "')";
    return nullptr;
  }
  const cmsColorSpaceSignature space = cmsGetColorSpace(in.get());
  if (space != cmsSigRgbData) {
    const uint32_t s = uint32_t(space);
    const char tag[5] = {char(s >> 24), char(s >> 16), char(s >> 8), char(s), 0};
    *why = std::string("it is for '") + tag + "' pixels, not RGB";
    return nullptr;
  }
  Profile out(cmsCreate_sRGBProfileTHR(ctx));
  void* t = out ? cmsCreateTransformTHR(ctx, in.get(), TYPE_RGBA_8, out.get(), TYPE_RGBA_8,
                                        INTENT_PERCEPTUAL, cmsFLAGS_NOCACHE)
                : nullptr;
  if (!t) {
    *why = "lcms2 can't convert from it ('" + errors.text + "')";
    return nullptr;
  }
  return Transform(t, [](void* p) { cmsDeleteTransform(p); });
}

// The kept transform when `icc` is the profile it was made from, else a new one (then kept).
Transform TransformFor(const std::vector<uint8_t>& icc, std::string* why) {
  TransformCache& cache = Cache();
  {
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.transform && cache.profile == icc) return cache.transform;
  }
  Transform t = MakeTransform(icc, why);
  if (t) {
    std::lock_guard<std::mutex> lock(cache.mutex);
    cache.profile = icc;
    cache.transform = t;
  }
  return t;
}

}  // namespace

bool QImage::SetColourProfile(const uint8_t* data, size_t size, const char* name) {
  profile_.clear();
  if (!data || size == 0) return true;
  if (!name) name = "";
  if (size > MAX_PROFILE_BYTES) {
    QWARN("QImage::SetColourProfile",
          "QImage:SetColourProfile(%s); its colour profile of '%zu' bytes is more than %zu: "
          "ignored",
          name, size, MAX_PROFILE_BYTES);
    return false;
  }
  const uint32_t claimed = size >= 4 ? Be32(data) : 0;
  if (size < kIccHeaderBytes || claimed < kIccHeaderBytes || claimed > size) {
    QWARN("QImage::SetColourProfile",
          "QImage:SetColourProfile(%s); its colour profile claims '%u' bytes in %zu: ignored",
          name, claimed, size);
    return false;
  }
  profile_.assign(data, data + claimed);
  return true;
}

bool QImage::ConvertToSRGB() {
  if (profile_.empty()) return true;
  const char* name = GetName() ? GetName() : "";
  const size_t pixels = size_t(GetWidth()) * size_t(GetHeight());
  if (GetDepth() != 32 || !GetBuffer() || pixels == 0 || size_t(GetSize()) < pixels * 4) {
    QWARN("QImage::ConvertToSRGB", "QImage:ConvertToSRGB(%s); no 32-bit pixels (depth '%d')",
          name, GetDepth());
    return false;
  }
  std::string why;
  const Transform t = TransformFor(profile_, &why);
  if (!t) {
    QWARN("QImage::ConvertToSRGB",
          "QImage:ConvertToSRGB(%s); its colour profile is not used, %s: shown unconverted", name,
          why.c_str());
    return false;
  }
  // In place: lcms2 reads each pixel before writing it, and leaves the alpha byte alone. The
  // 16384 limit keeps the count inside lcms2's 32 bits.
  cmsDoTransform(t.get(), GetBuffer(), GetBuffer(), cmsUInt32Number(pixels));
  return true;
}

namespace qimage_detail {

bool DescribedProfile(const ColourDescription& d, const char* name, std::vector<uint8_t>* icc) {
  icc->clear();
  if (!name) name = "";
  // ISO/IEC 23091-2 codes: primaries 1 is BT.709 (sRGB's), 2 unspecified. Transfer 13 is sRGB's
  // curve; the camera curves of BT.709, BT.601 and BT.2020 (1, 6, 14, 15) are shown with it too,
  // being meant for displays whose curve is close to it, and so is 2, unspecified.
  const bool srgbCurve = d.transfer == 1 || d.transfer == 2 || d.transfer == 6 ||
                         d.transfer == 13 || d.transfer == 14 || d.transfer == 15;
  if ((d.primaries == 1 || d.primaries == 2) && srgbCurve) return false;
  // The display's curve, as an lcms2 parametric curve (type 4: sRGB's, type 1: a gamma).
  int type = 4;
  double curve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  switch (srgbCurve ? 13 : d.transfer) {
    case 13: break;
    case 4: type = 1, curve[0] = 2.2; break;
    case 5: type = 1, curve[0] = 2.8; break;
    case 8: type = 1, curve[0] = 1.0; break;
    default:
      QWARN("QImage::ReadHEIF",
            "QImage:ReadHEIF(%s); its transfer characteristics '%d' are not converted", name,
            d.transfer);
      return false;
  }
  // Unspecified primaries are BT.709's.
  const double bt709[8] = {0.64, 0.33, 0.30, 0.60, 0.15, 0.06, 0.3127, 0.3290};
  const double xy[8] = {d.red[0],   d.red[1],   d.green[0], d.green[1],
                        d.blue[0],  d.blue[1],  d.white[0], d.white[1]};
  const double* c = d.primaries == 2 ? bt709 : xy;
  for (int i = 0; i < 8; ++i) {
    if (!(c[i] > 0 && c[i] < 1)) {
      QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); its colour primaries '%d' are not usable",
            name, d.primaries);
      return false;
    }
  }
  cmsContext ctx = Context();
  LcmsErrors errors;
  const cmsCIExyY white = {c[6], c[7], 1.0};
  const cmsCIExyYTRIPLE primaries = {{c[0], c[1], 1.0}, {c[2], c[3], 1.0}, {c[4], c[5], 1.0}};
  cmsToneCurve* tone = ctx ? cmsBuildParametricToneCurve(ctx, type, curve) : nullptr;
  cmsToneCurve* tones[3] = {tone, tone, tone};
  Profile profile(tone ? cmsCreateRGBProfileTHR(ctx, &white, &primaries, tones) : nullptr);
  if (tone) cmsFreeToneCurve(tone);
  cmsUInt32Number bytes = 0;
  if (profile && cmsSaveProfileToMem(profile.get(), nullptr, &bytes) && bytes > 0) {
    icc->resize(bytes);
    if (!cmsSaveProfileToMem(profile.get(), icc->data(), &bytes)) icc->clear();
  }
  if (icc->empty())
    QWARN("QImage::ReadHEIF", "QImage:ReadHEIF(%s); no profile for its colour description (%s)",
          name, errors.text.c_str());
  return !icc->empty();
}

}  // namespace qimage_detail
