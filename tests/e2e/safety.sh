#!/bin/bash
# shellcheck disable=SC2154  # bin comes from common.sh
# What must not happen by mistake: a key or an input overwritten, a foreign folder adopted, a damaged
# state taken for a sound one, a wrong word passed over.
. "$(dirname "$0")/common.sh" "$@"

echo 'some text' >text
misused() { refused=2 refuse "$@"; }

# A key file is replaced only with --force; no output goes to a file that is read.
ok km generate --algorithm ec --key k.blob
ok km generate --algorithm aes --key aes.blob
ok km generate --algorithm rsa --purpose wrap-key --key wrap.blob
openssl ecparam -name prime256v1 -genkey -noout -out key.pem
cp k.blob kept
cp text plain
ln plain hard
ln -s plain soft
refuse 'give --force' km generate --algorithm ec --key k.blob
refuse 'give --force' km import --in key.pem --key k.blob
refuse 'give --force' km import-wrapped --wrapped text --wrapping-key wrap.blob --key k.blob
refuse 'give --force' km upgrade --key aes.blob --out k.blob
for file in plain hard soft ./plain aes.blob; do
  misused 'one of the files that are read' km encrypt --key aes.blob --in plain --out $file
done
misused 'one of the files that are read' km export --key k.blob --out k.blob
misused 'one of the files that are read' km import --in key.pem --key key.pem --force
misused 'one of the files that are read' km sign --key k.blob <plain --out hard
same k.blob kept 'a key that nothing may replace'
same plain text 'an input that nothing may replace'
ok km generate --algorithm ec --key k.blob --force
! cmp -s k.blob kept || fail '--force did not replace the key'

# terminal COLUMNS TYPED COMMAND...: the tool on a terminal of that width, into the file screen; its
# standard output goes to the file $out, if that is set.
terminal() {
  python3 - "$bin/keymasterctl" "${out:-}" "$@" <<'PY'
import fcntl, os, pty, struct, sys, termios
tool, out, columns, typed, *arguments = sys.argv[1:]
child, terminal = pty.fork()
if child == 0:
    fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, int(columns), 0, 0))
    if out:
        os.dup2(os.open(out, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), 1)
    os.execv(tool, [tool, "--state", "state", *arguments])
os.write(terminal, typed.encode())
screen = b""
try:
    while part := os.read(terminal, 1000):
        screen += part
except OSError:
    pass
open("screen", "wb").write(screen)
sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
PY
}
ends=$'\ntyped\n\4'
if [ -z "$emulator" ]; then
  unset TEE_TRACE
  ! terminal 80 '' sign --key k.blob --in text || fail 'a signature went to a terminal'
  grep -q 'not for a terminal' screen || fail "the terminal is not told: $(cat screen)"
  ok km encrypt --key aes.blob --in text --out sealed
  terminal 80 '' decrypt --key aes.blob --in sealed || fail 'a plaintext may go to a terminal'
  grep -q 'some text' screen || fail 'the plaintext is not there'
  out=typed.sig timeout 60 bash -c "$(declare -f terminal); bin='$bin'; terminal 80 '$ends' sign --key k.blob" ||
    fail 'one end of input does not end what is typed'
  ok km verify --key k.blob --signature typed.sig --in <(printf '\ntyped\n')
  head -c 5000000 /dev/zero >large
  out=sig TEE_FAULT=cmd=9,delay=700 terminal 30 '' sign --key k.blob --in large
  tr '\r' '\n' <screen | sed 's/\x1b\[K//' >lines
  grep -q '%' lines || fail 'no progress is shown'
  [ "$(wc -L <lines)" -lt 30 ] || fail "the progress is wider than the terminal: $(cat lines)"
  export TEE_TRACE=1
fi

# A wrong word is named, and the nearest is offered; what does not fit the algorithm is told.
misused "takes no '--algoritm'" km generate --algoritm ec --key x
grep -q 'did you mean --algorithm?' err || fail 'no option is suggested'
misused "takes no '--bogus'" km sign --bogus
misused "there is no command 'gnerate'" km gnerate --key x
grep -q 'did you mean generate?' err || fail 'no command is suggested'
misused "there is no command 'sing'" km help sing
misused 'did you mean key-size?' km generate --algorithm ec --key x --param key-siz=256
while read -r said options; do
  # shellcheck disable=SC2086  # options travel in plain variables
  misused "${said//_/ }" km generate $options --key x
