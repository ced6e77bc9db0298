#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and checks the package as a user gets it:
#   - the installed files (library and soname links, headers, CMake package and version file,
#     pkg-config file, catalogues, programs, systemd units, man pages, completion, guides), and
#     that none of them points back into the build or source tree;
#   - corvaned-sim(8) describes every option the installed corvaned-sim --help lists;
#   - the installed cvnctl runs (--help) with nothing but the prefix to find its library;
#   - tests/install/consumer builds against the installed package with CMake
#     (find_package(Corvane)) and with pkg-config, and both programs talk to the installed
#     corvaned-sim, started in a private runtime directory;
#   - the installed library finds its installed catalogues (a German error description).
#
#   check-install.sh --build-dir DIR --source-dir DIR --libdir LIBDIR --cxx COMPILER
#                    --generator GENERATOR --version VERSION
set -euo pipefail

build_dir= source_dir= libdir= cxx= generator= version=
while (($#)); do
  case "$1" in
    --build-dir) build_dir=$2 ;;
    --source-dir) source_dir=$2 ;;
    --libdir) libdir=$2 ;;
    --cxx) cxx=$2 ;;
    --generator) generator=$2 ;;
    --version) version=$2 ;;
    *) echo "check-install: unknown argument $1" >&2; exit 2 ;;
  esac
  shift 2
done
for name in build_dir source_dir libdir cxx generator version; do
  [[ -n ${!name} ]] || { echo "check-install: --${name//_/-} is missing" >&2; exit 2; }
done

# Nothing from the caller's environment may point the programs elsewhere.
unset CORVANE_RESOURCE_DIR CORVANE_RUNTIME_DIR CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH
unset CORVANE_FEATURES_FILE CORVANE_FEATURE_CORVANE_SERVICE

work=$(mktemp -d "${TMPDIR:-/tmp}/corvane-install.XXXXXX")
prefix=$work/prefix
daemon_pid=

