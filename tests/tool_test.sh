#!/bin/sh
# End-to-end test of the imgcolor command-line tool.
# usage: tool_test.sh path/to/imgcolor path/to/data
#
# Pixel expectations come from how the test files are built (see make_pngs
# below), not from earlier tool output. Needs python3 for the hand-made PNGs;
# without it those cases are skipped.
TOOL=$1
DATA=$2
if [ ! -x "$TOOL" ] || [ ! -f "$DATA/chelsea.png" ]; then
  echo "usage: $0 IMGCOLOR DATA_DIR" >&2
  exit 2
fi
# The test runs in a scratch directory: make both paths absolute.
case $TOOL in /*) ;; *) TOOL=$(pwd)/$TOOL ;; esac
DATA=$(cd "$DATA" && pwd)

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
cd "$WORK" || exit 2

passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() {
  failed=$((failed + 1))
  echo "FAIL: $1"
  [ -s out ] && sed 's/^/  stdout: /' out | head -20
  [ -s err ] && sed 's/^/  stderr: /' err | head -20
}

# run NAME STATUS COMMAND...: runs the tool, expects the exit status; stdout
# goes to ./out, stderr to ./err.
run() {
  r_name=$1
  r_want=$2
  shift 2
  "$TOOL" "$@" >out 2>err
  r_got=$?
  if [ "$r_got" -eq "$r_want" ]; then pass; else fail "$r_name: exit status $r_got, expected $r_want"; fi
}

# expect NAME PATTERN [FILE]: the file (default out) has a line matching the
# extended regular expression.
expect() {
  if grep -Eq -- "$2" "${3:-out}"; then pass; else fail "$1: no line matches /$2/ in ${3:-out}"; fi
}

# field FILE KEY [ARGS]: the value of "KEY: value" in `imgcolor info FILE`.
field() {
  f_file=$1
  f_key=$2
  shift 2
  "$TOOL" info "$f_file" "$@" 2>/dev/null | sed -n "s/^$f_key: *//p"
}

same() {
  if [ "$2" = "$3" ] && [ -n "$2" ]; then pass; else fail "$1: '$2' differs from '$3'"; fi
}

# ---- The sample photograph -------------------------------------------------------
run "info on the built-in sample" 0 info sample:
expect "sample size" '^size: +451 x 300$'
expect "sample depth" '^depth: +24 bits per pixel \(8-bit samples\)$'
expect "sample kind" '^kind: +colour$'
expect "sample order" '^order: +BGR$'
expect "sample colours" '^colours: +[0-9]+$'
expect "sample bytes" '^bytes: +406800 \(1356 per row\)$'   # 451 * 3 = 1353, padded to 1356
sample_sum=$(sed -n 's/^checksum: *//p' out)

run "info on data/chelsea.png" 0 info "$DATA/chelsea.png"
expect "file size" '^size: +451 x 300$'
same "embedded sample equals data/chelsea.png" "$sample_sum" "$(sed -n 's/^checksum: *//p' out)"
run "info on standard input" 0 info - <"$DATA/chelsea.png"
expect "standard input named" '^file: +standard input$'
same "standard input checksum" "$sample_sum" "$(sed -n 's/^checksum: *//p' out)"

# ---- Conversions -------------------------------------------------------------------
run "convert to 48 bits" 0 convert sample: deep.png --depth 48
run "info on the 48-bit file" 0 info deep.png --pixel 0,0
expect "48 bits, 16-bit samples" '^depth: +48 bits per pixel \(16-bit samples\)$'
# Widening 8-bit samples to 16 bits multiplies by 257: every sample v*257
# has equal high and low bytes.
sample_px=$(field sample: "pixel 0,0" --pixel 0,0)
b8=$(echo "$sample_px" | sed 's/.*blue=\([0-9]*\).*/\1/')
expect "48-bit sample is 8-bit sample * 257" "blue=$((b8 * 257)) "

run "convert back to 24 bits" 0 convert deep.png back.png --depth 24
same "24 -> 48 -> 24 keeps the pixels" "$sample_sum" "$(field back.png checksum)"

run "PNG round trip" 0 convert "$DATA/chelsea.png" copy.png
same "PNG round trip keeps the pixels" "$sample_sum" "$(field copy.png checksum)"
run "48-bit round trip" 0 convert deep.png deep2.png
same "48-bit round trip keeps the pixels" "$(field deep.png checksum)" "$(field deep2.png checksum)"

run "convert to 8-bit gray" 0 convert sample: gray.png --gray
run "info on gray" 0 info gray.png
expect "gray depth" '^depth: +8 bits per pixel \(8-bit samples\)$'
expect "gray kind" '^kind: +gray$'
run "gray round trip" 0 convert gray.png gray2.png
same "gray round trip" "$(field gray.png checksum)" "$(field gray2.png checksum)"

run "convert to 16-bit gray" 0 convert sample: gray16.png --gray --depth 16
run "info on 16-bit gray" 0 info gray16.png
expect "16-bit gray depth" '^depth: +16 bits per pixel \(16-bit samples\)$'

# 12-bit gray is written as 16-bit gray scaled by 16.
run "convert to 12-bit gray" 0 convert sample: gray12.png --gray --depth 12
run "info on 12-bit gray" 0 info gray12.png --pixel 0,0 --pixel 200,150 --pixel 450,299
expect "12-bit gray read back as 16 bits" '^depth: +16 bits per pixel'
bad=$(sed -n 's/^pixel .*gray=\([0-9]*\)$/\1/p' out | while read -r v; do [ $((v % 16)) -ne 0 ] && echo "$v"; done)
same "12-bit samples scaled by 16" "none" "${bad:-none}"

# 5-5-5 colour is written as 24-bit RGB with each 5-bit value v widened to
# (v << 3) | (v >> 2): the low 3 bits repeat the top 3.
run "convert to 16-bit colour" 0 convert sample: c555.png --depth 16
run "info on 5-5-5" 0 info c555.png --pixel 0,0 --pixel 100,100
expect "5-5-5 written as 24 bits" '^depth: +24 bits per pixel'
bad=$(sed -n 's/^pixel [^:]*: //p' out | tr ' ' '\n' | sed 's/.*=//' | while read -r v; do
  [ $((v & 7)) -ne $((v >> 5)) ] && echo "$v"; done)
