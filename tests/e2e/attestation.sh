#!/bin/bash
# shellcheck disable=SC2086  # options travel in plain variables
# Attestations: the chain leads to its root, is for the key, and tells of the key what it is.
. "$(dirname "$0")/common.sh" "$@"

# attest OPTIONS... leaves the chain of k.blob in cert.1 to cert.3, and in told its attestation
# extension as hexadecimal DER.
attest() {
  ok km attest --key k.blob --challenge challenge --attest-app-id app "$@" --out chain.pem
  rm -f cert.*
  awk '/BEGIN/ { ++n } { print > ("cert." n) }' chain.pem
  told=$(openssl asn1parse -in cert.1 | grep -A1 ':1\.3\.6\.1\.4\.1\.11129\.2\.1\.17$' | sed '1d;s/.*://')
}

# described BEFORE AFTER USAGE: what openssl says of the three certificates, the leaf valid between these
# and for that use.
described() {
  local n
  ok km export --key k.blob --out public.pem
  ok openssl verify -x509_strict -CAfile cert.3 -untrusted cert.2 cert.1
  openssl x509 -in cert.1 -pubkey -noout >attested.pem
  same attested.pem public.pem 'the attested key'
  for n in 1 2 3; do
    openssl x509 -in cert.$n -noout -nameopt RFC2253 -subject -serial -startdate -enddate \
      -ext basicConstraints,keyUsage
  done >seen
  same seen <(echo "subject=CN=Android Keystore Key
serial=01
notBefore=$1 GMT
notAfter=$2 GMT
X509v3 Key Usage: critical
    $3
$authorities") "the certificates: $(cat seen)"
}
authorities='subject=CN=Keymaster Host Attestation Intermediate
serial=02
notBefore=Jan  1 00:00:00 1970 GMT
notAfter=Dec 31 23:59:59 9999 GMT
X509v3 Basic Constraints: critical
    CA:TRUE, pathlen:0
X509v3 Key Usage: critical
    Certificate Sign
subject=CN=Keymaster Host Attestation Root
serial=01
notBefore=Jan  1 00:00:00 1970 GMT
notAfter=Dec 31 23:59:59 9999 GMT
X509v3 Basic Constraints: critical
    CA:TRUE
X509v3 Key Usage: critical
    Certificate Sign'

# Versions and security levels of attestation and keymaster, challenge, no unique id; then what the
# software enforces and what the TEE does: of a sequence 30, fields by rising tag.
head=0201040A01010201290A010104096368616C6C656E67650400
created=BF853D0802060174876E8000 application=BF8545050403617070
zeros=$(printf '%064d' 0)
origin=BF853E03020100BF85404C304A0420${zeros}0101000A01020420$zeros # generated; the root of trust
system=BF854105020301ADB0BF8542050203031575

ok km generate --algorithm ec --purpose sign,verify --param creation-datetime=1600000000 --key k.blob
attest --param attestation-id-brand=host
[ "$told" = "3081CD${head}3015$created${application}30819AA1083106020102020103A203020103A30402020100\
A5053103020104AA03020101BF8377020500$origin${system}BF8546060404686F7374" ] || fail "of an EC key: $told"
described 'Sep 13 12:26:40 2020' 'Dec 31 23:59:59 9999' 'Digital Signature'
for id in serial=not-mine brand=hosts; do
  refuse 'KM_ERROR_CANNOT_ATTEST_IDS (-66)' \
    km attest --key k.blob --challenge x --param attestation-id-$id
done

# It does not tell of the key's users, nor what the key's description says of the attestation.
ok km generate --force --algorithm rsa --size 4096 --purpose wrap-key --padding oaep --auth-sid 42 \
  --valid-from 2017-07-14T02:40:00 --use-until 2100-01-01 --param creation-datetime=1600000000 \
  --param attestation-application-id=mine --param root-of-trust=mine --param attestation-id-model=mine \
  --key k.blob
attest
[ "$told" = "3081E7${head}302DBF8310080206015D3EF79800BF831208020603BB2CC3D800$created${application}\
30819CA1053103020105A203020101A30402021000A5083106020102020104A6053103020102BF8148050203010001\
BF837803020103$origin$system" ] ||
  fail "of an RSA key: $told"
described 'Jul 14 02:40:00 2017' 'Jan  1 00:00:00 2100' 'Key Encipherment'

# A key that is to have it gets a unique id: the application's, another one every 30 days and after
# the user's reset.
hmac() { openssl dgst -sha256 -mac HMAC -macopt "hexkey:$1" -r | cut -d' ' -f1; }
secret=$(printf 'unique id' | hmac "$(hex state/device_key)")
while read -r created period reset; do
  ok km generate --force --algorithm ec --app-id me --param include-unique-id=yes \
    --param creation-datetime=$created --key k.blob
  attest --app-id me ${reset:+--param reset-since-id-rotation=yes}
  id=$(printf '%b' "\0$period\0\0\0\0\0\0\0me\0${reset:-0}" | hmac "$secret" | head -c 32)
  [ "${told:52:36}" = "0410${id^^}" ] || fail "not the unique id 0410$id: $told"
done <<'ROWS'
2591999 0
2591999 0 1
2592000 1
2592000 1 1
ROWS

# The most that an attestation carries, and what it cannot be of.
most=$(printf '%0128d' 0)
app=$most$most$most$most$most$most$most$most
ok km attest --key k.blob --app-id me --challenge $most --attest-app-id $app --out chain.pem
for options in "--challenge 0$most" "--challenge x --attest-app-id 0$app"; do
  refuse 'KM_ERROR_INVALID_INPUT_LENGTH (-21)' km attest --key k.blob --app-id me $options
done
ok km generate --algorithm aes --key aes.blob
refuse 'KM_ERROR_INCOMPATIBLE_ALGORITHM (-5)' km attest --key aes.blob --challenge x
traced AttestKey