cleanup() {
  local status=$?
  if [[ -n $daemon_pid ]] && kill -0 "$daemon_pid" 2>/dev/null; then
    kill -TERM "$daemon_pid" 2>/dev/null || true
    wait "$daemon_pid" 2>/dev/null || true
  fi
  if ((status != 0)) && [[ -f $work/daemon.err ]]; then
    echo "--- corvaned-sim standard error:" >&2
    cat "$work/daemon.err" >&2 || true
  fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() {
  echo "check-install: FAILED: $*" >&2
  exit 1
}
step() { echo "check-install: $*"; }

# Runs "$@" with its output in $work/out, failing with the output shown when it fails.
run() {
  local status=0
  "$@" >"$work/out" 2>&1 || status=$?
  if ((status != 0)); then
    cat "$work/out" >&2
    fail "$* exited with status $status"
  fi
}

# Waits until file $1 has a line matching $2 (grep -E) or $3 seconds have passed, polling; fails
# early when process $4 is gone.
wait_for_line() {
  local file=$1 pattern=$2 seconds=$3 pid=$4
  local deadline=$((SECONDS + seconds))
  until grep -qE -- "$pattern" "$file" 2>/dev/null; do
    kill -0 "$pid" 2>/dev/null || fail "the process exited before writing \"$pattern\""
    ((SECONDS < deadline)) || fail "no line \"$pattern\" in $file after ${seconds}s"
    sleep 0.05
  done
}

expect_line() {  # file, exact line
  grep -qxF -- "$2" "$1" || { cat "$1" >&2; fail "no line \"$2\" in the output above"; }
}

step "installing $build_dir into $prefix"
run cmake --install "$build_dir" --prefix "$prefix"

# ---- The installed files.
lib=$prefix/$libdir
major=${version%%.*}
[[ -f $lib/libcorvane.so.$version && ! -L $lib/libcorvane.so.$version ]] \
  || fail "$lib/libcorvane.so.$version is not a file"
[[ $(readlink "$lib/libcorvane.so.$major") == "libcorvane.so.$version" ]] \
  || fail "libcorvane.so.$major does not link to libcorvane.so.$version"
[[ $(readlink "$lib/libcorvane.so") == "libcorvane.so.$major" ]] \
  || fail "libcorvane.so does not link to libcorvane.so.$major"
soname=$(LC_ALL=C readelf -d "$lib/libcorvane.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $soname == "libcorvane.so.$major" ]] || fail "the library's soname is \"$soname\""
if LC_ALL=C readelf -d "$lib/libcorvane.so.$version" | grep -q 'NEEDED.*libsystemd'; then
  step "libcorvane links libsystemd itself (its own, private dependency)"
fi

expected=(
  "include/corvane/Corvane.hpp"
  "include/corvane/service/RequestOperations.hpp"
  "include/corvane/push/ListenerStreams.hpp"
  "$libdir/cmake/Corvane/CorvaneConfig.cmake"
  "$libdir/cmake/Corvane/CorvaneConfigVersion.cmake"
  "$libdir/cmake/Corvane/CorvaneTargets.cmake"
  "$libdir/cmake/Corvane/corvane-config.cmake"
  "$libdir/pkgconfig/corvane.pc"
  "share/Corvane.framework/locale/en/LC_MESSAGES/corvane.mo"
  "share/Corvane.framework/locale/de/LC_MESSAGES/corvane.mo"
  "share/man/man1/cvnctl.1"
  "share/man/man8/corvaned-sim.8"
  "share/man/man8/corvaned.8"
  "share/bash-completion/completions/cvnctl"
  "lib/systemd/system/corvaned-sim.service"
  "lib/systemd/system/corvaned-sim.socket"
  "lib/systemd/system/corvaned.service"
  "lib/systemd/system/corvaned.socket"
  "share/doc/corvane/daemon.md"
  "share/doc/corvane/client-guide.md"
)
for file in "${expected[@]}"; do
  [[ -f $prefix/$file ]] || fail "$file is not installed"
done
for program in cvnctl corvaned corvaned-sim corvane-codec; do
  [[ -x $prefix/bin/$program ]] || fail "bin/$program is not installed"
done
for header in $(cd "$source_dir/include" && find corvane -name '*.hpp'); do
  [[ -f $prefix/include/$header ]] || fail "include/$header is not installed"
done

# Nothing installed may name the build or the source tree: the package works from its prefix.
if grep -rlF -e "$build_dir" -e "$source_dir" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig" \
     "$prefix/lib/systemd"; then
  fail "the files above name the build or source tree"
fi
grep -qxF "ExecStart=$prefix/bin/corvaned-sim --state /var/lib/corvaned-sim/state.db --idle-exit 300" \
  "$prefix/lib/systemd/system/corvaned-sim.service" \
  || fail "the service unit does not start $prefix/bin/corvaned-sim"
grep -qxF "ExecStart=$prefix/bin/corvaned --engine flatpak --state /var/lib/corvaned/state.db" \
  "$prefix/lib/systemd/system/corvaned.service" \
  || fail "the Flatpak engine's unit does not start $prefix/bin/corvaned"
# The exported target keeps libsystemd to itself: a consumer needs no libsystemd-dev.
if grep -q systemd "$prefix/$libdir/cmake/Corvane/CorvaneTargets.cmake"; then
  fail "CorvaneTargets.cmake hands libsystemd to consumers"
fi

# ---- The installed tools run from the prefix alone.
step "running the installed tools"
run "$prefix/bin/cvnctl" --help
grep -q "cvnctl" "$work/out" || fail "cvnctl --help printed no usage"
# Every option the installed daemon offers is described in its installed man page.
run "$prefix/bin/corvaned-sim" --help
daemon_options=$(grep -oE -- '--[a-z][a-z-]*' "$work/out" | sort -u)
[[ -n $daemon_options ]] || fail "corvaned-sim --help lists no options"
# Unescaped once, into a file: with pipefail, grep -q leaving early would fail the sed writing
# into the pipe (SIGPIPE) now and then.
sed 's/\\//g' "$prefix/share/man/man8/corvaned-sim.8" >"$work/man"
for option in $daemon_options; do
  grep -qE -- "${option}([^a-z-]|$)" "$work/man" || fail "corvaned-sim.8 does not describe $option"
done
run "$prefix/bin/corvane-codec" --list
grep -q "ManagedAppDeclaration" "$work/out" || fail "corvane-codec --list does not list ManagedAppDeclaration"

# ---- The consumer, built with CMake against the installed package.
step "building the consumer with CMake (find_package(Corvane))"
run cmake -S "$source_dir/tests/install/consumer" -B "$work/consumer-cmake" -G "$generator" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
grep -qF "$prefix/$libdir/cmake/Corvane" "$work/consumer-cmake/CMakeCache.txt" \
  || fail "find_package(Corvane) did not find the installed package"
run cmake --build "$work/consumer-cmake"
cmake_consumer=$work/consumer-cmake/consumer

# ---- The consumer, built with pkg-config.
step "building the consumer with pkg-config"
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
[[ $(pkg-config --modversion corvane) == "$version" ]] || fail "pkg-config says another version"
pc_libdir=$(pkg-config --variable=libdir corvane)
[[ $(realpath "$pc_libdir") == $(realpath "$lib") ]] || fail "corvane.pc names libdir $pc_libdir"
# shellcheck disable=SC2046 # the flags are words
run "$cxx" -Wall -Wextra -Werror -o "$work/consumer-pkgconfig" \
  "$source_dir/tests/install/consumer/main.cpp" $(pkg-config --cflags --libs corvane) \
  -Wl,-rpath,"$pc_libdir"
pkgconfig_consumer=$work/consumer-pkgconfig

for consumer in "$cmake_consumer" "$pkgconfig_consumer"; do
  loaded=$(LC_ALL=C ldd "$consumer" | sed -n "s/^[[:space:]]*libcorvane\.so\.$major => \(.*\) (0x.*/\1/p")
  [[ -n $loaded && $(realpath "$loaded") == $(realpath "$lib/libcorvane.so.$major") ]] \
    || fail "$consumer loads \"$loaded\", not the installed library"
done

# ---- Without a daemon: the failure, described from the installed German catalogue.
step "running the consumers without a daemon (German)"
mkdir "$work/nobody-here"
for consumer in "$cmake_consumer" "$pkgconfig_consumer"; do
  status=0
  CORVANE_RUNTIME_DIR=$work/nobody-here LC_ALL=C.UTF-8 LANGUAGE=de "$consumer" \
    >"$work/consumer.out" 2>"$work/consumer.err" || status=$?
  ((status == 1)) || { cat "$work/consumer.out" "$work/consumer.err" >&2; fail "$consumer exited with $status without a daemon"; }
  grep -qF "consumer: failed: unrecoverableError: Ein nicht behebbarer Fehler ist aufgetreten." \
    "$work/consumer.out" || { cat "$work/consumer.out" >&2; fail "no German description from the installed catalogue"; }
  grep -qF "cannot connect to $work/nobody-here/" "$work/consumer.out" \
    || { cat "$work/consumer.out" >&2; fail "the failure does not say where it tried to connect"; }
done

# ---- Against the installed daemon.
step "starting the installed corvaned-sim"
mkdir "$work/run"
"$prefix/bin/corvaned-sim" --runtime-dir "$work/run" >"$work/daemon.out" 2>"$work/daemon.err" &
daemon_pid=$!
wait_for_line "$work/daemon.out" "^corvaned-sim: listening on $work/run/" 60 "$daemon_pid"
export CORVANE_RUNTIME_DIR=$work/run

run "$prefix/bin/cvnctl" add "$source_dir/examples/declarations/maps-on-demand.json"

for consumer in "$cmake_consumer" "$pkgconfig_consumer"; do
  step "running $(basename "$consumer") against the daemon"
  run "$consumer"
  expect_line "$work/out" "key: key-maps-1"
  expect_line "$work/out" "status: D-maps dev.corvane.sample.maps"
  expect_line "$work/out" "consumer: ok"
done

step "stopping corvaned-sim"
kill -TERM "$daemon_pid"
deadline=$((SECONDS + 30))
while kill -0 "$daemon_pid" 2>/dev/null && [[ $(ps -o stat= -p "$daemon_pid") != Z* ]]; do
  ((SECONDS < deadline)) || fail "corvaned-sim did not stop within 30s of SIGTERM"
  sleep 0.05
done
status=0
wait "$daemon_pid" || status=$?
daemon_pid=
((status == 0)) || fail "corvaned-sim exited with status $status after SIGTERM"

step "passed"