done <<'ROWS'
ec_has_no_padding --algorithm ec --padding oaep
rsa_cannot_have_key-size_1000;_it_can_have_1024 --algorithm rsa --size 1000
rsa_has_no_block-mode --algorithm rsa --mode gcm
aes_cannot_have_purpose_sign --algorithm aes --purpose sign
3des_cannot_have_block-mode_gcm --algorithm 3des --mode gcm
hmac_has_64_to_512_bits --algorithm hmac --size 65
hmac_has_no_ec-curve --algorithm hmac --curve p256
bits_do_not_go_together --algorithm ec --curve p256 --size 384
ROWS
[ ! -e x ] || fail 'a wrong command line left a key'

# Nothing of the library's log reaches who did not ask for it.
unset TEE_TRACE
for command in device-locked early-boot-ended info; do
  km $command >out
  [ ! -s err ] || fail "$command says $(cat err)"
done
km info --verbose >out
grep -q 'E/KeyMaster' err || fail '--verbose shows no log'
export TEE_TRACE=1

# A folder that cannot be the state's is told before the TEE is reached, and left as it was.
# doctor_finds TEXT: doctor fails, and says so.
doctor_finds() {
  local status=0
  km doctor >out || status=$?
  [ $status -eq 1 ] || fail "the status of doctor is $status"
  grep -qF "$1" out || fail "doctor does not say '$1' but: $(cat out)"
}
unusable() {
  local state=$1 command
  for command in info 'sign --key k.blob --in text --out sig' 'auth-token --sid 1 --out t' configure; do
    # shellcheck disable=SC2086  # a command and its options
    refuse "the state folder $1 cannot be used: $2" km $command
    ! grep -q '^tee:' err || fail "the TEE was reached: $(cat err)"
  done
  doctor_finds "$2"
}
mkdir foreign closed
cp text foreign/letter
unusable text 'text is no folder'
unusable text/below 'text is no folder'
unusable foreign 'it holds other files'
[ "$(ls -A foreign)" = letter ] || fail 'a foreign folder was adopted'
chmod 500 closed
if [ "$(id -u)" -eq 0 ]; then
  emulator="setpriv --bounding-set -dac_override,-dac_read_search $emulator"
fi
unusable "$PWD/closed" 'Permission denied'
emulator=${KM_EMULATOR:-}

# Doctor finds each damaged file by its name, changes nothing, and leaves no copy of the state.
copies() { compgen -G '/dev/shm/keymasterctl-*' || true; }
copies >copies_before
ok km attest --key k.blob --challenge x --out chain
ok km hmac-sharing
ok km generate --algorithm hmac --max-uses 9 --key limited.blob
ok km sign --key limited.blob --in text --out tag
state() { find "$1" -type f -printf '%p %m %T@ ' -exec md5sum {} \; | sort; }
damaged() {
  state=damaged
  state $state >before
  doctor_finds "damaged/$1 is damaged"
  state $state >after
  same before after 'doctor changed the state'
}
for file in device_key hmac_sharing_seed attestation.pem boot_state "$(basename state/usage_*)"; do
  rm -rf damaged
  cp -r state damaged
  : >damaged/$file
  (damaged $file)
done

cp -r state/. damaged
flip state/device_key 7 damaged/device_key
(damaged device_key)
: >damaged/device_key
state=damaged refuse 'keymasterctl --state damaged doctor' km sign --key k.blob --in text
state state >before
ok km doctor
state state >after
same before after 'doctor changed a sound state'
state=none ok km doctor
[ ! -e none ] || fail 'doctor made a state folder'
# Copies that other processes work on at this moment go by themselves.
for copy in $(copies | grep -vxFf copies_before || true); do
  for _ in {1..100}; do
    [ -e "$copy" ] || continue 2
    sleep 0.1
  done
  fail "a copy of the state was left: $copy"
done
