# Shared by the scripts beside it: where things are, how progress and failures are told. Sourced, not run.
# shellcheck shell=bash
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
deps=$project/.deps
export LC_ALL=C.UTF-8

step() { printf '\n== %s\n' "$*"; }
die() {
  printf '\n%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# explain "$@": prints the comment block at the head of the calling script when --help is asked for.
explain() {
  case " $* " in
    *' --help '* | *' -h '*)
      sed -n '2,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"
      exit 0
      ;;
  esac
}

# need_packages WHAT PACKAGE...: installs the Debian packages that are missing, or says which they are.
need_packages() {
  local what=$1 missing=() package
  shift
  command -v dpkg-query >/dev/null ||
    die "this is no Debian system; please install what these packages hold, $what: $*"
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
    die "packages are missing, $what; please install them as root: apt-get install ${missing[*]}"
  fi
  step "Installing Debian packages ($what): ${missing[*]}"
  apt-get update -qq || die 'the list of Debian packages could not be read'
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" \
    >"$deps/apt.log" 2>&1 ||
    { tail -n 20 "$deps/apt.log" >&2; die "Debian packages could not be installed (see $deps/apt.log)"; }
}

# once NAME FILE...: true (and nothing to do) when step NAME was done with these very files.
once() {
  local name=$1
  shift
  [ -f "$deps/done/$name" ] && [ "$(cat "$deps/done/$name")" = "$(stamp "$@")" ]
}
stamp() { cat "$@" | sha256sum | cut -d' ' -f1; }
done_with() {
  local name=$1
  shift
  mkdir -p "$deps/done"
  stamp "$@" >"$deps/done/$name"
}

mkdir -p "$deps"

# build PRESET [TARGET...]: configures and builds, quietly unless it fails.
build() {
  local preset=$1 log=$project/build/$1/build.log target
  shift
  mkdir -p "$project/build/$preset"
  step "Building ($preset)"
  cmake --preset "$preset" ${TOL_CMAKE_ARGUMENTS:-} >"$log" 2>&1 ||
    { tail -n 30 "$log" >&2; die "CMake could not configure the build (see $log)"; }
  local targets=()
  for target in "$@"; do targets+=(--target "$target"); done
  cmake --build --preset "$preset" "${targets[@]}" 2>&1 | tee "$log" | progress ||
    { grep -aE -A4 'error|FAILED|warning' "$log" | head -n 60 >&2; die "the build failed (see $log)"; }
}

# Ninja's counter on one line of a terminal, every tenth of the work elsewhere.
progress() {
  local line last=-1 share
  while IFS= read -r line; do
    [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
    if [ -t 1 ]; then
      printf '\r%s\e[K' "${line:0:79}"
    else
      share=$((10 * BASH_REMATCH[1] / BASH_REMATCH[2]))
      [ "$share" -gt "$last" ] && printf '%s\n' "${BASH_REMATCH[0]}"
      last=$share
    fi
  done
  [ -t 1 ] && printf '\r\e[K'
  return 0
}
