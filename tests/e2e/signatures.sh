#!/bin/bash
# shellcheck disable=SC2086  # options travel in plain variables
# Signatures and MACs: what one side makes the other accepts, and nothing else.
. "$(dirname "$0")/common.sh" "$@"

verified='Verified OK'
head -c 5000 /dev/urandom >text
flip text 4999 text.bad

# check KEY PUBLIC PRIVATE DIGEST [TOOL_OPTIONS -- OPENSSL_OPTIONS] goes both ways with a key that
# both sides hold, and tries a changed text and a changed signature.
check() {
  local key=$1 public=$2 private=$3 digest=$4 tool=()
  shift 4
  while [ $# -gt 0 ] && [ "$1" != -- ]; do tool+=("$1") && shift; done
  [ $# -eq 0 ] || shift
  ok km sign --key "$key" --digest "$digest" "${tool[@]}" --in text --out sig
  judge "$verified" openssl dgst "-$digest" -verify "$public" "$@" -signature sig text
  judge 'erification failure' openssl dgst "-$digest" -verify "$public" "$@" -signature sig text.bad
  [ -n "$private" ] || return 0
  ok openssl dgst "-$digest" -sign "$private" "$@" -out their.sig text
  ok km verify --key "$key" --digest "$digest" "${tool[@]}" --in text --signature their.sig
}

digests=sha1,sha224,sha256,sha384,sha512
for curve in secp224r1:p224 prime256v1:p256 secp384r1:p384 secp521r1:p521; do
  openssl ecparam -name "${curve%:*}" -genkey -noout -out ec.pem
  openssl pkey -in ec.pem -pubout -out ec.pub
  ok km import --force --in ec.pem --key ec.blob --digest "none,$digests"
  ok km generate --force --algorithm ec --curve "${curve#*:}" --digest "$digests" --key made.blob
  ok km export --key made.blob --out made.pub
  for digest in ${digests//,/ }; do
    check ec.blob ec.pub ec.pem "$digest"
    check made.blob made.pub '' "$digest"
  done
  openssl dgst -sha224 -binary -out hash text
  ok km sign --key ec.blob --digest none --in hash --out sig
  refuse 'a key for ec has no such use, only sign, verify' km encrypt --key ec.blob --in hash --out none
  judge 'Verified Successfully' openssl pkeyutl -verify -pubin -inkey ec.pub -in hash -sigfile sig
done

openssl genrsa -out rsa.pem 2048 2>/dev/null
openssl pkey -in rsa.pem -pubout -out rsa.pub
ok km import --force --in rsa.pem --key rsa.blob --digest "none,md5,$digests" --padding none,pkcs1,pss
ok km generate --force --algorithm rsa --size 3072 --exponent 3 --digest "$digests" --key made.blob
ok km export --key made.blob --out made.pub
pss='-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest'
check rsa.blob rsa.pub rsa.pem md5 --padding pkcs1
for digest in ${digests//,/ }; do
  check rsa.blob rsa.pub rsa.pem "$digest" --padding pkcs1
  check made.blob made.pub '' "$digest" --padding pkcs1
  check rsa.blob rsa.pub rsa.pem "$digest" --padding pss -- $pss
  check made.blob made.pub '' "$digest" --padding pss -- $pss
done
head -c 256 text | tr '\200-\377' '\000-\177' >block
ok km sign --key rsa.blob --digest none --padding none --in block --out sig
ok openssl pkeyutl -encrypt -pubin -inkey rsa.pub -pkeyopt rsa_padding_mode:none -in sig -out back
same block back 'raw RSA'

# A text and a signature changed in one bit, for each kind of key; a key's limits.
head -c 64 /dev/urandom >mac.key
ok km import --force --raw --algorithm hmac --in mac.key --digest sha256 --key mac.blob
for key in ec rsa mac; do
  ok km sign --key $key.blob --digest sha256 --in text --out sig
  ok km verify --key $key.blob --digest sha256 --in text --signature sig
  refuse 'KM_ERROR_VERIFICATION_FAILED (-30)' \
    km verify --key $key.blob --digest sha256 --in text.bad --signature sig
  flip sig -1
  refuse 'KM_ERROR_VERIFICATION_FAILED (-30)' \
    km verify --key $key.blob --digest sha256 --in text --signature flipped
done
refuse 'KM_ERROR_INCOMPATIBLE_DIGEST (-13)' km sign --key made.blob --digest md5 --in text
refuse 'KM_ERROR_INVALID_MAC_LENGTH (-57)' km sign --key mac.blob --mac-length 120 --in text

for digest in ${digests//,/ }; do
  ok km import --force --raw --algorithm hmac --in mac.key --digest "$digest" --min-mac 80 --key mac.blob
  ok km sign --key mac.blob --in text --out mac
  openssl dgst "-$digest" -mac HMAC -macopt "hexkey:$(hex mac.key)" -binary -out judged text
  same mac judged "HMAC $digest"
  ok km sign --key mac.blob --mac-length 80 --in text --out short
  same short <(head -c 10 judged) "short HMAC $digest"
  ok km verify --key mac.blob --in text --signature short
done

# Much text, through pipes, in more pieces than one.
head -c 9000001 /dev/urandom >large
km sign --key rsa.blob --padding pss <large >sig || fail 'signing a pipe'
judge "$verified" openssl dgst -sha256 -verify rsa.pub $pss -signature sig large
ok km verify --key rsa.blob --padding pss --in large --signature sig
