#!/bin/bash
# shellcheck disable=SC2154  # bin comes from common.sh
# The tool for people and programs: help, completion, manual, JSON, colours, exit status, doctor.
. "$(dirname "$0")/common.sh" "$@"

# status WANTED COMMAND... runs a command that must end with that status.
status() {
  local wanted=$1 got=0
  shift
  "$@" >out || got=$?
  [ $got -eq "$wanted" ] || fail "status $got, not $wanted: $*: $(cat err)"
}
# json EXPRESSION [STATUS] COMMAND... checks the object that a command prints.
json() {
  local expression=$1 wanted=$2
  shift 2
  status "$wanted" km "$@" --json
  python3 -m json.tool out >tidy || fail "no JSON: $*"
  python3 -c 'import json, sys
o = json.load(open("tidy")); assert eval("(%s)" % sys.argv[1]), o' "$expression" || fail "$*: $(cat out)"
}
# completes LINE WORD: the bash completion of a line offers the word.
completes() {
  bash -c '. completion.bash; read -ra COMP_WORDS <<<"$1"; [[ $1 != *" " ]] || COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _keymasterctl; printf "%s\n" "${COMPREPLY[@]}"' \
    - "$1" >offers
  grep -qxF -- "$2" offers || fail "'$2' is not offered for '$1' but: $(paste -sd' ' offers)"
}

echo 'some text' >text
json 'o["bytes"] > 0 and o["characteristics"]["hardware_enforced"]["ec_curve"] == "p256"' 0 \
  generate --algorithm ec --key 'a"k.blob'
mv 'a"k.blob' k.blob
openssl genrsa -out rsa.pem 2048 2>/dev/null
json 'o["characteristics"]["hardware_enforced"]["origin"] == "imported"' 0 \
  import --in rsa.pem --key rsa.blob
json 'o["signature"] == "sig" and o["bytes"] in range(66, 73)' 0 sign --key k.blob --in text --out sig
json 'o["valid"] is True' 0 verify --key k.blob --in text --signature sig
json 'o["valid"] is False' 1 verify --key k.blob --in k.blob --signature sig
json 'o["chain"] == "chain" and o["bytes"] > 1000' 0 attest --key k.blob --challenge hi --out chain
json 'o["key"].startswith("k") and o["bytes"] > 0' 0 generate --algorithm ec --key $'k\xff.blob'
json 'o["bytes"] > 0 and o["hardware_enforced"]["algorithm"] == "ec"' 0 show k.blob
json 'o["os_version"] == 110000 and o["keymaster"] == "4.1"' 0 info
json 'o["name"] == "KM_ERROR_INVALID_KEY_BLOB" and o["result"] == -33 and o["hint"]' 1 \
  characteristics --key text
json 'o["status"] == 2' 2 sign --key k.blob --in text
json 'o["status"] == 2 and "--algoritm" in o["error"] and "--algorithm?" in o["hint"]' 2 \
  generate --algoritm ec --key x
(TEE_WORKER=nothing json 'o["status"] == 3' 3 info)
KEYMASTER_OS_PATCHLEVEL=202203 refuse 'keymasterctl --state state upgrade --key k.blob' km sign --key k.blob --in text
TEE_FAULT=cmd=8,crash=1 status 3 km sign --key k.blob --in text

# What would be read otherwise than it is meant, or change nothing, is refused.
misused() { status 2 km "$@"; }
misused generate --algorithm ec --key x --param no-auth-required=maybe
misused generate --algorithm ec --key x --auth-sid 99999999999999999999
misused sign --key k.blob --in text --out sig --padding pss
misused generate --algorithm ec --key x --param no-auth-required=no
misused generate --algorithm ec --key x --auth-type password
misused generate --algorithm ec --key x --auth-sid 1 --no-auth
misused encrypt --key rsa.blob --nonce 0x00 --in text --out sealed
misused sign --key - --out sig <k.blob
misused delete --key - <k.blob
misused upgrade --key k.blob --out - --json
(state='' misused info)
ok km generate --algorithm ec --key user.blob --param user-secure-id=42 --param no-auth-required=no
refuse KM_ERROR_KEY_USER_NOT_AUTHENTICATED km sign --key user.blob --in text
ok km configure --os-version 070000
grep -q 'OS version 70000,' out || fail 'a leading zero means something'
install -m 600 /dev/null closed
ok km sign --key k.blob --in text --out closed
[ "$(stat -c %a closed)" = 600 ] || fail 'a closed file was opened to others'

# Colours are for a terminal, and for who asks for them.
escape=$'\e['
ok env NO_COLOR= script -qec "'$bin/keymasterctl' --state state info" typescript
grep -qF "$escape" out || fail 'no colour on a terminal'
NO_COLOR=1 ok script -qec "'$bin/keymasterctl' --state state info" typescript
! grep -qF "$escape" out || fail 'colour in spite of NO_COLOR'
ok km info
! grep -qF "$escape" out || fail 'colour in a pipe'
ok km info --color=always
grep -qF "$escape" out || fail 'no colour where it is asked for'

# Doctor finds what is broken, and says what to do.
unset TEE_TRACE
json 'o["healthy"] and len(o["checks"]) > 12' 0 doctor
broken() { json 'not o["healthy"] and any(c["grade"] == "broken" and c["advice"] and
  c["subject"] == "'"$1"'" for c in o["checks"])' 1 doctor; }
(state=text/folder broken 'state folder')
(TEE_WORKER=nothing broken 'TA host')
(TEE_WORKER=nothing broken 'keymaster TA')
(QAVIX_EVENTS=none/events broken 'fault events')
(KEYMASTER_OS_PATCHLEVEL=7 broken 'system version')
(TEE_WORKER=nothing status 3 km info)

# What is generated from the help.
km --help >help
km help | cmp - help
sed -n '/^Keys:/,/^Example:/s/^  \([a-z-]*\)  .*/\1/p' help >commands
[ "$(wc -l <commands)" -gt 24 ] || fail 'the help lists no commands'
while read -r command; do
  km help "$command" >out
  grep -q "^  keymasterctl $command" out || fail "no example of $command"
  ! grep -qE '[{}]|REQUIRED|Excludes:' out || fail "the help of $command has signs of the parser"
done <commands
km help generate >out
for text in 'generate --key FILE --algorithm rsa|ec' 'Kind of key:' 'Who may use the key'; do
  grep -qF "$text" out || fail "the help of generate does not say '$text'"
done
km completion bash >completion.bash
completes 'keymasterctl gen' generate
completes 'keymasterctl sign --di' --digest
completes 'keymasterctl sign --js' --json
completes 'keymasterctl generate --digest sha1,sha2' sha1,sha256
completes 'keymasterctl sign --key k.b' k.blob
completes 'keymasterctl --color = al' always
completes 'keymasterctl completion ' bash
completes 'keymasterctl show k.b' k.blob
completes 'keymasterctl help sho' show
km manual >keymasterctl.1
if command -v mandoc >/dev/null; then
  mandoc -T lint -W style keymasterctl.1 >out || fail "the manual: $(head -n 3 out)"
fi