same "5-5-5 samples widened by bit replication" "none" "${bad:-none}"

run "convert to an 8-bit palette" 0 convert sample: pal.png --depth 8
run "info on palette" 0 info pal.png
expect "palette kind" '^kind: +palette$'
expect "palette depth" '^depth: +8 bits per pixel \(palette of'
run "palette round trip" 0 convert pal.png pal2.png
same "palette round trip" "$(field pal.png checksum)" "$(field pal2.png checksum)"
run "convert to a 4-bit palette" 0 convert sample: pal4.png --depth 4
run "4-bit palette round trip" 0 convert pal4.png pal4b.png
same "4-bit palette round trip" "$(field pal4.png checksum)" "$(field pal4b.png checksum)"
run "info on 4-bit palette" 0 info pal4b.png
expect "4-bit palette kept" '^depth: +4 bits per pixel \(palette of 16 entries\)$'

# ---- JPEG ------------------------------------------------------------------------------
run "convert to JPEG" 0 convert sample: photo.jpg
run "info on JPEG" 0 info photo.jpg --pixel 200,150
expect "JPEG is 24-bit colour" '^depth: +24 bits per pixel'
expect "JPEG size" '^size: +451 x 300$'
# Quality 92 keeps a photo's samples close: compare one pixel within 24 levels.
orig=$(field sample: "pixel 200,150" --pixel 200,150)
jpeg=$(sed -n 's/^pixel 200,150: //p' out)
far=$(printf '%s\n%s\n' "$orig" "$jpeg" | tr ' ' '\n' | sed 's/.*=//' | paste - - - - - - 2>/dev/null |
  awk '{ for (i = 1; i <= 3; i++) { d = $i - $(i + 3); if (d < 0) d = -d; if (d > 24) print d } }')
same "JPEG close to the original" "none" "${far:-none}"
run "convert to gray JPEG" 0 convert sample: gray.jpeg --gray
run "info on gray JPEG" 0 info gray.jpeg
expect "gray JPEG is 8-bit gray" '^kind: +gray$'
run "48-bit bitmap to JPEG" 0 convert deep.png deep.jpg
run "info on 48-bit JPEG" 0 info deep.jpg
expect "48-bit written as 24-bit JPEG" '^depth: +24 bits per pixel'
run "palette bitmap to JPEG" 0 convert pal.png pal.jpg
run "12-bit gray to JPEG" 0 convert sample: g12.jpg --gray --depth 12
run "info on 12-bit gray JPEG" 0 info g12.jpg
expect "12-bit gray written as 8-bit gray JPEG" '^depth: +8 bits per pixel \(8-bit samples\)$'
run "JPEG to PNG" 0 convert photo.jpg photo.png
same "JPEG decodes the same into PNG" "$(field photo.jpg checksum)" "$(field photo.png checksum)"

# ---- Hand-made PNG files of every kind ---------------------------------------------------
make_pngs() {
  python3 - <<'PY'
import struct, zlib

def chunk(kind, data):
    return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data) & 0xffffffff)

def png(name, w, h, depth, ctype, rows, plte=None, interlaced=False, trailer=True):
    ihdr = struct.pack('>IIBBBBB', w, h, depth, ctype, 0, 0, 1 if interlaced else 0)
    raw = b''.join(b'\0' + r for r in rows)
    out = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', ihdr)
    if plte:
        out += chunk(b'PLTE', bytes(v for e in plte for v in e))
    out += chunk(b'IDAT', zlib.compress(raw)) + chunk(b'IEND', b'')
    open(name, 'wb').write(out)

def packbits(values, depth):
    bits = ''.join(format(v, '0%db' % depth) for v in values)
    bits += '0' * (-len(bits) % 8)
    return bytes(int(bits[i:i + 8], 2) for i in range(0, len(bits), 8))

png('g8.png', 3, 2, 8, 0, [bytes([0, 7, 255]), bytes([128, 1, 2])])
png('g8rep.png', 3, 2, 8, 0, [bytes([5, 5, 5]), bytes([9, 9, 5])])
png('g16.png', 2, 1, 16, 0, [struct.pack('>HH', 0x1234, 0xFEDC)])
png('g1.png', 9, 1, 1, 0, [packbits([1, 0, 0, 0, 0, 0, 0, 0, 1], 1)])
png('g4.png', 2, 1, 4, 0, [packbits([5, 15], 4)])
png('rgb8.png', 2, 1, 8, 2, [bytes([10, 20, 30, 40, 50, 60])])
png('rgb16.png', 1, 1, 16, 2, [struct.pack('>HHH', 0x0102, 0x0304, 0x0506)])
png('rgba8.png', 1, 1, 8, 6, [bytes([1, 2, 3, 200])])
png('rgba16.png', 1, 1, 16, 6, [struct.pack('>HHHH', 1000, 2000, 3000, 0xABCD)])
png('ga8.png', 1, 1, 8, 4, [bytes([50, 60])])
png('p2.png', 5, 1, 2, 3, [packbits([0, 1, 2, 1, 2], 2)], plte=[(255, 0, 0), (0, 255, 0), (0, 0, 255)])
png('p8.png', 2, 2, 8, 3, [bytes([0, 1]), bytes([1, 0])], plte=[(9, 8, 7), (1, 2, 3)])

# Adam7-interlaced 8-bit RGB, 5 x 5, pixel (x, y) = (10x, 10y, x + y).
w = h = 5
def px(x, y): return bytes([10 * x, 10 * y, x + y])
passes = [(0, 0, 8, 8), (4, 0, 8, 8), (0, 4, 4, 8), (2, 0, 4, 4), (0, 2, 2, 4), (1, 0, 2, 2), (0, 1, 1, 2)]
raw = b''
for x0, y0, dx, dy in passes:
    xs = range(x0, w, dx)
    if not xs: continue
    for y in range(y0, h, dy):
        raw += b'\0' + b''.join(px(x, y) for x in xs)
