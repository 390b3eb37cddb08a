#!/usr/bin/env bash
# Records how the fixtures of tests/framework/qimage_kinds_test.cpp (and the pictures of the kinds
# end-to-end test) were made, each by an encoder that is not ours: heif-enc (libheif-examples) for
# HEIC and AVIF, cwebp, img2webp and webpmux (webp) for WebP, ImageMagick 6 for GIF and TIFF and
# tiffcp (libtiff-tools) for the tiled TIFF. The tests do not run it; run it by hand to remake
# them, then check the diff.
#
# Every fixture shows quad.png: 64 x 48 pixels in four 32 x 24 quadrants, red top left, green top
# right, blue bottom left, yellow bottom right, so that any turn or mirror shows. The *_ref.png
# files are ImageMagick's own decodes of the lossy files and of the 16-bit grey TIFF.
set -eu
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

convert \( -size 32x24 xc:"rgb(220,30,30)" xc:"rgb(30,200,60)" +append \) \
  \( -size 32x24 xc:"rgb(40,60,220)" xc:"rgb(230,210,40)" +append \) -append \
  -strip "$tmp/quad.png"
# The same turned a quarter to the left: shown upright by orientation 6.
convert "$tmp/quad.png" -rotate -90 -strip "$tmp/quad_left.png"
# A second frame for the animations: the colours swapped left to right.
convert "$tmp/quad.png" -flop -strip "$tmp/flop.png"

# heif-enc 1.15 takes a JPEG source as YCbCr 4:2:0; from an RGB (PNG) source its HEVC output
# decodes to other colours and its AV1 encoder (aom 3.6) aborts.
convert "$tmp/quad.png" -quality 95 "$tmp/quad.jpg"
heif-enc -q 80 -o quad.heic "$tmp/quad.jpg"
heif-enc -A -q 80 -o quad.avif "$tmp/quad.jpg"
cwebp -quiet -q 80 "$tmp/quad.png" -o quad.webp
# A lossy WebP of the turned picture with an EXIF chunk saying orientation 6 (a little-endian
# TIFF block holding one IFD entry).
python3 -c '
import struct, sys
sys.stdout.buffer.write(b"II*\0" + struct.pack("<IH", 8, 1) + struct.pack("<HHII", 0x112, 3, 1, 6) + struct.pack("<I", 0))
' > "$tmp/o6.exif"
cwebp -quiet -q 80 "$tmp/quad_left.png" -o "$tmp/left.webp"
webpmux -set exif "$tmp/o6.exif" "$tmp/left.webp" -o quad_o6.webp
img2webp -loop 0 -lossless -d 200 "$tmp/quad.png" -d 200 "$tmp/flop.png" -o anim.webp

convert -delay 20 "$tmp/quad.png" "$tmp/flop.png" -loop 0 anim.gif
# Interlaced, with the red quadrant transparent.
convert "$tmp/quad.png" -transparent "rgb(220,30,30)" -interlace GIF trns_interlaced.gif

convert "$tmp/quad.png" -type TrueColor -compress lzw quad.tif
tiffcp -t -w 16 -l 16 quad.tif quad_tiled.tif
convert "$tmp/quad_left.png" -type TrueColor -orient RightTop -compress zip quad_o6.tif
convert "$tmp/quad.png" -colorspace CMYK -compress lzw quad_cmyk.tif
convert "$tmp/quad.png" -colorspace Gray -type Grayscale -depth 16 -compress zip quad_grey16.tif
convert "$tmp/quad.png" -type Palette -compress lzw quad_palette.tif

for f in quad.heic quad.avif quad.webp quad_o6.webp quad_grey16.tif; do
  convert "$f" -colorspace sRGB -strip "${f%.*}_${f##*.}_ref.png"
done
