# Shared by the checks that verify/Verify.cpp implements. Sourced, not run.
# shellcheck shell=bash
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

# find_program PRESET [--seconds S]: sets `program` to the command of the calling check, and writes the networks it opens.
find_program() {
  local preset=$1 seconds=()
  shift
  if [ $# -gt 0 ]; then
    [[ $# -eq 2 && $1 == --seconds && $2 =~ ^[0-9]+$ ]] || die 'the only option is --seconds S'
    seconds=("$2")
  fi
  cd "$project"
  program=("build/$preset/verify/Verify" "$(basename "$0")" "${seconds[@]}")
  [ -x "${program[0]}" ] || die "${program[0]} is missing; scripts/verify builds it"
  "$deps/venv/bin/python" tests/support/make_onnx.py "build/$preset/tests/onnx" || die 'cannot write the ONNX networks'
}
