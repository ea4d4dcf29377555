#!/bin/bash
# shellcheck disable=SC2086  # options travel in plain variables
# The life of a key: import, export, characteristics, secure import, upgrade, deletion,
# and what is said when one of them fails.
. "$(dirname "$0")/common.sh" "$@"

echo 'some text' >text
# says JSON_EXPRESSION KEY [OPTIONS] checks what the characteristics of a key say.
says() {
  local expression=$1 key=$2
  shift 2
  ok km characteristics --json --key "$key" "$@"
  python3 -c 'import json, sys
o = json.load(open("out"))
hw, sw = o["hardware_enforced"], o["software_enforced"]
assert eval(f"({sys.argv[1]})"), o' "$expression" 2>judged || fail "$key: $(tail -n 1 judged)"
}

# Every kind of private key in every encoding that openssl writes comes back as its public half.
for kind in rsa:1024 rsa:2048 rsa:4096 ec:secp224r1 ec:prime256v1 ec:secp384r1 ec:secp521r1; do
  case $kind in
    rsa:*) openssl genrsa -traditional -out key.pem "${kind#*:}" 2>/dev/null ;;
    ec:*) openssl ecparam -name "${kind#*:}" -genkey -noout -out key.pem ;;
  esac
  openssl pkcs8 -topk8 -nocrypt -in key.pem -out key.p8
  openssl pkcs8 -topk8 -nocrypt -in key.pem -outform DER -out key.der
  openssl pkey -in key.pem -pubout -out public.pem
  openssl pkey -in key.pem -pubout -outform DER -out public.der
  for file in key.pem key.p8 key.der; do
    ok km import --force --in $file --key k.blob
    ok km export --key k.blob --out exported
    same exported public.pem "$kind from $file"
  done
  ok km export --der --key k.blob --out exported
  same exported public.der "$kind"
  says 'hw["origin"] == "imported" and hw["algorithm"] == "'${kind%:*}'"' k.blob
done
ok km generate --force --algorithm rsa --size 3072 --key k.blob
ok km export --key k.blob --out public.pem
judge '(3072 bit)' openssl pkey -pubin -in public.pem -noout -text
says 'hw["origin"] == "generated" and hw["key_size"] == 3072' k.blob
ok km generate --algorithm aes --key aes.blob
refuse 'KM_ERROR_UNSUPPORTED_KEY_FORMAT (-17)' km export --key aes.blob

# What a description may say of a key is kept, in the list of who enforces it.
ok km generate --algorithm ec --rollback-resistant --early-boot --unlocked-device --min-seconds 1 \
  --max-uses 9 --valid-from 2020-01-01 --valid-until 2100-01-01 --use-until 2100-01-01 --auth-sid 42 \
  --auth-timeout 9 --param padding=none --param block-mode=gcm --param min-mac-length=128 \
  --param caller-nonce=yes --param rsa-public-exponent=3 --param include-unique-id=yes \
  --param blob-usage-requirements=standalone --param bootloader-only=yes --param storage-key=yes \
  --param identity-credential-key=yes --param trusted-user-presence-required=yes \
  --param trusted-confirmation-required=yes --param user-id=5 --param all-users=yes \
  --param allow-while-on-body=yes --param all-applications=yes --param exportable=yes --key all.blob
says 'set(sw) == {"active_datetime", "origination_expire_datetime", "usage_expire_datetime",
  "creation_datetime", "user_id", "all_users", "allow_while_on_body", "all_applications", "exportable"}
  and set(hw) == {"algorithm", "key_size", "ec_curve", "origin", "os_version", "os_patchlevel", "purpose",
  "digest", "padding", "block_mode", "min_mac_length", "caller_nonce", "rsa_public_exponent",
  "include_unique_id", "blob_usage_requirements", "bootloader_only", "rollback_resistance",
  "early_boot_only", "unlocked_device_required", "min_seconds_between_ops", "max_uses_per_boot",
  "user_secure_id", "user_auth_type", "auth_timeout", "trusted_user_presence_required",
  "trusted_confirmation_required", "identity_credential_key", "storage_key"}' all.blob

# The owner of a key has to be told, and is not told on.
ok km generate --force --algorithm ec --curve p384 --app-id me --app-data 0x00ff --purpose sign,verify \
  --digest sha256,sha384 --key own.blob
says 'hw["purpose"] == ["sign", "verify"] and hw["ec_curve"] == "p384" and hw["key_size"] == 384 and
  hw["os_version"] == 110000 and hw["os_patchlevel"] == 202101 and "application_id" not in hw' \
  own.blob --app-id me --app-data 0x00ff
