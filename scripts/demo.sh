#!/usr/bin/env bash
# Installs what is missing, builds glimra and its demo pictures, and runs the slideshow on them.
#
# With a display ($DISPLAY or $WAYLAND_DISPLAY) the slideshow simply starts for you: Left/Right
# step, B and C switch black and white on and off, I toggles the information line, Escape ends.
# Without one it runs under its own Xvfb and drives itself: every picture with Right, then B, C,
# I, Left, I, a second start of glimra that hands its picture to the running copy, and a raw
# "load" datagram; a screenshot of each step lands in demo-out/NN-step.png. Ends with Escape and
# checks that the program exited with 0. Exits non-zero when anything failed.
#
#   BUILD_DIR       build folder (default build)
#   DEMO_OUT        output folder (default demo-out)
#   DEMO_PORT       UDP command port of the demo's slideshow (default 5123, not the usual 5000,
#                   so as not to reach a slideshow that may be running on the machine)
#   DEMO_HEADLESS   1 drives the slideshow under Xvfb even when a display is there
#   JOBS            parallel build jobs (default: number of cores)
set -u
cd "$(dirname "$0")/.." || exit 1
ROOT=$(pwd)
BUILD_DIR=${BUILD_DIR:-build}
OUT=${DEMO_OUT:-demo-out}
PORT=${DEMO_PORT:-5123}
JOBS=${JOBS:-$(nproc)}
WIDTH=1280
HEIGHT=720
case $BUILD_DIR in /*) ;; *) BUILD_DIR=$ROOT/$BUILD_DIR ;; esac
case $OUT in /*) ;; *) OUT=$ROOT/$OUT ;; esac
PICS=$OUT/pictures
RUN=$OUT/run

say() { printf '%s\n' "demo: $*"; }
die() { printf '%s\n' "demo: $*" >&2; exit 1; }

# ---- what is needed ------------------------------------------------------------------------
. scripts/deps.sh
glimra_install_deps || die "dependency installation failed"

mkdir -p "$OUT" || die "can't create $OUT"
say "building into $BUILD_DIR"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$OUT/build.log" 2>&1 &&
  cmake --build "$BUILD_DIR" -j "$JOBS" --target glimra runtime_data glimra-demopics \
    >>"$OUT/build.log" 2>&1 || { tail -30 "$OUT/build.log"; die "build failed (log: $OUT/build.log)"; }

# ---- the pictures, made again only when the tool's source changed --------------------------
stamp=$(sha1sum tools/glimra-demopics.cpp | cut -d' ' -f1)
if [ "$(cat "$PICS/.made-by" 2>/dev/null)" = "$stamp" ]; then
  say "reusing the demo pictures in $PICS"
else
  say "painting the demo pictures into $PICS"
  rm -rf "$PICS"
  (cd "$OUT" && "$BUILD_DIR/tools/glimra-demopics" "$PICS") >"$OUT/demopics.log" 2>&1 ||
    { cat "$OUT/demopics.log"; die "glimra-demopics failed"; }
  echo "$stamp" >"$PICS/.made-by"
fi
mapfile -t pictures < <(cd "$PICS" && ls -1 | LC_ALL=C sort -f | grep -Ei '\.(jpg|tga)$')
[ ${#pictures[@]} -ge 3 ] || die "too few pictures in $PICS"

# ---- the runnable folder: the program, its font and a configuration of its own --------------
rm -rf "$RUN"
mkdir -p "$RUN" || die "can't create $RUN"
cp "$BUILD_DIR/glimra" "$RUN/" && cp -r "$BUILD_DIR/fonts" "$RUN/" ||
  die "can't copy the program into $RUN"

write_ini() {  # manage-window flag
  cat >"$RUN/glimra.ini" <<EOF
; glimra demo configuration, written by scripts/demo.sh. Keys not given take their defaults.
app
{
  startup_directory=$PICS
}
effects
{
  show_info=1
  black_and_white=0
}
network
{
  port=$PORT
}
resolution
{
  width=$WIDTH
  height=$HEIGHT
  fullscreen=0
  x=0
  y=0
}
window
{
  manage=$1
}
EOF
}

# Only one copy runs: another one would be handed our start and show nothing of ours.
others_running() {
  local comm
  for comm in /proc/[0-9]*/comm; do
    [ "$(cat "$comm" 2>/dev/null)" = glimra ] && return 0
  done
  return 1
}

