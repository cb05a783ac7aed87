#!/usr/bin/env bash
# Installs, with apt-get, whatever of the build and test dependencies is missing
# (pngcheck and libtiff-tools are the tests' independent decoders of the image payloads,
# Boost.Geometry their independent point-in-polygon test, LERC the storage benchmark's peer,
# CGAL the geometry tests' independent hulls and Delaunay triangulations and their benchmark peer,
# OpenCV (with its contrib modules, for thinning) the matrix filters' oracle and benchmark peer,
# clang the second compiler CI builds with, Clipper the polygon booleans and offsets,
# libdeflate, ISA-L and zlib the direct PNG payloads of the matrix passes).
# Safe to run again: installed packages are left alone and apt is not touched when
# nothing is missing.
set -euo pipefail

packages=(
  cmake
  g++
  make
  pkg-config
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libpng-dev
  libdeflate-dev
  libisal-dev
  zlib1g-dev
  libjpeg62-turbo-dev
  libtiff-dev
  pngcheck
  libtiff-tools
  libboost-dev
  libpolyclipping-dev
  liblerc-dev
  libcgal-dev
  libopencv-dev
  libopencv-contrib-dev
  clang-14
  libclang-rt-14-dev
)

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
