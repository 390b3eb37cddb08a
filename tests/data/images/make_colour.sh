#!/usr/bin/env bash
# Records how the colour-profile fixtures were made: pictures carrying a Display P3 profile,
# written by ImageMagick 6, cwebp, heif-enc and exiftool, with ImageMagick's own conversion of
# each to sRGB beside them (*_ref.png). The tests do not run it; run it by hand to remake them,
# then check the diff.
#
# The two profiles are made here with lcms2 (through python3's ctypes, since Debian ships no tool
# that writes a profile from primaries): Display P3 (the P3 primaries, D65 white, sRGB's curve)
# and sRGB, the target of the references.
#
# Every picture is p3.png's 64 x 48 quadrants of saturated colours that P3 and sRGB show
# differently: red top left, green top right, blue bottom left, orange bottom right.
set -eu
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

python3 - "$tmp/p3.icc" "$tmp/srgb.icc" <<'PY'
import ctypes, ctypes.util, sys
lcms = ctypes.CDLL(ctypes.util.find_library('lcms2'))
class xyY(ctypes.Structure): _fields_ = [('x', ctypes.c_double), ('y', ctypes.c_double), ('Y', ctypes.c_double)]
lcms.cmsBuildParametricToneCurve.restype = ctypes.c_void_p
lcms.cmsBuildParametricToneCurve.argtypes = [ctypes.c_void_p, ctypes.c_int, ctypes.POINTER(ctypes.c_double)]
lcms.cmsCreateRGBProfile.restype = ctypes.c_void_p
lcms.cmsCreateRGBProfile.argtypes = [ctypes.POINTER(xyY), ctypes.POINTER(xyY * 3), ctypes.c_void_p * 3]
lcms.cmsCreate_sRGBProfile.restype = ctypes.c_void_p
lcms.cmsMLUalloc.restype = ctypes.c_void_p
lcms.cmsMLUalloc.argtypes = [ctypes.c_void_p, ctypes.c_uint]
lcms.cmsMLUsetASCII.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p]
lcms.cmsWriteTag.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_void_p]
lcms.cmsSaveProfileToFile.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
srgb_curve = (ctypes.c_double * 5)(2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045)
curve = lcms.cmsBuildParametricToneCurve(None, 4, srgb_curve)
white = xyY(0.3127, 0.3290, 1.0)
primaries = (xyY * 3)(xyY(0.680, 0.320, 1.0), xyY(0.265, 0.690, 1.0), xyY(0.150, 0.060, 1.0))
p3 = lcms.cmsCreateRGBProfile(ctypes.byref(white), ctypes.byref(primaries), (ctypes.c_void_p * 3)(curve, curve, curve))
desc = lcms.cmsMLUalloc(None, 1)
lcms.cmsMLUsetASCII(desc, b'en', b'US', b'Display P3')
lcms.cmsWriteTag(p3, 0x64657363, desc)  # 'desc'
assert lcms.cmsSaveProfileToFile(p3, sys.argv[1].encode())
assert lcms.cmsSaveProfileToFile(lcms.cmsCreate_sRGBProfile(), sys.argv[2].encode())
PY

convert \( -size 32x24 xc:"rgb(200,40,40)" xc:"rgb(60,190,60)" +append \) \
  \( -size 32x24 xc:"rgb(40,60,200)" xc:"rgb(230,130,30)" +append \) -append \
  -strip "$tmp/quad.png"
# A picture without a profile takes the one given as its own (no conversion).
convert "$tmp/quad.png" -profile "$tmp/p3.icc" p3.png
convert "$tmp/quad.png" -quality 95 -profile "$tmp/p3.icc" p3.jpg
convert "$tmp/quad.png" -profile "$tmp/p3.icc" -compress zip p3.tif
cwebp -quiet -q 90 -metadata icc p3.png -o p3.webp
# heif-enc takes a JPEG source as YCbCr (see make_kinds.sh) and keeps its profile.
heif-enc -q 90 -o p3.heic p3.jpg
# The same bytes without their profile.
rm -f p3_plain.jpg p3_plain.png
exiftool -q -icc_profile= -o p3_plain.jpg p3.jpg
exiftool -q -icc_profile= -o p3_plain.png p3.png

for f in p3.jpg p3.png p3.tif p3.webp; do
  convert "$f" -profile "$tmp/srgb.icc" -strip "${f%.*}_${f##*.}_ref.png"
done
# ImageMagick 6 does not see a HEIF's profile: its decode is given the one heif-enc kept.
convert p3.heic -profile "$tmp/p3.icc" -profile "$tmp/srgb.icc" -strip p3_heic_ref.png