ihdr = struct.pack('>IIBBBBB', w, h, 8, 2, 0, 0, 1)
open('adam7.png', 'wb').write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', ihdr) + chunk(b'IDAT', zlib.compress(raw)) +
                              chunk(b'IEND', b''))

# 4000 x 3000 RGB: large enough that an operation runs for several spinner turns.
row = b'\0' + bytes((7 * x) & 255 for x in range(3 * 4000))
head = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 4000, 3000, 8, 2, 0, 0, 0))
open('big.png', 'wb').write(head + chunk(b'IDAT', zlib.compress(row * 3000, 1)) + chunk(b'IEND', b''))

# A PNG whose image data chunk has a wrong checksum.
good = open('g8.png', 'rb').read()
i = good.index(b'IDAT') + 4
open('badcrc.png', 'wb').write(good[:i] + bytes([good[i] ^ 0xFF]) + good[i + 1:])
PY
}

if command -v python3 >/dev/null 2>&1 && make_pngs; then
  # pngfile  pixel  expected samples  expected depth line
  while IFS='|' read -r file pixel want depth; do
    run "read $file" 0 info "$file" --pixel "$pixel"
    expect "$file depth" "^depth: +$depth"
    expect "$file pixel $pixel" "^pixel $pixel: $want\$"
    run "rewrite $file" 0 convert "$file" "re-$file"
    same "$file round trip" "$(field "$file" checksum)" "$(field "re-$file" checksum)"
    same "$file round trip keeps the depth" "$(field "$file" depth)" "$(field "re-$file" depth)"
  done <<'EOF'
g8.png|1,0|gray=7|8 bits per pixel \(8-bit samples\)
g8.png|0,1|gray=128|8 bits per pixel
g16.png|0,0|gray=4660|16 bits per pixel \(16-bit samples\)
g16.png|1,0|gray=65244|16 bits per pixel
g1.png|0,0|gray=255|8 bits per pixel
g1.png|8,0|gray=255|8 bits per pixel
g1.png|7,0|gray=0|8 bits per pixel
g4.png|0,0|gray=85|8 bits per pixel
rgb8.png|1,0|blue=60 green=50 red=40|24 bits per pixel
rgb16.png|0,0|blue=1286 green=772 red=258|48 bits per pixel \(16-bit samples\)
rgba8.png|0,0|blue=3 green=2 red=1 fourth=200|32 bits per pixel
rgba16.png|0,0|blue=3000 green=2000 red=1000 fourth=43981|64 bits per pixel
ga8.png|0,0|blue=50 green=50 red=50 fourth=60|32 bits per pixel
p2.png|2,0|index=2 red=0 green=0 blue=255|2 bits per pixel \(palette of 4 entries\)
p2.png|3,0|index=1 red=0 green=255 blue=0|2 bits per pixel
p8.png|1,0|index=1 red=1 green=2 blue=3|8 bits per pixel \(palette of 256 entries\)
adam7.png|0,0|blue=0 green=0 red=0|24 bits per pixel
adam7.png|3,1|blue=4 green=10 red=30|24 bits per pixel
adam7.png|4,4|blue=8 green=40 red=40|24 bits per pixel
adam7.png|1,2|blue=3 green=20 red=10|24 bits per pixel
EOF
  run "count-colors on six distinct grays" 0 count-colors g8.png
  expect "six colours" '^colors: 6$'
  run "count-colors on two distinct grays" 0 count-colors g8rep.png
  expect "two colours" '^colors: 2$'
  run "PNG with a bad checksum" 1 info badcrc.png
  expect "bad checksum named" '^imgcolor: badcrc\.png: corrupt PNG data' err
else
  echo "python3 not available: hand-made PNG cases skipped"
fi

# ---- Operations -------------------------------------------------------------------------
run "list" 0 list
expect "fill listed" '^  fill +'
expect "count-colors listed" '^  count-colors +'
run "help fill" 0 help fill
expect "help names the argument" '^  --color COLOUR$'
expect "help gives type, unit, range and default" '^      colour, colour value, .*default #FFFFFF$'
run "help saturation" 0 help saturation
expect "help gives the unit and the range of ranges.h" '^      int, tenths of a percent, -1000\.\.1000, default 300$'

# #RRGGBB gives red 0x10, green 0x20, blue 0x30; the family value holds red
# lowest, so 0x302010 is the same colour.
run "fill with #RRGGBB" 0 fill sample: filled.png --color '#102030' --quiet
run "info on filled" 0 info filled.png --pixel 0,0 --pixel 450,299
expect "filled top left" '^pixel 0,0: blue=48 green=32 red=16$'
expect "filled bottom right" '^pixel 450,299: blue=48 green=32 red=16$'
run "filled is one colour" 0 count-colors filled.png
expect "one colour" '^colors: 1$'
run "fill with a number" 0 fill sample: filled2.png --color=0x302010
same "number and #RRGGBB agree" "$(field filled.png checksum)" "$(field filled2.png checksum)"
run "default colour is white" 0 fill sample: white.png
if [ -s err ]; then fail "no progress output when stderr is not a terminal"; else pass; fi
run "info on white" 0 info white.png --pixel 5,5
expect "white" '^pixel 5,5: blue=255 green=255 red=255$'

orig_5=$(field sample: "pixel 5,5" --pixel 5,5)
orig_90=$(field sample: "pixel 90,90" --pixel 90,90)
orig_200=$(field sample: "pixel 200,200" --pixel 200,200)
red='blue=0 green=0 red=255'
# Each row: region options | pixels inside | pixels outside (x,y;x,y)
while IFS='|' read -r opts inside outside; do
  # shellcheck disable=SC2086
  run "fill $opts" 0 fill sample: region.png --color '#FF0000' $opts
  for p in $(echo "$inside" | tr ';' ' '); do
    same "$opts: $p inside" "$red" "$(field region.png "pixel $p" --pixel "$p")"
  done
  for p in $(echo "$outside" | tr ';' ' '); do
    case $p in 5,5) o=$orig_5 ;; 90,90) o=$orig_90 ;; *) o=$orig_200 ;; esac
    same "$opts: $p outside" "$o" "$(field region.png "pixel $p" --pixel "$p")"
  done
