# Shared by the scripts: paths, progress and error messages, set-up steps, builds. Sourced, not run.
# shellcheck shell=bash
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
deps=$(realpath -m "$project/.deps")
mkdir -p "$deps"
export LC_ALL=C.UTF-8

step() { printf '\n== %s\n' "$*"; }
die() {
  printf '\n%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# handle_help "$@": if --help is among the arguments, prints the comment block at the head of the script and exits.
handle_help() {
  case " $* " in
    *' --help '* | *' -h '*)
      sed -n '2,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"
      exit 0
      ;;
  esac
}

# need_packages PURPOSE PACKAGE...: installs the Debian packages that are missing, or prints their names and fails.
need_packages() {
  local purpose=$1 missing=() package
  shift
  command -v dpkg-query >/dev/null ||
    die "not a Debian system; please install the contents of these packages $purpose: $*"
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
    die "missing packages $purpose; please run as root: apt-get install ${missing[*]}"
  fi
  step "Installing Debian packages $purpose: ${missing[*]}"
  apt-get -o DPkg::Lock::Timeout=600 update -qq || die 'cannot update the package lists'
  DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends \
    "${missing[@]}" >"$deps/apt.log" 2>&1 ||
    { tail -n 20 "$deps/apt.log" >&2; die "cannot install the Debian packages (see $deps/apt.log)"; }
}

# The Python that environments are made with: Debian's, if there is one.
system_python() { if [ -x /usr/bin/python3 ]; then echo /usr/bin/python3; else echo python3; fi; }

# lock_setup: waits until no other set-up changes .deps; the lock ends with the script.
lock_setup() {
  exec {setup_lock}>"$deps/lock"
  flock --nonblock "$setup_lock" || {
    step 'Waiting for another set-up of this folder'
    flock "$setup_lock"
  }
}

# is_done NAME FILE...: whether the set-up step NAME was completed with exactly these files in this folder. Before a step
# that is repeated changes anything, call not_done: if it is interrupted, the earlier one must not count.
is_done() {
  local name=$1
  shift
  [ -f "$deps/done/$name" ] && [ "$(cat "$deps/done/$name")" = "$(checksum "$@")" ]
}
not_done() { rm -f "$deps/done/$1"; }
mark_done() {
  local name=$1
  shift
  mkdir -p "$deps/done"
  checksum "$@" >"$deps/done/$name"
}
# Python environments contain their own path, so a folder that was moved or copied is set up again.
checksum() { { cat "$@" && echo "$deps"; } | sha256sum | cut -d' ' -f1; }

# make_environment FOLDER LOCK_FILE [OPTION...]: makes a Python environment (OPTION: of venv) with exactly the wheels of
# LOCK_FILE, which contains their dependencies, too. pip compares the SHA-256 of each wheel before it unpacks it.
make_environment() {
  local folder=$1 wheels=$2
  shift 2
  rm -rf "$folder"
  "$(system_python)" -m venv "$@" "$folder" || die 'cannot create the Python environment'
  "$folder/bin/python" -m pip install --quiet --disable-pip-version-check --no-deps --require-hashes \
    --only-binary :all: -r "$wheels" >"$deps/pip.log" 2>&1 || {
    rm -rf "$folder"
    grep -aE 'HASHES|Expected|Got|ERROR' "$deps/pip.log" | head -n 4 >&2
    die "cannot install the wheels of $wheels (see $deps/pip.log); the next run tries again"
  }
}

# declared_names HEADER: prints the entry points that a header declares, sorted.
declared_names() { sed -nE 's/^VSA_API [a-z]+ (Vsa[A-Za-z0-9]+)\(.*/\1/p' "$1" | sort; }

# build PRESET [TARGET...]: configures and builds; prints the compiler's output only if that fails.
build() {
  local preset=$1 log=$project/build/$1/build.log target
  shift
  mkdir -p "$project/build/$preset"
  step "Building ($preset)"
  # CMake refuses the cache of a folder that was moved or copied.
  local cache=$project/build/$preset/CMakeCache.txt
  if [ -f "$cache" ] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$project" "$cache"; then rm -f "$cache"; fi
  cmake --preset "$preset" ${TOL_CMAKE_ARGUMENTS:-} >"$log" 2>&1 ||
    { tail -n 30 "$log" >&2; die "CMake cannot configure the build (see $log)"; }
  local targets=()
  for target in "$@"; do targets+=(--target "$target"); done
  cmake --build --preset "$preset" "${targets[@]}" 2>&1 | tee "$log" | show_progress ||
    { grep -aE -A4 'error|FAILED|warning' "$log" | head -n 60 >&2; die "the build failed (see $log)"; }
}

# Shows Ninja's counter: on one line of a terminal, or otherwise one line for each tenth of the work.
show_progress() {
  local line last=-1 tenth
  while IFS= read -r line; do
    [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
    if [ -t 1 ]; then
      printf '\r%s\e[K' "${line:0:79}"
    else
      tenth=$((10 * BASH_REMATCH[1] / BASH_REMATCH[2]))
      [ "$tenth" -gt "$last" ] && printf '%s\n' "${BASH_REMATCH[0]}"
      last=$tenth
    fi
  done
  [ -t 1 ] && printf '\r\e[K'
  return 0
}
