# Shared by the checks of verify/Verify.cpp. Sourced, not run.
# shellcheck shell=bash
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

# verify_program PRESET [--seconds S]: what to call, in the arrays `program` and `limit`; with the networks it opens.
verify_program() {
  local preset=$1
  shift
  limit=()
  if [ $# -gt 0 ]; then
    [[ $# -eq 2 && $1 == --seconds && $2 =~ ^[0-9]+$ ]] || die 'only --seconds S is understood'
    limit=("$2")
  fi
  cd "$project"
  program=("build/$preset/verify/Verify" "$(basename "$0")" "${limit[@]}")
  [ -x "${program[0]}" ] || die "build/$preset holds no verify/Verify; scripts/verify builds it"
  "$deps/venv/bin/python" tests/support/make_onnx.py "build/$preset/tests/onnx" || die 'the ONNX networks could not be made'
}
