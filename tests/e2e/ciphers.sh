#!/bin/bash
# shellcheck disable=SC2086  # options travel in plain variables
# Encryption: the keys are imported, so that openssl holds them too and judges every byte.
. "$(dirname "$0")/common.sh" "$@"

sizes='0 1 15 16 17 4031 4032 4033 4096 5000 1048576 1048577 3000007'

# both KEY HEXKEY MODE OPENSSL_NAME NONCE_LENGTH SIZE encrypts here and decrypts there, and back.
both() {
  local key=$1 secret=$2 mode=$3 name=$4 nonce=$5 size=$6 iv=()
  head -c "$size" large >plain
  ok km encrypt --key "$key" --mode "$mode" --in plain --out sealed
  [ "$nonce" -eq 0 ] || iv=(-iv "$(head -c "$nonce" sealed | hex)")
  tail -c +$((nonce + 1)) sealed >bare
  openssl enc -d "-$name" -K "$secret" "${iv[@]}" -in bare -out back || fail "$name $size"
  same plain back "$name $size encrypted here"
  openssl enc "-$name" -K "$secret" "${iv[@]}" -in plain -out theirs
  head -c "$nonce" sealed | cat - theirs >joined
  ok km decrypt --key "$key" --mode "$mode" --in joined --out back
  same plain back "$name $size encrypted there"
}

head -c 20000003 /dev/urandom >large
for bits in 128 192 256; do
  head -c $((bits / 8)) /dev/urandom >aes.key
  ok km import --force --raw --in aes.key --mode ecb,cbc,ctr,gcm --padding none,pkcs7 --caller-nonce \
    --key aes.blob
  for mode in ecb:0 cbc:16 ctr:16; do
    for size in $([ $bits = 256 ] && echo "$sizes" || echo 5000); do
      both aes.blob "$(hex aes.key)" ${mode%:*} aes-$bits-${mode%:*} ${mode#*:} "$size"
    done
  done
done
head -c 24 /dev/urandom >des.key
ok km import --force --raw --algorithm 3des --in des.key --mode ecb,cbc --key des.blob
for size in 0 7 8 5000; do
  both des.blob "$(hex des.key)" ecb des-ede3 0 "$size"
  both des.blob "$(hex des.key)" cbc des-ede3-cbc 8 "$size"
done

# GCM, which the openssl command does not have.
gcm() {
  python3 - "$@" <<'PY'
import sys
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
key, sealed, aad, plain, tag_size = sys.argv[1:]
key, sealed, plain = (open(name, "rb").read() for name in (key, sealed, plain))
whole = AESGCM(key).encrypt(sealed[:12], plain, aad.encode())
sys.exit(sealed[12:] != whole[:len(plain) + int(tag_size)])
PY
}
for size in 0 1 16 4033 70001; do
  head -c $size large >plain
  ok km encrypt --key aes.blob --mode gcm --aad "head $size" --in plain --out sealed
  ok gcm aes.key sealed "head $size" plain 16
  ok km decrypt --key aes.blob --mode gcm --aad "head $size" --in sealed --out back
  same plain back "gcm $size"
done
ok km generate --force --algorithm aes --min-mac 96 --key gcm.blob
ok km encrypt --key gcm.blob --mac-length 96 --in plain --out sealed
[ "$(stat -c %s sealed)" -eq $((12 + 70001 + 12)) ] || fail 'the length of a sealed file'
ok km decrypt --key gcm.blob --mac-length 96 --in sealed --out back

# Nothing is put out for a ciphertext that is not whole: nonce, text, tag, associated data.
ok km encrypt --key gcm.blob --aad a --in plain --out sealed
for at in 0 12 40000 -1; do
  flip sealed $at
  rm -f back
  refuse 'KM_ERROR_VERIFICATION_FAILED (-30)' km decrypt --key gcm.blob --aad a --in flipped --out back
  [ ! -e back ] || fail "a plaintext was left behind a flip at $at"
done
refuse '(-30)' km decrypt --key gcm.blob --aad b --in sealed
[ ! -s out ] || fail 'a plaintext was put out in spite of other associated data'
km encrypt --key gcm.blob <large >sealed || fail 'encrypting a pipe'
km decrypt --key gcm.blob <sealed >back || fail 'decrypting a pipe'
same large back '20 MB through pipes'

nonce=000102030405060708090a0b
ok km encrypt --key aes.blob --mode gcm --nonce 0x$nonce --in plain --out bare
printf '\0\1\2\3\4\5\6\7\10\11\12\13' | cat - bare >sealed
ok gcm aes.key sealed '' plain 16
refuse 'KM_ERROR_CALLER_NONCE_PROHIBITED (-55)' km encrypt --key gcm.blob --nonce 0x$nonce --in plain
refuse 'KM_ERROR_INCOMPATIBLE_BLOCK_MODE (-8)' km encrypt --key gcm.blob --mode cbc --in plain
refuse 'cannot write' km encrypt --key gcm.blob --in plain --out nowhere/sealed
refuse 'cannot write' km encrypt --key gcm.blob --in plain --out /dev/full
traced Update Abort

# RSA, in both directions; OAEP's mask is made with SHA-1 whatever the digest.
openssl genrsa -out rsa.pem 2048 2>/dev/null
ok km import --force --in rsa.pem --key rsa.blob --purpose encrypt,decrypt --padding oaep,pkcs1 \
  --digest sha1,sha256
head -c 100 large >plain
while read -r padding digest options; do
  ok openssl pkeyutl -encrypt -inkey rsa.pem $options -in plain -out sealed
  ok km decrypt --key rsa.blob --padding "$padding" ${digest:+--digest $digest} --in sealed --out back
  same plain back "RSA $padding $digest decrypted here"
  ok km encrypt --key rsa.blob --padding "$padding" ${digest:+--digest $digest} --in plain --out sealed
  ok openssl pkeyutl -decrypt -inkey rsa.pem $options -in sealed -out back
  same plain back "RSA $padding $digest decrypted there"
done <<'ROWS'
pkcs1 sha1 -pkeyopt rsa_padding_mode:pkcs1
oaep sha1 -pkeyopt rsa_padding_mode:oaep
oaep sha256 -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha256 -pkeyopt rsa_mgf1_md:sha1
ROWS