# ---- with a display: run it for the user ------------------------------------------------------
if [ "${DEMO_HEADLESS:-0}" != 1 ] && { [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; }; then
  others_running && die "a glimra slideshow is already running; end it (Escape) and try again"
  write_ini 1
  if [ -z "${DISPLAY:-}" ] && [ -z "${SDL_VIDEODRIVER:-}" ]; then export SDL_VIDEODRIVER=wayland; fi
  say "showing ${#pictures[@]} pictures from $PICS"
  say "keys: Left/Right previous/next picture, B black and white, C colour,"
  say "      I information line on/off, Escape ends"
  say "from another terminal: (cd $RUN && ./glimra ${pictures[1]}) hands a picture over,"
  say "      as does a UDP datagram 'load <path>' to 127.0.0.1 port $PORT"
  say "the program's log goes to $OUT/glimra.log"
  cd "$RUN" || exit 1
  ./glimra >"$OUT/glimra.log" 2>&1
  status=$?
  say "the slideshow ended with status $status"
  exit $status
fi

# ---- without a display: drive it under Xvfb ----------------------------------------------------
for tool in Xvfb xdotool xwd convert; do
  command -v "$tool" >/dev/null || die "'$tool' is missing"
done

tmp=$(mktemp -d) || die "no temporary folder"
xvfb_pid=""
app_pid=""
cleanup() {
  if [ -n "$app_pid" ] && kill -0 "$app_pid" 2>/dev/null; then kill "$app_pid" 2>/dev/null; fi
  if [ -n "$xvfb_pid" ] && kill -0 "$xvfb_pid" 2>/dev/null; then kill "$xvfb_pid" 2>/dev/null; fi
  wait 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Another engineer's or a test's slideshow may be running for a moment; wait it out.
for _ in $(seq 60); do others_running || break; sleep 1; done
others_running && die "another glimra keeps running; the demo's would only hand over to it"

# Xvfb picks a free display number itself and writes it to the given descriptor.
Xvfb -displayfd 3 -screen 0 "${WIDTH}x${HEIGHT}x24" -nolisten tcp -noreset \
  3>"$tmp/display" >"$tmp/xvfb.log" 2>&1 &
xvfb_pid=$!
for _ in $(seq 100); do
  grep -q '^[0-9]' "$tmp/display" 2>/dev/null && break
  kill -0 "$xvfb_pid" 2>/dev/null || break
  sleep 0.1
done
grep -q '^[0-9]' "$tmp/display" 2>/dev/null || { cat "$tmp/xvfb.log"; die "Xvfb did not start"; }
DISPLAY=":$(head -n1 "$tmp/display" | tr -dc 0-9)"
export DISPLAY
unset WAYLAND_DISPLAY
say "Xvfb on $DISPLAY (${WIDTH}x${HEIGHT})"

write_ini 0
rm -f "$OUT"/[0-9][0-9]-*.png
failures=0
shots=()
signature() { timeout 10 xwd -root -silent | convert xwd:- -resize 64x36! -depth 8 rgb:- 2>/dev/null | md5sum; }
# The empty screen: the first screenshot waits until the first picture is up.
last_sig=$(signature)
(cd "$RUN" && exec ./glimra) >"$OUT/glimra.log" 2>&1 &
app_pid=$!

window=""
for _ in $(seq 100); do
  window=$(timeout 5 xdotool search --pid "$app_pid" 2>/dev/null | head -n1)
  [ -n "$window" ] && break
  kill -0 "$app_pid" 2>/dev/null || break
  sleep 0.2
done
if [ -z "$window" ]; then
  tail -20 "$OUT/glimra.log"
  die "the slideshow's window did not appear within 20 s (log: $OUT/glimra.log)"
fi
say "window $window"


# Waits (at most 6 s) for the screen to change from the previous step and to settle, then saves
# it as NN-name.png.
shot() {  # name
  local name=$1 sig="" prev="" n=$((${#shots[@]} + 1)) file
  file=$(printf '%s/%02d-%s.png' "$OUT" "$n" "$name")
  for _ in $(seq 30); do
    sleep 0.2
    sig=$(signature)
    [ "$sig" != "$last_sig" ] && [ "$sig" = "$prev" ] && break
    prev=$sig
  done
  if [ "$sig" = "$last_sig" ]; then
    say "step '$name': the screen did not change"
    failures=$((failures + 1))
  fi
  last_sig=$sig
  timeout 10 xwd -root -silent | convert xwd:- "png:$file" ||
    { say "step '$name': no screenshot"; failures=$((failures + 1)); return; }
  shots+=("$file")
}

key() {  # key name, step name
  timeout 10 xdotool windowfocus --sync "$window" key --delay 100 "$1" >/dev/null 2>&1 ||
    { say "step '$2': xdotool could not press $1"; failures=$((failures + 1)); }
  shot "$2"
}

shot start
for ((i = 1; i < ${#pictures[@]}; i++)); do key Right "right"; done
key b black-and-white
key c colour
key i info-off
key Left left
key i info-on

# A second start hands its argument to the running copy and ends at once.
handoff=${pictures[1]}
if (cd "$RUN" && timeout 10 ./glimra "$handoff") >"$OUT/handoff.log" 2>&1; then
  shot "handoff-${handoff%.*}"
else
  say "the second start with '$handoff' did not end with 0 (log: $OUT/handoff.log)"
  failures=$((failures + 1))
fi

# The same command as a plain datagram, as any other program would send it.
loaded=${pictures[${#pictures[@]} - 2]}
if printf 'load %s' "$loaded" >"/dev/udp/127.0.0.1/$PORT" 2>/dev/null ||
   python3 -c 'import socket,sys; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(sys.argv[1].encode(), ("127.0.0.1", int(sys.argv[2])))' \
     "load $loaded" "$PORT" 2>/dev/null; then
  shot "udp-load-${loaded%.*}"
else
  say "could not send the load datagram"
  failures=$((failures + 1))
fi

timeout 10 xdotool windowfocus --sync "$window" key Escape >/dev/null 2>&1
status=""
for _ in $(seq 100); do
  if ! kill -0 "$app_pid" 2>/dev/null; then
    wait "$app_pid"
    status=$?
    break
  fi
  sleep 0.1
done
if [ -z "$status" ]; then
  say "the slideshow did not end within 10 s of Escape"
  failures=$((failures + 1))
elif [ "$status" -ne 0 ]; then
  say "the slideshow ended with status $status (log: $OUT/glimra.log)"
  failures=$((failures + 1))
else
  say "the slideshow ended with status 0"
  app_pid=""
fi

say "screenshots:"
printf '  %s\n' "${shots[@]}"
[ "$failures" -eq 0 ] || die "$failures step(s) failed"
say "done"
