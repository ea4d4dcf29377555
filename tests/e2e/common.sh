# shellcheck shell=bash disable=SC2034
# What the end-to-end tests share: a folder of their own, the tool on it, and checks that end the
# test with one clear line. Usage of a test: FAMILY.sh BIN_DIR
set -euo pipefail

bin=$(cd "$1" && pwd)
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
export TEE_TRACE=1 TERM=xterm
unset KEYMASTER_OS_VERSION KEYMASTER_OS_PATCHLEVEL TEE_FAULT TEE_HOST TEE_TIMEOUT_MS TEE_WORKER QAVIX_EVENTS \
  ANDROID_LOG_TAGS

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# KM_EMULATOR runs the programs of another machine; the tool cannot start its worker without it.
emulator=${KM_EMULATOR:-}
if [ -n "$emulator" ]; then
  printf '#!/bin/sh\nexec %s %s/tee-worker\n' "$emulator" "$bin" >worker
  chmod +x worker
  export TEE_WORKER=$dir/worker
fi

# km runs keymasterctl on the state folder $state; its standard error lands in err and in log.
state=state
km() {
  local status=0
  $emulator "$bin/keymasterctl" --state "$state" "$@" 2>err || status=$?
  cat err >>log
  return $status
}

# ok runs a command that must succeed.
ok() {
  "$@" >out 2>>log || fail "$* (status $?): $(grep -hv '^tee:' err log | tail -n 3)"
}

# refuse TEXT COMMAND... runs a command of the tool that must fail with status 1, or $refused, and
# say TEXT.
refuse() {
  local text=$1 status=0
  shift
  "$@" >out || status=$?
  [ $status -eq "${refused:-1}" ] || fail "status $status, not ${refused:-1}: $*"
  grep -qF -- "$text" err || fail "'$text' is not said by: $* but: $(cat err)"
}

# judge TEXT COMMAND... runs a command whose output must hold TEXT.
judge() {
  local text=$1
  shift
  "$@" >judged 2>&1 || true
  grep -qF -- "$text" judged || fail "'$text' is not said by: $* but: $(head -n 5 judged)"
}

same() {
  cmp -s "$1" "$2" || fail "$1 and $2 differ: ${3:-}"
}

# flip FILE OFFSET [OUT] changes one bit of a byte; a negative offset counts from the end.
flip() {
  python3 -c 'import sys
data = bytearray(open(sys.argv[1], "rb").read())
data[int(sys.argv[2])] ^= 1
open(sys.argv[3], "wb").write(data)' "$1" "$2" "${3:-flipped}"
}

hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }

# traced COMMAND... checks that each TA command was sent by this test.
traced() {
  local name
  for name in "$@"; do
    grep -q "^tee: command [0-9]* $name " log || fail "TA command $name was never sent"
  done
}
