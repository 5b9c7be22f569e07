#!/usr/bin/env bash
# The Debian packages as a distribution builds them and a user installs them:
#  1. dpkg-buildpackage -us -uc -b in a copy of the source tree (without the
#     test suite: DEB_BUILD_OPTIONS=nocheck);
#  2. lintian: no error, no warning, and every info tag it still reports is
#     named in docs/OPERATIONS.md;
#  3. the plug-in built again in another folder, with the distribution's
#     path mapping turned off so that only the project's own applies: the
#     bytes must be identical;
#  4. the packages installed into a scratch root (dpkg --root; their
#     dependencies checked against this machine with apt-get -s), the tree
#     checked by check_install.sh (tools, manual pages, example host against
#     oapsim, pkg-config) and `man qmhost` read from it;
#  5. the packages purged, leaving nothing in the scratch root.
#   check_debian.sh SOURCE_DIR
# Installs debhelper, lintian and the rest when missing (needs root), and
# prints the minutes each step took.
set -euo pipefail

source_dir=$(cd "${1:?usage: check_debian.sh SOURCE_DIR}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/install-deps.sh
source "$source_dir/scripts/install-deps.sh"
qm_install_deps packaging || { echo "SKIP: cannot install the packaging tools"; exit 77; }

work=$(mktemp -d "${TMPDIR:-/tmp}/qm_debian.XXXXXX")
trap '[ -n "${QM_KEEP:-}" ] || rm -rf "$work"' EXIT
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
step_start=$SECONDS
step() {  # step NAME: prints the time the previous step took
  printf '%-40s %s\n' "$1" "$(awk -v s=$((SECONDS - step_start)) 'BEGIN { printf "%.1f min", s / 60 }')"
  step_start=$SECONDS
}
run_logged() {  # run_logged NAME command...: quiet unless it fails
  local log=$work/$1.log
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "FAIL: $*"
    tail -n 60 "$log"
    exit 1
  fi
}
copy_tree() {  # copy_tree DEST: the source tree as committed plus new files
  mkdir -p "$1"
  if git -C "$source_dir" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git -C "$source_dir" ls-files -co --exclude-standard -z |
      (cd "$source_dir" && tar --null -T - -cf -) | tar -xf - -C "$1"
  else
    tar -C "$source_dir" --exclude='./build*' -cf - . | tar -xf - -C "$1"
  fi
}

version=$(sed -n 's/^project(qm_oap_gateway VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
changelog=$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)
[ "$changelog" = "$version" ] || fail "debian/changelog has $changelog, the project $version"
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
export DEB_BUILD_OPTIONS="nocheck parallel=2" DEB_BUILD_PROFILES=nocheck

# 1. The packages.
tree=$work/first/qm-oap-gateway-$version
copy_tree "$tree"
(cd "$tree" && run_logged build dpkg-buildpackage -us -uc -b)
step "built the packages"
packages=(qm-oap-gateway qm-oap-gateway-dev qm-oap-gateway-tools)
debs=()
for package in "${packages[@]}"; do
  debs+=("$work/first/${package}_${version}_${arch}.deb")
done
for package in qm-oap-gateway qm-oap-gateway-tools; do
  [ -f "$work/first/${package}-dbgsym_${version}_${arch}.deb" ] || fail "no debug symbols of $package"
done
dev_depends=$(dpkg-deb -f "${debs[1]}" Depends)
for needed in libexpat1-dev libsqlite3-dev libpcre2-dev "qm-oap-gateway (= $version)"; do
  [[ "$dev_depends" == *"$needed"* ]] || fail "qm-oap-gateway-dev does not depend on $needed"
done
ls -s --block-size=K "$work"/first/*.deb | sed "s|$work/first/||"

# 2. lintian.
changes=$work/first/qm-oap-gateway_${version}_${arch}.changes
lintian --display-info --tag-display-limit 0 "$changes" >"$work/lintian.log" 2>&1 || true
if grep -E '^[EW]: ' "$work/lintian.log"; then
  fail "lintian reports errors or warnings"
fi
for tag in $(sed -n 's/^[IP]: [^ ]*: \([^ ]*\).*/\1/p' "$work/lintian.log" | sort -u); do
  grep -q "\`$tag\`" "$source_dir/docs/OPERATIONS.md" || fail "lintian info tag $tag is not explained in docs/OPERATIONS.md"
done
step "lintian"

# 3. The plug-in again, from another folder, with only the project's own
# mapping of the folders.
other=$work/second/elsewhere/tree
copy_tree "$other"
(cd "$other" && run_logged configure-again debian/rules override_dh_auto_configure \
  DEB_BUILD_MAINT_OPTIONS="hardening=+all reproducible=-fixfilepath,-fixdebugpath")
run_logged build-again cmake --build "$other/obj-$multiarch" --target qmoapdriver -j2
if ! cmp "$tree/obj-$multiarch/libqmoapdriver.so" "$other/obj-$multiarch/libqmoapdriver.so"; then
  fail "the plug-in built in two folders differs"
fi
step "built the plug-in again, compared"

# 4. Installed into a scratch root.
apt-get install -s "${debs[@]}" >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get cannot install the packages"; }
if grep '^Inst ' "$work/apt.log" | grep -v -E "^Inst ($(IFS='|'; echo "${packages[*]}")) "; then
  fail "the packages need packages this machine lacks"
fi
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
# Their dependencies were checked above; the scratch root has no others.
run_logged install dpkg --root="$root" --force-depends -i "${debs[@]}"
"$here/check_install.sh" prefix="$root/usr" version="$version" || fail "the installed tree"
MANPATH=$root/usr/share/man MANWIDTH=80 man -P cat qmhost 2>/dev/null | grep -q -- '--oap-version' ||
  fail "man qmhost does not show the manual page"
step "installed and checked"

# 5. Removed again.
run_logged purge dpkg --root="$root" --force-depends --purge "${packages[@]}"
left=$(find "$root" -mindepth 1 -not -path "$root/var" -not -path "$root/var/lib" \
  -not -path "$root/var/lib/dpkg" -not -path "$root/var/lib/dpkg/*")
[ -z "$left" ] || fail "left behind after purge: $left"
step "purged"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "Debian packages checked"
