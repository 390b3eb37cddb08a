#!/usr/bin/env bash
# Rebuilds the EXIF test pictures in this folder. The pictures are committed; the tests never run
# this. Needs ImageMagick's convert and exiftool. Every picture is 16 x 8 pixels.
set -euo pipefail
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
et() { exiftool -q -n -overwrite_original "$@"; }

# No metadata at all: JFIF header, tables, scan. No APP1 marker anywhere.
convert -size 16x8 gradient:red-blue -strip -quality 80 plain.jpg

# Orientation in both byte orders.
cp plain.jpg orient6_ii.jpg
et -ExifByteOrder=II -Orientation=6 orient6_ii.jpg
cp plain.jpg orient8_mm.jpg
et -ExifByteOrder=MM -Orientation=8 orient8_mm.jpg

# An XMP APP1 segment ahead of the EXIF one: convert writes a profile named APP1 as a raw APP1
# segment before the EXIF profile.
{ printf 'http://ns.adobe.com/xap/1.0/\0'; printf '<x:xmpmeta xmlns:x="adobe:ns:meta/"/>'; } \
  > "$work/xmp.app1"
convert orient6_ii.jpg -profile APP1:"$work/xmp.app1" xmp_first.jpg

# Zero and 0xFF bytes after the end marker.
{ cat orient6_ii.jpg; printf '\0\0\377\0\377\377\0'; } > trailing.jpg

# Cut two bytes short: the end marker is gone, the last byte is scan data.
size=$(stat -c %s orient6_ii.jpg)
head -c $((size - 2)) orient6_ii.jpg > truncated.jpg
last=$(tail -c 1 truncated.jpg | od -An -tu1 | tr -d ' ')
[ "$last" != 0 ] && [ "$last" != 255 ] || { echo "truncated.jpg ends in $last" >&2; exit 1; }

# A Targa picture.
convert -size 16x8 gradient:red-blue picture.tga

# Orientation written with format LONG through a user-defined tag.
cat > "$work/long.cfg" <<'CFG'
%Image::ExifTool::UserDefined = (
    'Image::ExifTool::Exif::Main' => {
        0x0112 => { Name => 'OrientationAsLong', Writable => 'int32u', WriteGroup => 'IFD0' },
    },
);
1;
CFG
cp plain.jpg orient_long.jpg
exiftool -config "$work/long.cfg" -q -n -overwrite_original -OrientationAsLong=6 orient_long.jpg

# The APP1 length field (right after the 20 bytes of start marker and JFIF segment) set to 15.
cp orient6_ii.jpg short_segment.jpg
[ "$(xxd -p -s 20 -l 2 short_segment.jpg)" = ffe1 ] || { echo "APP1 not at 20" >&2; exit 1; }
printf '\000\017' | dd of=short_segment.jpg bs=1 seek=22 conv=notrunc status=none

# Descriptive fields, camera fields and a GPS position south-west, below sea level.
cp plain.jpg described.jpg
et -ExifByteOrder=II -Orientation=3 \
  -ImageDescription='Harbour at dusk' -Make='Glimra Test' -Model='Fixture One' \
  -Software='fixture writer' -ModifyDate='2021:06:05 14:03:09' -Copyright='CC0 test fixture' \
  -ExposureTime=0.004 -DateTimeOriginal='2021:06:05 14:03:07' -CreateDate='2021:06:05 14:03:08' \
  -ShutterSpeedValue=0.004 -ExposureCompensation=-0.7 -SubjectDistance=2.5 -MeteringMode=5 \
  -EXIF:Flash=16 -FocalLength=35 -SubSecTimeOriginal=42 -ExifImageWidth=16 \
  -FocalPlaneXResolution=1000 -FocalPlaneYResolution=2000 -FocalLengthIn35mmFormat=52 \
  -LensInfo='24 70 2.8 4' -LensMake='Glimra Optics' \
  -GPSLatitude=33.8568 -GPSLatitudeRef=S -GPSLongitude=70.6693 -GPSLongitudeRef=W \
  -GPSAltitude=12.5 -GPSAltitudeRef=1 -GPSDOP=1.5 \
  described.jpg

# A caption's facts without a description: the date taken, a Windows title in Greek and a JPEG
# comment.
cp plain.jpg titled.jpg
et -DateTimeOriginal='2021:03:07 09:30:00' -XPTitle='Αθήνα' -Comment='Café' titled.jpg
