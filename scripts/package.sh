#!/usr/bin/env bash
# Builds the Debian package of glimra into dist/ (dist/glimra_VERSION_ARCH.deb): a build with
# Debian's hardening flags in a folder of its own, then CPack. Install it with
#   apt install ./dist/glimra_*.deb
#   BUILD_DIR   build folder (default build-package)
#   JOBS        parallel build jobs (default: number of cores)
set -u
cd "$(dirname "$0")/.." || exit 1
ROOT=$(pwd)
BUILD_DIR=${BUILD_DIR:-build-package}
JOBS=${JOBS:-$(nproc)}
case $BUILD_DIR in /*) ;; *) BUILD_DIR=$ROOT/$BUILD_DIR ;; esac

die() { printf '%s\n' "package: $*" >&2; exit 1; }

. scripts/deps.sh
glimra_install_deps || die "dependency installation failed"

export DEB_BUILD_MAINT_OPTIONS=hardening=+all
flags() { dpkg-buildflags --get "$1"; }
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGLIMRA_BENCH=OFF \
  -DCMAKE_C_FLAGS="$(flags CPPFLAGS) $(flags CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" >/dev/null || die "configuration failed"
cmake --build "$BUILD_DIR" -j "$JOBS" --target glimra runtime_data package_docs ||
  die "build failed"

# CPack keeps its staging tree beside the package; only the package stays.
mkdir -p dist || die "can't create dist/"
rm -rf dist/_CPack_Packages
cpack -G DEB --config "$BUILD_DIR/CPackConfig.cmake" -B "$ROOT/dist" || die "cpack failed"
rm -rf dist/_CPack_Packages
ls -l dist/*.deb