done <<'EOF'
--rect 10,10,100,100|10,10;99,99;50,50|5,5;200,200
--rect 0,0,10,10 --rect 85,85,95,95|5,5;90,90|200,200
--ellipse 0,0,180,180|90,90;5,90|5,5;200,200
--polygon 0,0,180,0,0,180|5,5;85,85|200,200
--polygon 0,0,100,0,0,100 --ellipse 150,150,250,250|5,5;200,200|90,90
EOF

# A library failure: a rectangle of negative size is an invalid parameter of
# SetBitmapRegionRect (-13); nothing is written.
run "region refused by the library" 1 fill sample: refused.png --rect 50,50,10,10
expect "library status named" '^imgcolor: --rect: failed with status -13 RC_INVALID_PARAMETER \(an argument is out of its range\)$' err
if [ -e refused.png ]; then fail "no output after a library failure"; else pass; fi

# ---- Bad files: exit status 1 and a message naming the file ------------------------------
: >empty.png
echo "this is plain text, not an image" >text.png
head -c 5000 "$DATA/chelsea.png" >truncated.png
head -c 6 "$DATA/chelsea.png" >stub.png
head -c 3000 photo.jpg >truncated.jpg
mkdir -p adir
while IFS='|' read -r file reason; do
  run "bad file $file" 1 info "$file"
  expect "$file: reason" "^imgcolor: $file: $reason" err
  run "bad input $file for an operation" 1 fill "$file" never.png
  if [ -e never.png ]; then fail "no output written for $file"; else pass; fi
done <<'EOF'
empty.png|empty file
text.png|not a PNG
truncated.png|truncated PNG data
stub.png|truncated PNG data
truncated.jpg|corrupt JPEG data
missing.png|No such file or directory
adir|is a directory
EOF
run "output into a missing directory" 1 convert sample: nodir/out.png
expect "output error names the file" '^imgcolor: nodir/out\.png: No such file or directory$' err
if [ -w /dev/full ]; then
  # Every write to /dev/full fails with "no space left on device".
  ln -s /dev/full full.png
  run "write failure" 1 convert sample: full.png
  expect "write failure message" '^imgcolor: full\.png: .*(No space left on device|Write Error)' err
  if [ -c full.png ]; then pass; else fail "a device output is never removed"; fi
fi

# ---- Naming inputs and outputs: nothing is written that the command line does not name ---
cp "$DATA/chelsea.png" coffee.png
ln -s coffee.png link.png
ln coffee.png hard.png
keep=$(cksum <coffee.png)
listing=$(ls -A | grep -v '^out$\|^err$')
# Each row: arguments | message | u when the usage line follows it
while IFS='|' read -r args pattern usage; do
  # shellcheck disable=SC2086
  run "refused: $args" 2 $args
  expect "message for: $args" "^imgcolor: $pattern" err
  [ -z "$usage" ] || expect "usage line for: $args" '^usage: imgcolor [a-z-]+ (IN|FILE)' err
  same "coffee.png untouched by: $args" "$keep" "$(cksum <coffee.png)"
  same "no file created by: $args" "$listing" "$(ls -A | grep -v '^out$\|^err$')"
