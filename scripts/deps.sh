#!/usr/bin/env bash
# Installs the Debian packages glimra needs to build, test and run, when any is missing.
# Sourced by the other scripts; uses apt-get (through sudo when not root).
glimra_install_deps() {
  local pkgs=(cmake g++ pkg-config make
    libjpeg62-turbo-dev libpng-dev libheif-dev libwebp-dev libgif-dev libtiff-dev liblcms2-dev
    libenet-dev libsdl2-dev libgl-dev libglu1-mesa-dev libsqlite3-dev
    libmosquitto-dev nlohmann-json3-dev mosquitto mosquitto-clients openssl
    libfreetype-dev libfontconfig-dev fonts-dejavu-core zlib1g-dev
    libgtest-dev libgmock-dev libbenchmark-dev hyperfine libx11-dev libxext-dev libxtst-dev
    xvfb xauth xdotool x11-utils x11-xserver-utils x11-apps xfonts-base xserver-xorg-core xserver-xorg-video-dummy
    openbox cage grim xwayland
    clang-14 libclang-rt-14-dev
    imagemagick netpbm libimage-exiftool-perl libheif-examples webp libtiff-tools
    dpkg-dev file lintian systemd man-db groff-base locales)
  local missing=()
  for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq || return 1
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" || return 1
}