judge 'sha384' km characteristics --key own.blob --app-id me --app-data 0x00ff
for owner in '' '--app-id me' '--app-id you --app-data 0x00ff' '--app-id me --app-data 0x00fe'; do
  refuse 'KM_ERROR_INVALID_KEY_BLOB (-33)' km export --key own.blob $owner
done
said() { grep -qF -- "$1" err || fail "the hint is not '$1' but: $(cat err)"; }
said 'needs the --app-id and --app-data'
ok km sign --key own.blob --app-id me --app-data 0x00ff --in text --out sig
for at in 0 1 100 -1; do
  flip k.blob "$at"
  refuse 'KM_ERROR_INVALID_KEY_BLOB (-33)' km characteristics --key flipped
  [ "$at" != 0 ] || said 'no key file of this keymaster, or its beginning is damaged'
done
said 'damaged, or was made under another state folder than state'
refuse 'this is a PEM file' km export --key key.pem
state=other refuse 'damaged, or was made under another state folder than other' km export --key k.blob

# A key wrapped outside comes in, under the mask it was wrapped with and unchanged only.
wrap() { "$scripts/make-wrapped-key" --wrapping-key wrap.pub "$@"; }
secret=000102030405060708090a0b0c0d0e0f
printf '\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17' >secret
head -c 32 /dev/zero | tr '\0' '\245' >mask
head -c 32 /dev/zero >no-mask
hex mask >hex-mask
flip mask 0 bad-mask
head -c 31 mask >short-mask
ok km generate --force --algorithm rsa --purpose wrap-key --padding oaep --digest sha1,sha256 --key wrap.blob
ok km export --key wrap.blob --out wrap.pub
take() { ok km import-wrapped --force --wrapping-key wrap.blob --wrapped "$@" --key in.blob; }
wrap --key secret --masking-key hex-mask --out wrapped
take wrapped --mask hex-mask
take wrapped --mask mask
says 'hw["origin"] == "securely-imported" and hw["key_size"] == 128' in.blob
openssl enc -aes-128-ctr -K $secret -iv $secret -in text -out sealed
ok km decrypt --key in.blob --mode ctr --nonce 0x$secret --in sealed --out back
same text back 'a secret key that came in wrapped'
openssl ecparam -name prime256v1 -genkey -noout -out key.pem
openssl pkey -in key.pem -pubout -out public.pem
# A genuine token in the wrapper says whose the key is; of another order it says nothing.
ok km auth-token --sid 1 --type fingerprint --out finger.token
ok km auth-token --sid 1 --type password --out password.token
ok km verify-authorization --token finger.token --param user-auth-type=fingerprint
big_endian=$(hex finger.token | sed -E 's/^(.{50})02000000/\100000002/')
for row in "$(hex finger.token) 6" "$(hex password.token) 5" "$big_endian 1"; do
  wrap --key key.pem --format pkcs8 --param algorithm=ec --oaep-digest sha256 \
    --param userSecureId=1 --param authToken=hex:"${row% *}" --out bound
  take bound --digest sha256 --password-sid 5 --biometric-sid 6
  says "hw['user_secure_id'] == [${row#* }]" in.blob
done
ok km export --key in.blob --out exported
same exported public.pem 'a private key that came in wrapped'
ok km generate --force --algorithm rsa --purpose decrypt --padding oaep --digest sha1 --key plain.blob
wrap --key secret --out spoilt
flip spoilt -1 spoilt
flip wrapped 290 altered
printf 'no wrapper' >junk
while read -r said wrapping wrapped with; do
  refuse "$said" km import-wrapped --force --wrapping-key "$wrapping" --wrapped "$wrapped" --mask "$with" \
    --key none.blob
done <<'ROWS'
KM_ERROR_VERIFICATION_FAILED wrap.blob wrapped bad-mask
KM_ERROR_VERIFICATION_FAILED wrap.blob spoilt no-mask
KM_ERROR wrap.blob altered mask
KM_ERROR_INVALID_ARGUMENT wrap.blob wrapped short-mask
KM_ERROR_INVALID_ARGUMENT wrap.blob junk mask
KM_ERROR_INCOMPATIBLE_PURPOSE plain.blob wrapped mask
ROWS
[ ! -e none.blob ] || fail 'a refused wrapped key left a key file'

# The system moves on, keys follow, and none goes back in any part of its version.
system() { export KEYMASTER_OS_VERSION=$1 KEYMASTER_OS_PATCHLEVEL=$2; }
ok km generate --force --algorithm ec --key old.blob
cp old.blob new.blob
judge 'needs no upgrade' km upgrade --key new.blob
for version in '120000 202101' '110000 202203'; do
  system $version
  cp old.blob new.blob
  refuse 'KM_ERROR_KEY_REQUIRES_UPGRADE (-62)' km sign --key new.blob --in text
  ok km upgrade --key new.blob
  says "hw['os_version'] == ${version% *} and hw['os_patchlevel'] == ${version#* }" new.blob
  ok km sign --key new.blob --in text --out sig
  ok km verify --key new.blob --in text --signature sig
