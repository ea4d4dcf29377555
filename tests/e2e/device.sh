#!/bin/bash
# shellcheck disable=SC2086  # options travel in plain variables
# The device around the keys: users who authenticate, locks, the boot, the HMAC key that keymasters
# share, and the requests that this keymaster only acknowledges.
. "$(dirname "$0")/common.sh" "$@"

echo 'some text' >text
token() { ok km auth-token "$@"; }
sign() { ok km sign --in text --out sig --key "$@"; }
unauthenticated='KM_ERROR_KEY_USER_NOT_AUTHENTICATED (-26)'

# A key for a while after its user authenticated: only that user, that way, on a token that is whole.
ok km generate --force --algorithm ec --auth-sid 42 --auth-type password --auth-timeout 600 --key timed.blob
refuse "$unauthenticated" km sign --key timed.blob --in text
token --sid 42 --out user.token
[ "$(stat -c %s user.token)" -eq 69 ] || fail 'the size of a token'
sign timed.blob --auth-token user.token
token --sid 7 --authenticator-id 42 --out by-authenticator.token
sign timed.blob --auth-token by-authenticator.token
ok km export --key timed.blob --out public.pem
judge 'Verified OK' openssl dgst -sha256 -verify public.pem -signature sig text
token --sid 43 --out other.token
token --sid 42 --type fingerprint --out finger.token
token --sid 42 --timestamp 0 --out old.token
for at in 0 1 9 17 28 36 37 -1; do flip user.token $at flipped.token$at; done
now=$(python3 -c 'import time; print(int(time.clock_gettime(time.CLOCK_BOOTTIME) * 1000))')
wrong='other.token finger.token flipped.token*'
# A token of the boot's first moment has run out, unless the machine has only just started.
[ "$now" -lt 700000 ] || wrong+=' old.token'
for file in $wrong; do
  refuse "$unauthenticated" km sign --key timed.blob --auth-token "$file" --in text
done

# A key whose every operation has to be authenticated takes no token for anything else.
ok km generate --force --algorithm ec --auth-sid 42 --key each.blob
sign each.blob --auth-sid 42
ok km verify --key each.blob --in text --signature sig
refuse "$unauthenticated" km sign --key each.blob --auth-token user.token --in text
refuse "$unauthenticated" km sign --key each.blob --auth-sid 43 --in text
grep -q 'for the user with secure id 42, not 43' err || fail "the wrong user is not told: $(cat err)"

# Another keymaster's word for a token.
ok km verify-authorization --challenge 72623859790382856 --token user.token --param user-secure-id=42
grep -q 72623859790382856 out && grep -q user-secure-id out || fail "the verification: $(cat out)"
refuse 'KM_ERROR_VERIFICATION_FAILED (-30)' km verify-authorization --token flipped.token1

# Two keymasters agree on a key, whose check openssl derives too; each then takes tokens under it.
mine=$(km hmac-sharing)
theirs=$(state=other km hmac-sharing)
[ "$mine" != "$theirs" ] || fail 'two keymasters have the same parameters'
check=$(km hmac-sharing --with "$theirs")
[ "$check" = "$(state=other km hmac-sharing --with "$mine")" ] || fail 'the checks differ'
agreement=$(printf 'host stand-in key agreement key.' | hex)
shared=$(openssl kdf -keylen 32 -binary -kdfopt mac:CMAC -kdfopt cipher:AES-256-CBC \
  -kdfopt hexkey:"$agreement" -kdfopt salt:KeymasterSharedMac \
  -kdfopt hexinfo:"$(printf '%s\n%s\n' "$mine" "$theirs" | LC_ALL=C sort | tr -d '\n')" KBKDF | hex)
hmac() { openssl dgst -sha256 -mac HMAC -macopt hexkey:"$shared" -r | cut -d' ' -f1; }
[ "$check" = "$(printf 'Keymaster HMAC Verification' | hmac)" ] || fail 'the check is another'
refuse "$unauthenticated" km sign --key timed.blob --auth-token user.token --in text
state=other token --sid 42 --with "$mine" --out shared.token
[ "$(tail -c 32 shared.token | hex)" = "$(head -c 37 shared.token | hmac)" ] || fail 'the token MAC'
sign timed.blob --auth-token shared.token
state=other ok km verify-authorization --token shared.token
refuse 'KM_ERROR_VERIFICATION_FAILED (-30)' km verify-authorization --token user.token

# A locked device opens for a token that is newer than the lock, and of a password if it must be.
ok km generate --force --algorithm ec --unlocked-device --key open.blob
sign open.blob
ok km device-locked
locked='KM_ERROR_DEVICE_LOCKED (-72)'
refuse "$locked" km sign --key open.blob --in text
refuse "$locked" km sign --key open.blob --auth-token shared.token --in text
token --sid 42 --type fingerprint --with "$theirs" --out finger.token
sign open.blob --auth-token finger.token
sign open.blob
ok km device-locked --password-only
token --sid 42 --type fingerprint --with "$theirs" --out finger.token
refuse "$locked" km sign --key open.blob --auth-token finger.token --in text
token --sid 42 --with "$theirs" --out user.token
sign open.blob --auth-token user.token

ok km generate --force --algorithm ec --early-boot --key early.blob
sign early.blob
ok km early-boot-ended
refuse 'KM_ERROR_EARLY_BOOT_ENDED (-73)' km sign --key early.blob --in text

# Validity, and uses limited in number and rate.
ok km generate --force --algorithm ec --valid-from 2100-01-01 --key k.blob
refuse 'KM_ERROR_KEY_NOT_YET_VALID (-24)' km sign --key k.blob --in text
ok km generate --force --algorithm ec --valid-until 2001-01-01 --key k.blob
refuse 'KM_ERROR_KEY_EXPIRED (-25)' km sign --key k.blob --in text
ok km generate --force --algorithm ec --max-uses 1 --key k.blob
sign k.blob
refuse 'KM_ERROR_KEY_MAX_OPS_EXCEEDED (-56)' km sign --key k.blob --in text
ok km generate --force --algorithm ec --min-seconds 30 --key k.blob
sign k.blob
refuse 'KM_ERROR_KEY_RATE_LIMIT_EXCEEDED (-54)' km sign --key k.blob --in text
ok km generate --force --algorithm ec --min-seconds 1 --key k.blob
sign k.blob
sleep 1
sign k.blob

ok km configure --os-version 120000 --patch-level 202201
judge '4.1' km info
ok km add-entropy --in text
ok km delete-all
ok km destroy-ids
sign open.blob
traced VerifyAuthorization EarlyBootEnded DeviceLocked GetHmacSharingParameters ComputeSharedHmac
