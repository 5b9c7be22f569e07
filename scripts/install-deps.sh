#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing.
# Source it and call qm_install_deps, or run it directly. With the argument
# "packaging" it also installs what building and checking the Debian
# packages needs.

QM_PACKAGES=(cmake make g++ clang pkg-config libexpat1-dev libpcre2-dev libsqlite3-dev
  libgtest-dev libgmock-dev libbenchmark-dev python3 help2man man-db)
QM_PACKAGING_PACKAGES=(build-essential dpkg-dev debhelper fakeroot lintian)

qm_install_deps() {
  local wanted=("${QM_PACKAGES[@]}")
  [ "${1:-}" = packaging ] && wanted+=("${QM_PACKAGING_PACKAGES[@]}")
  local missing=()
  local pkg
  for pkg in "${wanted[@]}"; do
    dpkg -s "$pkg" >/dev/null 2>&1 || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || { echo "error: need root or sudo to install ${missing[*]}" >&2; return 1; }
    sudo="sudo"
  fi
  $sudo apt-get update -qq || return 1
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null || return 1
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  set -e
  qm_install_deps "$@"
fi