done <<'EOF'
contrast coffee.png|contrast: missing OUT|u
contrast|contrast: missing IN and OUT|u
convert coffee.png|convert: missing OUT|u
count-colors|count-colors: missing IN|u
info|info: missing FILE|u
hue coffee.png coffee.png|coffee\.png: is the input file coffee\.png; refusing to overwrite it \(--in-place
hue coffee.png ./coffee.png|\./coffee\.png: is the input file
hue ./coffee.png link.png|link\.png: is the input file
convert link.png coffee.png|coffee\.png: is the input file
hue coffee.png hard.png|hard\.png: is the input file
hue coffee.png -|-: standard output needs --format png or --format jpeg
hue coffee.png - --format gif|--format: 'gif' is not a format
hue coffee.png new.jpg --format png|--format png contradicts the extension of new\.jpg
hue sample:cat new.png|unknown built-in image 'sample:cat'
count-colors coffee.png --in-place|count-colors: unknown option --in-place
hue coffee.png new.png --quiet --progress|--quiet and --progress exclude each other
EOF

# Standard input and output, PNG and JPEG, against the same work on files.
run "hue of a file" 0 hue coffee.png hue.png --angle 30
run "hue of standard input" 0 hue - hue-in.png --angle 30 <coffee.png
same "standard input reads like the file" "$(field hue.png checksum)" "$(field hue-in.png checksum)"
"$TOOL" hue coffee.png - --angle 30 --format png >hue-out.png 2>err
same "standard output writes like the file" "$(field hue.png checksum)" "$(field hue-out.png checksum)"
same "a filter between pipes" "$(field hue.png checksum)" \
  "$("$TOOL" convert - - --format png <coffee.png | "$TOOL" hue - - --angle 30 --format png | field - checksum)"
run "JPEG from standard input" 0 info - <photo.jpg
same "JPEG from standard input" "$(field photo.jpg checksum)" "$(sed -n 's/^checksum: *//p' out)"
"$TOOL" convert sample: - --format jpg >piped.jpg 2>err
same "JPEG to standard output" "$(field photo.jpg checksum)" "$(field piped.jpg checksum)"

# --in-place replaces the file (through a link too: the link stays) and keeps its permissions.
chmod 640 coffee.png
run "--in-place" 0 hue coffee.png coffee.png --angle 30 --in-place
same "--in-place result" "$(field hue.png checksum)" "$(field coffee.png checksum)"
same "--in-place keeps the permissions" "-rw-r-----" "$(ls -l coffee.png | cut -c1-10)"
run "--in-place through a link" 0 hue link.png link.png --angle 330 --in-place
same "the link is kept" "link.png -> coffee.png" "$(ls -l link.png | sed 's/.* link/link/')"
run "the same from a file" 0 hue hue.png hue-back.png --angle 330
same "the linked file changed" "$(field hue-back.png checksum)" "$(field coffee.png checksum)"

# A failed run leaves an existing output as it was, and no temporary file.
keep=$(cksum <hue.png)
run "failed read" 1 hue empty.png hue.png
run "failed operation" 1 fill sample: hue.png --rect 50,50,10,10
# A file size limit makes the write fail half way (the signal it raises is ignored).
(trap '' XFSZ && ulimit -f 20 && "$TOOL" convert sample: hue.png >out 2>err)
expect "write failure reported" '^imgcolor: hue\.png: write failed: File too large$' err
same "hue.png untouched by failed runs" "$keep" "$(cksum <hue.png)"
same "no temporary file left" "none" "$(ls -A | grep '\.tmp$' || echo none)"

# ---- Progress bar: stderr, off when not a terminal unless --progress ----------------------
run "forced progress" 0 fill sample: bar.png --progress
tr '\r' '\n' <err >bar
while IFS='|' read -r phase pattern; do
  expect "progress: $phase" "$pattern" bar
done <<'EOF'
reading|^\[\.{10}\] +0% [-|/\\] reading
operation|^\[#\.{9}\] +10% [-|/\\] fill
writing|^\[#{9}\.\] +90% [-|/\\] writing
done|^\[#{10}\] 100% [-|/\\] done
EOF
run "--quiet" 0 fill sample: bar.png --quiet
if [ -s err ]; then fail "--quiet draws no bar"; else pass; fi
if [ -f big.png ]; then
  # The hue row path reports no progress: the spinner turns while the bar stays at 10 %
  # (remap-hue: hue and saturation now take well under one turn here).
  "$TOOL" remap-hue big.png - --format png --progress >/dev/null 2>err
  turns=$(tr '\r' '\n' <err | sed -n 's/^.* 10% \(.\) remap-hue *$/\1/p' | sort -u | wc -l)
  if [ "$turns" -ge 2 ]; then pass; else fail "the spinner turns during remap-hue (saw $turns positions)"; fi
fi

# ---- Bad arguments: exit status 2 -----------------------------------------------------
while IFS='|' read -r args pattern; do
  # shellcheck disable=SC2086
  run "bad arguments: $args" 2 $args
  expect "message for: $args" "$pattern" err
done <<'EOF'
|^usage: imgcolor
nosuch|unknown command 'nosuch'
help nosuch|unknown operation 'nosuch'
info a.png b.png|info takes one FILE
info --bogus|unknown option --bogus
convert sample: out.png --depth 7|--depth: '7' is not a depth
convert sample: out.png --depth|--depth: missing value
convert sample: out.gif|out\.gif: unknown output format
convert sample: out.png --gray --depth 24|--depth: 24 with --gray
fill a.png b.png c.png|fill takes IN and OUT, got 3 file arguments
fill sample: out.png --nosuch 1|unknown option --nosuch
fill sample: out.png --color #12345|--color: '#12345' is not a colour
fill sample: out.png --color #GG0000|--color: '#GG0000' is not a colour
fill sample: out.png --color 0x100000000|--color: .* \(expected #RRGGBB or a number 0\.\.0xFFFFFFFF\)
fill sample: out.png --color 1 --color 2|--color: given more than once
fill sample: out.png --rect 1,2,3|--rect: expected 4 comma-separated values
fill sample: out.png --rect 1,2,x,4|--rect: 'x' is not a coordinate
fill sample: out.png --polygon 1,2,3,4|--polygon: expected at least 3 points
fill sample: out.png --polygon 1,2,3,4,5,6,7|--polygon: expected at least 3 points
count-colors a.png b.png|count-colors takes IN, got 2 file arguments
info sample: --pixel 451,0|--pixel: 451,0 is outside the 451 x 300 image
EOF
if [ -e out.png ]; then fail "no output after argument errors"; else pass; fi

# ---- Row bands (-j / --threads) --------------------------------------------------
# A row-local operation in bands on threads writes the one-thread image.
run "hue on one thread" 0 hue sample: j1.png -j 1 --quiet
run "hue in three bands" 0 hue sample: j3.png --threads 3 --quiet
if cmp -s j1.png j3.png; then pass; else fail "hue: -j 1 and --threads 3 differ"; fi
run "bad thread count" 2 invert sample: j0.png -j 0
expect "message for -j 0" "--threads: '0' is not a thread count" err
rm -f j1.png j3.png

# ---- Colour planes, channel mix, line profile ---------------------------------
# Separation writes one file a plane; merge reads them back (RGB: the same
# pixels); cmyk takes four; a plane count that does not fit the model fails.
rm -f planes*.png merged.png
run "separate rgb" 0 separate sample: planes.png --quiet
for i in 0 1 2; do [ -f "planes-$i.png" ] && pass || fail "separate wrote planes-$i.png"; done
[ -f planes-3.png ] && fail "rgb makes three planes" || pass
same "plane size" "$(field planes-1.png size)" "451 x 300"
run "merge rgb" 0 merge planes-0.png planes-1.png planes-2.png merged.png --quiet
same "merge gives the photo back" "$(field merged.png checksum)" "$(field sample: checksum)"
run "separate cmyk" 0 separate sample: cmyk.png --model cmyk --quiet
[ -f cmyk-3.png ] && pass || fail "cmyk writes four planes"
run "merge cmyk" 0 merge cmyk-0.png cmyk-1.png cmyk-2.png cmyk-3.png cmyk-merged.png --model cmyk --quiet
run "merge cmyk of three" 1 merge cmyk-0.png cmyk-1.png cmyk-2.png x.png --model cmyk --quiet
expect "plane count message" "planes: 3 given, the model takes 4" err
run "merge of two" 2 merge planes-0.png planes-1.png x.png
expect "merge usage" "merge takes IN IN IN \\[IN \\.\\.\\.\\] and OUT" err
run "separate to stdout" 1 separate sample: - --format png --quiet
expect "several images need a file" "makes 3 images; name a file as OUT" err
run "merge onto a plane" 2 merge planes-0.png planes-1.png planes-2.png planes-0.png
[ -f x.png ] && fail "no output after failed merges" || pass
# Channel mix takes its factors as lists; the identity keeps the photo.
run "channel-mix identity" 0 channel-mix sample: mix.png --red 100,0,0 --green 0,100,0,0 --blue 0,0,100 --quiet
same "identity mix" "$(field mix.png checksum)" "$(field sample: checksum)"
run "channel-mix range" 2 channel-mix sample: mix.png --red 1001,0,0
expect "factor range" "--red" err
# The line profile prints comma-separated values on standard output.
run "line-profile" 0 line-profile sample: --x1 0 --y1 0 --x2 3 --y2 0 --quiet
expect "profile header" "^point,red,green,blue$"
expect "profile last point" "^3,[0-9]+,[0-9]+,[0-9]+$"
run "line-profile outside" 1 line-profile sample: --x2 451 --quiet

# ---- Target sampling and adding bitmaps ---------------------------------------------
# Flat images of known levels: 100 and 200 in every sample.
run "flat 100" 0 fill sample: flat100.png --color '#646464'
run "flat 200" 0 fill sample: flat200.png --color '#C8C8C8'
run "add: sum saturates" 0 add flat100.png flat200.png sum.png --mode sum
same "add: 100 + 200" "blue=255 green=255 red=255" "$(field sum.png 'pixel 3,4' --pixel 3,4)"
run "add: average" 0 add flat100.png flat200.png flat100.png avg.png
same "add: (100 + 200 + 100) / 3" "blue=133 green=133 red=133" "$(field avg.png 'pixel 0,0' --pixel 0,0)"
run "add: the region's bounds only" 0 add flat100.png flat200.png part.png --mode sum --rect 10,10,20,20
same "add: outside the bounds" "blue=100 green=100 red=100" "$(field part.png 'pixel 5,5' --pixel 5,5)"
same "add: inside the bounds" "blue=255 green=255 red=255" "$(field part.png 'pixel 15,15' --pixel 15,15)"
run "add: the same file twice" 0 add sample: sample: twice.png
same "add: a file averaged with itself" "$sample_sum" "$(field twice.png checksum)"
run "add-weighted: factors 1 and 3" 0 add-weighted flat100.png flat200.png weighted.png --factors 1,3
same "add-weighted: (100 + 600) / 4" "blue=175 green=175 red=175" "$(field weighted.png 'pixel 0,0' --pixel 0,0)"
run "add-weighted: a factor per input" 2 add-weighted flat100.png flat200.png bad.png --factors 1
expect "add-weighted: factor count named" '--factors: 1 factors for 2 inputs' err
run "add-weighted: zero factors" 1 add-weighted flat100.png flat200.png bad.png --factors 0,0
expect "add-weighted: -13 reported" 'failed with status -13' err
run "add: OUT is not an input" 2 add flat100.png flat200.png flat200.png
run "add: standard input once" 2 add - - bad.png
if [ -e bad.png ]; then fail "add: no output after errors"; else pass; fi
run "sample-target: colour curves reported" 0 sample-target sample: target.png --sample '#808080' --target '#A07050'
expect "sample-target: red curve" '^red: 128 -> 160$'
expect "sample-target: blue curve" '^blue: 128 -> 80$'
run "sample-target: one gray curve" 0 sample-target gray.png target-gray.png --channel red
expect "sample-target: gray values 128 -> 120" '^gray: 128 -> 120$'
run "sample-target: nothing to change" 0 sample-target sample: same.png --sample '#808080' --target '#808080'
same "sample-target: unchanged" "$sample_sum" "$(field same.png checksum)"

# ---- Coloured gray, balance, swap, equalisation, intensity balance ----------------------
run "swap red and blue" 0 swap-colors sample: swapped.png --swap rb
run "swap them back" 0 swap-colors swapped.png swapback.png --swap rb
same "swapping twice keeps the pixels" "$sample_sum" "$(field swapback.png checksum)"
run "rotate one way" 0 swap-colors sample: rot.png --swap rgbr
run "and back" 0 swap-colors rot.png rotback.png --swap rbgr
same "rotating there and back keeps the pixels" "$sample_sum" "$(field rotback.png checksum)"
run "identity balance" 0 balance sample: bal.png --red 100,0,0 --green 0,100,0 --blue 0,0,100
same "identity shares keep the pixels" "$sample_sum" "$(field bal.png checksum)"
run "balance needs three shares" 2 balance sample: bal2.png --red 80,15
run "balance refuses gray" 1 balance gray.png bal3.png
run "colored gray on gray" 0 colored-gray gray.png tinted.png --red-factor 300
run "equalize by luminance" 0 equalize sample: eq.png --mode luminance
run "local equalization, small tiles" 0 local-equalize sample: leq.png --tile-width 8 --tile-height 8 --clip 0
run "local equalization refuses tile 7" 2 local-equalize sample: leq2.png --tile-width 7
run "white patch balance" 0 intensity-balance sample: ib.png --method white-patch --strength 60

# ---- Dynamic binary, red-eye removal, segmentation --------------------------------
run "dynamic-binary on the sample" 0 dynamic-binary sample: bin.png --dimension 15 --contrast 15
run "binary result is colour black and white" 0 info bin.png
expect "binary size" '^size: +451 x 300$'
run "dynamic-binary dimension 0 refused" 2 dynamic-binary sample: bad.png --dimension 0
if [ -e bad.png ]; then fail "no output after a refused dimension"; else pass; fi
run "remove-redeye in a rectangle" 0 remove-redeye sample: eye.png --rect 100,50,200,150 --threshold 140
run "convert to gray" 0 convert sample: g.png --gray
run "remove-redeye on gray" 1 remove-redeye g.png eye2.png
expect "gray refusal message" "accepts palette" err
run "segment writes the image and its labels" 0 segment sample: seg.png --k 300 --min-size 20
expect "segment count reported" '^segments: [0-9]+$'
run "labels image" 0 info seg-labels.png
expect "labels are 16-bit gray" '16 bits per pixel'

# ---- Colour threshold, replace and selective colour --------------------------------------
run "color-replace-weights makes a mask" 0 color-replace-weights sample: mask.png --color '#C08050' --fuzziness 60
run "info on the mask" 0 info mask.png
expect "the mask is 8-bit gray" '^kind: +gray$'
expect "the mask depth" '^depth: +8 bits per pixel'
# No adjustment changes no ink.
run "selective colour without adjustments" 0 selective-color sample: sel.png --reds 0,0,0,0 --blues 0,0,0,0 \
  --whites 0,0,0,0 --blacks 0,0,0,0
same "selective colour without adjustments keeps the pixels" "$sample_sum" "$(field sel.png checksum)"
run "selective colour refuses gray" 1 selective-color gray.png sel.png
expect "selective colour names the kinds it takes" 'gray bitmap; selective-color accepts palette' err
run "color-threshold in HSV" 0 color-threshold sample: thr.png --space hsv --components 20,60,1,0,0,1,0,0,1
run "color-threshold: nine values" 2 color-threshold sample: thr.png --components 1,2,3
run "color-threshold: code 9 is not offered" 2 color-threshold sample: thr.png --space lab-table
run "color-replace with a region" 0 color-replace sample: rep.png --rect 0,0,100,100 --hue -18000

# ---- Hostile files: the pixel limit ------------------------------------------------
# A 68-byte PNG whose header claims 30000 x 30000 pixels is refused from its
# header (default limit about 178 megapixels), quickly and without a bitmap;
# --max-pixels moves the limit both ways.
printf '\211\120\116\107\015\012\032\012\000\000\000\015\111\110\104\122\000\000\165\060\000\000\165\060\010\002\000\000\000\351\105\157\355\000\000\000\013\111\104\101\124\170\234\143\140\200\000\000\000\010\000\001\267\130\163\225\000\000\000\000\111\105\116\104\256\102\140\202' >huge.png
run "huge header" 1 info huge.png
expect "huge header refused" "30000 x 30000 pixels is over the limit of 178956970 pixels" err
run "huge header, invert" 1 invert huge.png inv.png
if [ -e inv.png ]; then fail "no output from a refused input"; else pass; fi
run "sample under a lowered limit" 1 info sample: --max-pixels 135299
expect "lowered limit" "451 x 300 pixels is over the limit of 135299 pixels" err
run "sample at the limit" 0 invert sample: inv.png --max-pixels 135300
run "bad limit" 2 info sample: --max-pixels 0
expect "bad limit message" "--max-pixels: '0' is not a positive number" err
rm -f huge.png inv.png

# ---- Chains, quality, metadata, batch, TIFF and WebP -----------------------------
# A chain runs its operations in order on one bitmap: the same pixels as one
# run per operation through PNG. Each row: up to three operations.
while IFS='|' read -r first second third; do
  # shellcheck disable=SC2086
  "$TOOL" $first sample: step.png --quiet && "$TOOL" $second step.png step.png --in-place --quiet &&
    { [ -z "$third" ] || "$TOOL" $third step.png step.png --in-place --quiet; }
  # shellcheck disable=SC2086
  run "chain $first|$second|$third" 0 $first sample: chain.png $second $third --quiet
  same "chain $first|$second|$third equals separate runs" "$(field step.png checksum)" "$(field chain.png checksum)"
done <<'ROWS'
contrast --change 300|hue --angle 30|
invert --rect 10,10,200,100|posterize --levels 4 --ellipse 0,0,300,300|
gray-ext|invert|solarize --threshold 100
ROWS
run "chain: reported values after a step" 0 invert sample: c.png count-colors --quiet
expect "chain: count-colors reports" '^colors: [0-9]+$'
# Each row: arguments | message. Nothing is written.
while IFS='|' read -r args msg; do
  rm -f c.png c-0.png c.jpg
  # shellcheck disable=SC2086
  run "refused: $args" 2 $args
  expect "refused: $args: message" "$msg" err
  if [ -e c.png ] || [ -e c-0.png ] || [ -e c.jpg ]; then fail "refused: $args wrote a file"; else pass; fi
done <<'ROWS'
invert sample: c.png separate|separate: reads several images or writes several; it runs on its own
merge a.png b.png c.png c.png invert|merge: reads several images or writes several
invert sample: hue c.png|'c.png': file arguments follow the first operation
invert sample: c.png --quality 50|--quality: c.png is not JPEG or WebP
invert sample: c.jpg --quality 101|--quality: '101' is not a quality
ROWS
run "chain: a kind a later step does not take" 1 gray-ext sample: c.png selective-color
expect "chain: the step and the kind" 'is a 8-bit gray bitmap after gray-ext; selective-color accepts' err
if [ -e c.png ]; then fail "a failed chain wrote c.png"; else pass; fi

# --quality: smaller files at lower quality; the default stays 92.
run "quality 30" 0 invert sample: q30.jpg --quality 30 --quiet
run "default quality" 0 invert sample: q92.jpg --quiet
run "quality 92" 0 invert sample: q92b.jpg --quality 92 --quiet
same "default quality is 92" "$(cksum <q92.jpg)" "$(cksum <q92b.jpg)"
if [ "$(wc -c <q30.jpg)" -lt "$(wc -c <q92.jpg)" ]; then pass; else fail "quality 30 is not smaller than 92"; fi

# Metadata: a PNG with an ICC profile, EXIF (orientation 6) and a comment goes
# through JPEG and back to PNG with the same profile and EXIF bytes, unrotated.
if command -v python3 >/dev/null 2>&1; then
  python3 - <<'PY'
import struct, zlib
def chunk(kind, data):
    return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data) & 0xffffffff)
# A 400-byte RGB display profile: header, one tag, filler bytes.
icc = bytearray(128) + struct.pack('>I4sII', 1, b'desc', 144, 256) + bytes(i * 7 & 255 for i in range(256))
icc[0:4] = struct.pack('>I', 400); icc[12:16] = b'mntr'; icc[16:20] = b'RGB '; icc[20:24] = b'XYZ '
icc[36:40] = b'acsp'; icc[68:80] = struct.pack('>iii', 63190, 65536, 54061)
exif = b'MM\0*' + struct.pack('>IH', 8, 1) + struct.pack('>HHIHH', 0x112, 3, 1, 6, 0) + b'\0\0\0\0'
raw = b''.join(b'\0' + bytes(v for x in range(4) for v in (10 * x, 20 * y, 30)) for y in range(3))
out = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 4, 3, 8, 2, 0, 0, 0))
out += chunk(b'iCCP', b'test\0\0' + zlib.compress(bytes(icc))) + chunk(b'eXIf', exif)
out += chunk(b'tEXt', b'Comment\0made by tool_test') + chunk(b'IDAT', zlib.compress(raw)) + chunk(b'IEND', b'')
open('meta.png', 'wb').write(out)
open('meta.icc', 'wb').write(bytes(icc))
open('meta.exif', 'wb').write(exif)
PY
  run "metadata: PNG to JPEG" 0 invert meta.png meta.jpg --quiet
  run "metadata: JPEG to PNG" 0 hue meta.jpg meta2.png --quiet
  python3 - >out <<'PY'
import struct, zlib
data = open('meta2.png', 'rb').read()
pos, found = 8, []
while pos < len(data):
    n, kind = struct.unpack('>I4s', data[pos:pos + 8])
    body = data[pos + 8:pos + 8 + n]
    pos += 12 + n
    if kind == b'IHDR': found.append('size %dx%d' % struct.unpack('>II', body[:8]))
    if kind == b'iCCP' and zlib.decompress(body[body.index(b'\0') + 2:]) == open('meta.icc', 'rb').read():
        found.append('icc')
    if kind == b'eXIf' and body == open('meta.exif', 'rb').read(): found.append('exif')
    if kind in (b'tEXt', b'iTXt') and b'made by tool_test' in body: found.append('comment')
print(' '.join(sorted(found)))
PY
  expect "metadata: ICC, EXIF and comment kept, not rotated" '^comment exif icc size 4x3$'
fi

# Batch: every file through the chain into OUTDIR, on two workers; a bad file
# fails alone (status 1, one message) and no input is touched.
mkdir -p in
"$TOOL" convert sample: in/a.png --quiet && "$TOOL" convert sample: in/b.jpg --quiet && echo text >in/bad.png
before=$(cat in/* | cksum)
run "batch with a bad file" 1 batch contrast --change 300 hue --angle 30 -o outdir -j 2 in/a.png in/b.jpg in/bad.png
expect "batch: the bad file named" '^imgcolor: in/bad.png: not a PNG' err
expect "batch: the count" 'batch: 1 of 3 files failed' err
"$TOOL" contrast in/b.jpg one.jpg --change 300 hue --angle 30 --quiet
same "batch equals a single run" "$(field one.jpg checksum)" "$(field outdir/b.jpg checksum)"
same "batch leaves its inputs" "$before" "$(cat in/* | cksum)"
run "batch with --format" 0 batch invert -o outdir --format png in/b.jpg --quiet
if [ -e outdir/b.png ]; then pass; else fail "batch --format png wrote no outdir/b.png"; fi
while IFS='|' read -r args msg; do
  # shellcheck disable=SC2086
  run "batch refused: $args" 2 batch $args
  expect "batch refused: $args: message" "$msg" err
  same "batch refused: $args: inputs untouched" "$before" "$(cat in/* | cksum)"
done <<'ROWS'
invert -o in in/a.png|in/a.png would replace the input in/a.png; batch never replaces its inputs
invert -o in in/a.png --in-place|--in-place: batch never replaces its inputs
invert -o outdir in/a.png a/a.png|in/a.png and a/a.png would both write outdir/a.png
invert in/a.png|missing -o OUTDIR
separate -o outdir in/a.png|separate does not write one image from one
ROWS

# TIFF (8 and 16 bits) and WebP when the build has them: lossless round trips,
# and a header over --max-pixels refused before anything is allocated.
formats=$("$TOOL" --version | sed -n 's/^formats: //p')
for f in tiff webp; do
  case "$formats" in *$f*) ;; *) continue ;; esac
  for kind in "" "--depth 48" "--gray" "--gray --depth 16"; do
    [ "$f" = webp ] && [ -n "$kind" ] && continue # WebP holds 8-bit colour only
    # shellcheck disable=SC2086
    "$TOOL" convert sample: k.png $kind --quiet
    run "$f round trip $kind" 0 convert k.png "k.$f" --quiet
    same "$f keeps the pixels $kind" "$(field k.png checksum)" "$(field "k.$f" checksum)"
  done
done
case "$formats" in *tiff*)
  # A header and one directory claiming 30000 x 30000 8-bit gray pixels.
  printf 'II*\000\010\000\000\000\005\000\000\001\004\000\001\000\000\0000u\000\000\001\001\004\000\001\000\000\0000u\000\000\006\001\003\000\001\000\000\000\001\000\000\000\021\001\004\000\001\000\000\000\010\000\000\000\027\001\004\000\001\000\000\000\001\000\000\000\000\000\000\000' >huge.tif
  run "huge TIFF header" 1 info huge.tif
  expect "huge TIFF refused" "30000 x 30000 pixels is over the limit" err
  ;;
esac
case "$formats" in *webp*)
  # A lossless WebP header claiming 16384 x 16384 pixels.
  printf 'RIFF\032\000\000\000WEBPVP8L\015\000\000\000\057\377\377\377\017\000\000\000\000\000\000\000\000\000' >huge.webp
  run "huge WebP header" 1 info huge.webp --max-pixels 1000000
  expect "huge WebP refused" "16384 x 16384 pixels is over the limit of 1000000" err
  # --quality makes WebP lossy: smaller than the lossless default.
  run "lossy WebP" 0 invert sample: lossy.webp --quality 50 --quiet
  "$TOOL" invert sample: lossless.webp --quiet
  if [ "$(wc -c <lossy.webp)" -lt "$(wc -c <lossless.webp)" ]; then pass; else fail "WebP --quality 50 is not smaller"; fi
  ;;
esac

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
