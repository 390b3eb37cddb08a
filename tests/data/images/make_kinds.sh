#!/usr/bin/env bash
# Records how the fixtures of tests/framework/image/qimage_kinds_test.cpp (and the pictures of the kinds
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
# heif-enc writes no rotation: the turned picture gets an irot box of three quarter turns
# anticlockwise (one clockwise, as EXIF orientation 6) added to its primary item.
convert "$tmp/quad_left.png" -quality 95 "$tmp/quad_left.jpg"
heif-enc -q 80 -o "$tmp/left.heic" "$tmp/quad_left.jpg"
python3 - "$tmp/left.heic" quad_irot.heic 3 <<'PY'
# Adds an irot box (angle in quarter turns anticlockwise) to the primary item of a HEIF file
# written by heif-enc: appended to ipco, associated as essential in ipma, and the file offsets
# in iloc moved past the added bytes.
import struct, sys
src, dst, angle = sys.argv[1], sys.argv[2], int(sys.argv[3])
d = bytearray(open(src, 'rb').read())

def find(b, start, end, typ):
    off = start
    while off < end:
        size, t = struct.unpack('>I4s', b[off:off + 8])
        if t == typ: return off, size
        off += size
    raise SystemExit('no ' + typ.decode())

meta, meta_size = find(d, 0, len(d), b'meta')
pitm, _ = find(d, meta + 12, meta + meta_size, b'pitm')
primary = struct.unpack('>H', d[pitm + 12:pitm + 14])[0]
iprp, iprp_size = find(d, meta + 12, meta + meta_size, b'iprp')
ipco, ipco_size = find(d, iprp + 8, iprp + iprp_size, b'ipco')
ipma, ipma_size = find(d, iprp + 8, iprp + iprp_size, b'ipma')
iloc, iloc_size = find(d, meta + 12, meta + meta_size, b'iloc')
assert d[ipma + 8] == 0 and d[ipma + 11] & 1 == 0, 'ipma version 0, 1-byte indices'
props = 0
off = ipco + 8
while off < ipco + ipco_size:
    props += 1
    off += struct.unpack('>I', d[off:off + 4])[0]
irot = struct.pack('>I4sB', 9, b'irot', angle)
# ipma: find the primary's entry and add the new property (essential) to it.
count = struct.unpack('>I', d[ipma + 12:ipma + 16])[0]
off = ipma + 16
for _ in range(count):
    item, n = struct.unpack('>HB', d[off:off + 3])
    if item == primary:
        d[off + 2] = n + 1
        d[off + 3 + n:off + 3 + n] = bytes([0x80 | (props + 1)])
        break
    off += 3 + n
else:
    raise SystemExit('primary not in ipma')
d[ipco + ipco_size:ipco + ipco_size] = irot
added = len(irot) + 1
def grow(at, n): struct.pack_into('>I', d, at, struct.unpack('>I', d[at:at + 4])[0] + n)
grow(ipco, len(irot)); grow(ipma + len(irot), 1); grow(iprp, added); grow(meta, added)
# iloc (before iprp, so not moved): file offsets of construction method 0 move by `added`.
ver = d[iloc + 8]
osz, lsz = d[iloc + 12] >> 4, d[iloc + 12] & 15
bsz, isz = d[iloc + 13] >> 4, (d[iloc + 13] & 15 if ver in (1, 2) else 0)
off = iloc + 14
items = struct.unpack('>H', d[off:off + 2])[0]; off += 2
fmt = {0: None, 4: '>I', 8: '>Q'}
for _ in range(items):
    off += 2
    cm = 0
    if ver in (1, 2):
        cm = struct.unpack('>H', d[off:off + 2])[0] & 15; off += 2
    off += 2
    base_at = off; off += bsz
    ext = struct.unpack('>H', d[off:off + 2])[0]; off += 2
    if cm == 0 and bsz:
        struct.pack_into(fmt[bsz], d, base_at, struct.unpack(fmt[bsz], d[base_at:base_at + bsz])[0] + added)
    for _ in range(ext):
        off += isz
        if cm == 0 and not bsz:
            struct.pack_into(fmt[osz], d, off, struct.unpack(fmt[osz], d[off:off + osz])[0] + added)
        off += osz + lsz
open(dst, 'wb').write(bytes(d))
PY
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

convert "$tmp/quad.png" quad.gif
convert -delay 20 "$tmp/quad.png" "$tmp/flop.png" -loop 0 anim.gif
# Frames of plain colours whose times and composing the animation tests check. GIF: red (300 ms),
# a green middle cleared after it (200 ms), a blue corner put back after it (0 ms, shown 100),
# a white corner (300 ms). WebP: red 300, green 200, blue 10 (shown 100).
convert -dispose None -delay 30 -size 64x48 xc:"rgb(220,30,30)" \
  -dispose Background -delay 20 \( -size 32x24 xc:"rgb(30,200,60)" -set page 64x48+16+12 \) \
  -dispose Previous -delay 0 \( -size 16x12 xc:"rgb(40,60,220)" -set page 64x48+0+0 \) \
  -dispose None -delay 30 \( -size 16x12 xc:"rgb(230,230,230)" -set page 64x48+48+36 \) \
  -loop 0 frames.gif
for c in "220,30,30" "30,200,60" "40,60,220"; do convert -size 64x48 xc:"rgb($c)" "$tmp/$c.png"; done
img2webp -loop 0 -lossless -d 300 "$tmp/220,30,30.png" -d 200 "$tmp/30,200,60.png" \
  -d 10 "$tmp/40,60,220.png" -o frames.webp
# Interlaced, with the red quadrant transparent.
convert "$tmp/quad.png" -transparent "rgb(220,30,30)" -interlace GIF trns_interlaced.gif

convert "$tmp/quad.png" -type TrueColor -compress lzw quad.tif
tiffcp -t -w 16 -l 16 quad.tif quad_tiled.tif
convert "$tmp/quad_left.png" -type TrueColor -orient RightTop -compress zip quad_o6.tif
convert "$tmp/quad.png" -colorspace CMYK -compress lzw quad_cmyk.tif
convert "$tmp/quad.png" -colorspace Gray -type Grayscale -depth 16 -compress zip quad_grey16.tif
convert "$tmp/quad.png" -type Palette -compress lzw quad_palette.tif

for f in quad.heic quad_irot.heic quad.avif quad.webp quad_o6.webp quad_grey16.tif; do
  convert "$f" -colorspace sRGB -strip "${f%.*}_${f##*.}_ref.png"
done
