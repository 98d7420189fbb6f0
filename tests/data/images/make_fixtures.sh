#!/bin/sh
# Regenerates the image fixtures of the background image validator's tests in this folder.
# Needs ImageMagick's convert (Debian: imagemagick, with its WebP coder) and python3 (standard
# library only). Images are encoded by convert; the Python steps only patch or pad real files:
#
#   bg_640x284.png                 640 x 284 PNG
#   bg_640x284_baseline.jpg        640 x 284 baseline JPEG (SOF0)
#   bg_640x284_progressive.jpg     640 x 284 progressive JPEG (SOF2)
#   bg_640x284_exif.jpg            the baseline JPEG with an Exif APP1 segment right after SOI
#   bg_284x640.jpg                 284 x 640 (portrait) baseline JPEG
#   bg_640x284.gif                 640 x 284 GIF
#   bg_640x284.webp                640 x 284 WebP
#   first_chunk_not_ihdr.png       the PNG with a tEXt chunk moved in front of IHDR
#   sof9_only.jpg                  the baseline JPEG with its only frame header relabelled SOF9
#   padded_1048576.png             the PNG padded with a private chunk to exactly 1048576 bytes
#   padded_1048577.png             the same padded to 1048577 bytes
set -eu

cd "$(dirname "$0")"

# Deterministic output: no time or date chunks, no comments, fixed quality.
PNG_OPTS="-strip -define png:exclude-chunks=date,time"
SOURCE="gradient:#1d4e89-#f4a259 -depth 8"

convert -size 640x284 $SOURCE $PNG_OPTS bg_640x284.png
convert -size 640x284 $SOURCE -strip -quality 80 -interlace none bg_640x284_baseline.jpg
convert -size 640x284 $SOURCE -strip -quality 80 -interlace JPEG bg_640x284_progressive.jpg
convert -size 284x640 $SOURCE -strip -quality 80 -interlace none bg_284x640.jpg
convert -size 640x284 $SOURCE -strip bg_640x284.gif
convert -size 640x284 $SOURCE -strip -quality 80 bg_640x284.webp

python3 - <<'PY'
import struct
import zlib


def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def jpeg_segments(data):
    """Yields (offset, marker, length) of the segments before the first scan."""
    pos = 2
    while pos < len(data):
        assert data[pos] == 0xFF
        marker = data[pos + 1]
        length = struct.unpack(">H", data[pos + 2:pos + 4])[0]
        yield pos, marker, length
        if marker == 0xDA:
            return
        pos += 2 + length


png = open("bg_640x284.png", "rb").read()
signature, rest = png[:8], png[8:]
assert rest[4:8] == b"IHDR"

# A tEXt chunk first, then the untouched IHDR and the rest.
text = png_chunk(b"tEXt", b"Comment\x00chunk placed before the header")
open("first_chunk_not_ihdr.png", "wb").write(signature + text + rest)

# Pad with a private ancillary chunk ("prVt") just before IEND up to the exact size.
iend = png.rindex(b"IEND") - 4
for target in (1048576, 1048577):
    filler = target - len(png) - 12
    padded = png[:iend] + png_chunk(b"prVt", b"\x00" * filler) + png[iend:]
    assert len(padded) == target
    open("padded_%d.png" % target, "wb").write(padded)

jpeg = open("bg_640x284_baseline.jpg", "rb").read()
frames = [(pos, marker) for pos, marker, _ in jpeg_segments(jpeg) if marker in range(0xC0, 0xD0)
          and marker not in (0xC4, 0xC8, 0xCC)]
assert [m for _, m in frames] == [0xC0], frames

# SOF0 -> SOF9 (extended sequential, arithmetic coding): the only frame header left.
sof9 = bytearray(jpeg)
sof9[frames[0][0] + 1] = 0xC9
open("sof9_only.jpg", "wb").write(bytes(sof9))

# Exif APP1 after SOI: "Exif\0\0", a little-endian TIFF header and IFD0 with the Orientation tag.
tiff = b"II*\x00" + struct.pack("<I", 8)
tiff += struct.pack("<H", 1) + struct.pack("<HHII", 0x0112, 3, 1, 1) + struct.pack("<I", 0)
exif_payload = b"Exif\x00\x00" + tiff
app1 = b"\xFF\xE1" + struct.pack(">H", len(exif_payload) + 2) + exif_payload
open("bg_640x284_exif.jpg", "wb").write(jpeg[:2] + app1 + jpeg[2:])
PY

ls -l *.png *.jpg *.gif *.webp
