#!/usr/bin/env bash
# Checks a finished build as a user receives it.
#   mode=install  installs the build tree into a temporary prefix
#   mode=deb      builds the Debian package and unpacks it with dpkg -x
# Then checks the installed layout, builds the out-of-tree host against the
# installed CMake package, runs it (it loads the installed plug-in) and runs
# the installed tools' --help.
# Arguments are key=value: mode build source cmake cpack cxx sanitize
# driver (1 when the plug-in target exists) sample (1 when the qmlogs.ini
# sample exists) version targets (comma list).
# Exit 77 (skipped) without a plug-in target.
set -euo pipefail

for arg in "$@"; do
  key=${arg%%=*}
  declare "opt_${key}=${arg#*=}"
done
mode=${opt_mode:?} build=${opt_build:?} source=${opt_source:?} cmake=${opt_cmake:?}
cpack=${opt_cpack:?} cxx=${opt_cxx:?} sanitize=${opt_sanitize:-} version=${opt_version:?}

if [ "${opt_driver:-0}" != 1 ]; then
  echo "SKIP: the build has no driver plug-in target"
  exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qm_packaging.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

run_logged() {  # run_logged LOGNAME command...: quiet unless it fails
  local log=$work/$1.log
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "FAIL: $*"
    cat "$log"
    exit 1
  fi
}

# Nothing is installed from a stale build.
IFS=, read -r -a targets <<<"${opt_targets:?}"
run_logged build "$cmake" --build "$build" --target "${targets[@]}" -j2

case $mode in
  install)
    prefix=$work/prefix
    run_logged install "$cmake" --install "$build" --prefix "$prefix"
    ;;
  deb)
    # CPack runs the install step from the current directory.
    (cd "$build" && run_logged cpack "$cpack" --config CPackConfig.cmake -G DEB -B "$work/package")
    debs=("$work"/package/*.deb)
    if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
      echo "FAIL: no single .deb made"
      exit 1
    fi
    deb=${debs[0]}
    echo "package: $(basename "$deb")"
    [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "Version is not $version"
    [ "$(dpkg-deb -f "$deb" Package)" = "qm-oap-gateway" ] || fail "unexpected Package name"
    [ -n "$(dpkg-deb -f "$deb" Maintainer)" ] || fail "no Maintainer"
    [ -n "$(dpkg-deb -f "$deb" Description)" ] || fail "no Description"
    depends=$(dpkg-deb -f "$deb" Depends)
    echo "Depends: $depends"
    names=" $(sed -E 's/ *\([^)]*\)//g; s/ *, */ /g' <<<"$depends") "
    for lib in libc6 libstdc++6 libexpat1 libsqlite3-0 libpcre2-8-0; do
      [[ "$names" == *" $lib "* ]] || fail "Depends lacks $lib"
    done
    dpkg -x "$deb" "$work/root"
    prefix=$work/root/usr
    ;;
  *)
    echo "unknown mode '$mode'"
    exit 2
    ;;
esac

# The layout a host and an operator rely on.
expect_file() { [ -f "$prefix/$1" ] || fail "missing $1"; }
libdir=$(cd "$prefix" && dirname "$(find . -path '*/cmake/QmOap/QmOapConfig.cmake' | head -1)")
libdir=${libdir#./}
libdir=${libdir%/cmake/QmOap}
if [ -z "$libdir" ] || [ "$libdir" = . ]; then
  echo "FAIL: no installed QmOapConfig.cmake"
  exit 1
fi
expect_file "$libdir/qm/drivers/libqmoapdriver.so"
expect_file "$libdir/libqmruntime.a"
expect_file "$libdir/cmake/QmOap/QmOapConfig.cmake"
expect_file "$libdir/cmake/QmOap/QmOapConfigVersion.cmake"
expect_file include/qm/runtime/QmLogInterface.h
expect_file include/qm/runtime/QmLogSQLiteProcessor.h
expect_file include/qm/host/QmProtocolDriverInterface.h
expect_file include/qm/host/QmMessageFile.h
for tool in "${targets[@]}"; do
  case $tool in qmhost | oapsim | qmlogview) [ -x "$prefix/bin/$tool" ] || fail "missing bin/$tool" ;; esac
done
if [ "${opt_sample:-0}" = 1 ]; then
  expect_file share/qm/qmlogs.ini.sample
fi

# The out-of-tree host, built against the installed package only.
# A sanitized plug-in needs a host built with the same sanitizer. The
# interface's type information stays hidden inside the plug-in, so the
# host cannot take part in virtual-pointer checks.
flags=
[ -n "$sanitize" ] && flags="-fsanitize=$sanitize -fno-omit-frame-pointer"
[[ "$sanitize" == *undefined* ]] && flags="$flags -fno-sanitize=vptr"
run_logged host-configure "$cmake" -S "$source" -B "$work/host" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
run_logged host-build "$cmake" --build "$work/host" -j2
driver=$prefix/$libdir/qm/drivers/libqmoapdriver.so
expected="package version: $version
driver path: $driver
runtime xml root: probe
runtime log rows: 2
driver name: OAP
driver protocol: Open Access Protocol (OAP)
driver released"
actual=$(timeout 30 "$work/host/outoftree_host" 2>&1) || fail "out-of-tree host exited with $?"
if [ "$actual" != "$expected" ]; then
  fail "out-of-tree host printed:"
  echo "$actual"
fi

# The installed tools start and describe themselves.
for tool in "${targets[@]}"; do
  case $tool in
    qmhost | oapsim | qmlogview)
      timeout 30 "$prefix/bin/$tool" --help >"$work/$tool.help" 2>&1 || fail "$tool --help failed"
      grep -qi usage "$work/$tool.help" || fail "$tool --help shows no usage"
      ;;
  esac
done

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "packaging check ($mode) passed"
