#!/usr/bin/env bash
# Records how the picture fixtures of tests/framework/image/qimage_test.cpp were made. The tests do not
# run it; run it by hand (ImageMagick 6 and netpbm) to remake them, then check the diff.
#
# Every lossless fixture encodes src.pam: 5 x 3 pixels, RGBA, pixel (x, y from the top)
#   R = 40x + 10, G = 80y + 20, B = (30xy + 5) mod 256, A = 255 - 20(x + y)
# which the tests recompute.
set -eu
cd "$(dirname "$0")"

python3 - <<'PY'
w, h = 5, 3
px = bytearray()
for y in range(h):
    for x in range(w):
        px += bytes([40 * x + 10, 80 * y + 20, (30 * x * y + 5) % 256, 255 - 20 * (x + y)])
hdr = b"P7\nWIDTH %d\nHEIGHT %d\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n" % (w, h)
open("src.pam", "wb").write(hdr + bytes(px))
PY

# Targa. netpbm writes the standard bottom-left files (the 32-bit ones with a 3-byte identifier,
# "pnm"); ImageMagick writes the top-left one. (ImageMagick 6's plain output stores its rows top
# first while its header says bottom-left, so it is not used.) The grey reference is netpbm's
# decode.
pamtotga -norle src.pam > rgba32_bl.tga
convert src.pam -orient TopLeft -compress none rgba32_tl.tga
pamtopnm src.pam | pamtotga -rgb -norle > rgb24.tga
pamtotga src.pam > rle32.tga
pamtopnm src.pam | pamtotga -rgb > rle24.tga
pamtopnm src.pam | ppmtopgm | pamtotga -norle > grey8.tga
tgatoppm grey8.tga | ppmtopgm > grey8_ref.pgm

# JPEG (ImageMagick over libjpeg): colour baseline and progressive, grey, and Adobe CMYK.
# The *_ref files are ImageMagick's own decodes of the same files.
convert -size 16x8 gradient:"rgb(250,40,10)-rgb(20,90,240)" -quality 90 photo.jpg
convert photo.jpg photo_ref.ppm
convert photo.jpg -interlace plane -quality 90 progressive.jpg
convert progressive.jpg progressive_ref.ppm
convert -size 16x8 gradient:white-black -colorspace gray -quality 90 grey.jpg
convert grey.jpg grey_ref.pgm
convert -size 8x8 xc:"rgb(200,100,50)" -colorspace cmyk -quality 100 cmyk.jpg
convert cmyk.jpg -depth 8 txt:- | sed -n 2p > cmyk_ref.txt

# Windows bitmaps: 24-bit rows of 12 bytes (no padding) and of 15 bytes (padded to 16 in the
# file, so our unpadded reading shears them), and 8-bit palette indices (netpbm).
convert src.pam -alpha off -crop 4x3+0+0 +repage BMP3:rgb24_w4.bmp
convert src.pam -alpha off BMP3:rgb24_w5.bmp
pamtopnm src.pam | ppmtopgm | ppmtobmp -bpp 8 > index8.bmp

# SGI: big-endian uncompressed and run-length (ImageMagick), grey run-length (netpbm), and a
# little-endian copy of the uncompressed file (header fields swapped; no program writes that
# byte order but ours).
convert src.pam -compress none sgi:rgba_be.rgb
convert src.pam -compress RLE sgi:rgba_be_rle.rgb
pamtopnm src.pam | ppmtopgm | pnmtosgi > grey_be_rle.rgb
convert grey_be_rle.rgb grey_be_rle_ref.pgm
python3 - <<'PY'
import struct
d = bytearray(open("rgba_be.rgb", "rb").read())
for at, fmt in ((0, "H"), (2, "H"), (4, "H"), (6, "H"), (8, "H"), (10, "H"), (12, "I"), (16, "I"), (20, "I")):
    size = struct.calcsize(fmt)
    (v,) = struct.unpack(">" + fmt, d[at:at + size])
    d[at:at + size] = struct.pack("<" + fmt, v)
open("rgba_le.rgb", "wb").write(bytes(d))
PY

# Photoshop (ImageMagick): a 6 x 4 canvas with two uncompressed layers, an opaque 3 x 2 at
# (1, 1) and a half-transparent 2 x 2 at (3, 2). ImageMagick ends each PackBits row with a
# 0x80 no-op, which our reader takes as a 129-byte run, so the layers are stored raw.
convert -size 6x4 xc:"rgb(255,255,254)" \
  \( -size 3x2 xc:"rgb(200,100,50)" -repage +1+1 \) \
  \( -size 2x2 xc:"rgba(10,20,30,0.5)" -repage +3+2 \) \
  -depth 8 -type TrueColorAlpha -compress none layers.psd

# PNG (netpbm, and ImageMagick for 16 bits): RGBA with alpha, straight and Adam7-interlaced;
# 8-bit grey (the same samples as grey8_ref.pgm); grey with src.pam's alpha; a 4-bit palette
# whose first colour, pixel (0, 0)'s, is transparent through tRNS; and a 16-bit grey ramp whose
# samples differ in their two bytes, with ImageMagick's 8-bit decode as reference.
pamtopng src.pam > rgba.png
pamtopng -interlace src.pam > rgba_adam7.png
pamtopnm src.pam | ppmtopgm | pamtopng > grey8.png
pamtopnm src.pam | ppmtopgm > grey.tmp.pgm
pamchannel -infile src.pam -tupletype=GRAYSCALE 3 > alpha.tmp.pam
pamstack -tupletype=GRAYSCALE_ALPHA grey.tmp.pgm alpha.tmp.pam | pamtopng > grey_alpha.png
rm grey.tmp.pgm alpha.tmp.pam
pamtopnm src.pam | pnmtopng -transparent rgb:0a/14/05 > palette_trns.png
convert -size 3x5 gradient:"gray(10%)-gray(73%)" -strip -define png:bit-depth=16 \
  -define png:color-type=0 grey16.png
convert grey16.png -depth 8 grey16_ref.pgm