done
for version in '100000 202204' '120000 202202' '110000 202101'; do
  system $version
  refuse 'KM_ERROR_INVALID_KEY_BLOB (-33)' km sign --key new.blob --in text
  said 'of a later system version'
  refuse 'KM_ERROR_INVALID_ARGUMENT (-38)' km upgrade --key new.blob
done
(TEE_FAULT=cmd=8,code=0xFFFFFFDF refuse 'run the same command again' km sign --key old.blob --in text)
ok km sign --key old.blob --in text --out sig

# A deletion reaches every file of the key.
ok km delete --key new.blob
[ ! -e new.blob ] || fail 'delete left the key file'
refuse 'KM_ERROR_INVALID_KEY_BLOB (-33)' km sign --key old.blob --in text
said 'was deleted in the TA'

# What earlier versions left still works: a state folder, and a file of AES key 00 to 0f that Python's
# cryptography sealed under its device key, of id 0123456789abcdef twice.
mkdir -m 700 earlier
head -c 32 /dev/zero | tr '\0' k >earlier/device_key
head -c 32 /dev/zero | tr '\0' s >earlier/hmac_sharing_seed
python3 -c 'import sys
open(sys.argv[1], "wb").write(bytes.fromhex(sys.stdin.read()))' earlier.blob <<'HEX'
016e6e6e6e6e6e6e6e6e6e6e6e99a261044edd1c82526fbf9605f080fedc41aece6d9e017d33983b4a6216916775a3a3b4bb43
6b38107c30b173e8ad17bd9f41d6a689b9e40585e6f0a814c20b9b932b9a32b701726eb2872bd3fd9b8de856765229ba2f68ab
7167e83a602e6e524632b879e9f2a19c2edb813506123ead6033b0175004a028be465ec02685d4305a2d8fdef3fc30c91b66c0
0447a69de1bb1e7bcbc123645d358d1984886356a598d8c3caec3c7c8b29a70af0130a58dbe80fca7a6c65e14934479e9772c2
7f09de1d7286d2866fb059b7918560403c6331d80c91d571e8de7d6cb3
HEX
state=earlier
system 110000 202111
printf 0123456789abcdef >block
ok km encrypt --key earlier.blob --app-id app --mode ecb --padding none --in block --out sealed
openssl enc -aes-128-ecb -K $secret -nopad -in block -out judged
same sealed judged 'a key of an earlier version'
[ "$(km hmac-sharing | head -c 64)" = "$(hex earlier/hmac_sharing_seed)" ] || fail 'another seed'
: >earlier/deleted_0123456789abcdef0123456789abcdef
refuse 'KM_ERROR_INVALID_KEY_BLOB (-33)' km encrypt --key earlier.blob --app-id app --mode ecb --in block
state=state
unset KEYMASTER_OS_VERSION KEYMASTER_OS_PATCHLEVEL

# A failed command leaves one event: what the TA found, where, and in which command.
export QAVIX_EVENTS=events
ok km generate --force --algorithm ec --purpose verify --key verify.blob
refuse 'KM_ERROR_INCOMPATIBLE_PURPOSE (-3)' km sign --key verify.blob --in text
TEE_FAULT='cmd=2,code=0xFFFF000C' refuse 'TEEC_ERROR_OUT_OF_MEMORY (0xFFFF000C)' \
  km generate --force --algorithm ec --key none.blob
python3 - <<'PY' || fail "the events are not those expected: $(cat events)"
import json
begin, generate = [json.loads(line) for line in open("events")]
assert begin["id"] == 940102001 and generate["id"] == 940003100
assert begin["params"]["CMD_ID"] == 8 and generate["params"]["CMD_ID"] == 2
assert begin["params"]["RET"] == -3 and generate["params"]["RET"] == -65524
assert begin["params"]["LINE"] > 0 and begin["params"]["FUNC"]
assert begin["params"]["CAINFO"] == "KEYMASTER_TS"
PY

refuse 'No such file or directory' km sign --key missing.blob --in text
refuse 'KM_ERROR_UNSUPPORTED_KEY_SIZE (-6)' \
  km generate --algorithm aes --param key-size=129 --key none.blob
for usage in '' 'dance' 'sign --in text' 'generate --algorithm dance --key k'; do
  status=0
  km $usage >out || status=$?
  [ $status -eq 2 ] || fail "status $status, not 2: keymasterctl $usage"
done
traced Configure GenerateKey GetKeyCharacteristics ImportKey ExportKey Upgrade Begin Finish DeleteKey GetErrorRecord
