#include "command_table.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr CommandText kCommands[] = {
    {"generate", "Make a key",
     "generate --algorithm ec --key k.blob\n"
     "generate --algorithm rsa --size 3072 --purpose decrypt --padding oaep --key k.blob",
     ""},
    {"export", "Write the public key of an RSA or EC key", "export --key k.blob --out k.pem", ""},
    {"characteristics", "Show what is enforced for a key", "characteristics --key k.blob", ""},
    {"upgrade", "Renew a key file for the present system version", "upgrade --key k.blob", ""},
    {"delete", "Delete a key in the TA, and its file", "delete --key k.blob", ""},
    {"import", "Import an RSA or EC private key (PEM or DER), or a symmetric key",
     "import --in private.pem --key k.blob\n"
     "import --raw --in aes.key --mode cbc --key k.blob",
     ""},
    {"import-wrapped", "Import a key that was wrapped for this device",
     "import-wrapped --wrapped key.der --wrapping-key wrap.blob --key k.blob", ""},
    {"sign", "Sign data, or make an HMAC of it",
     "sign --key k.blob --in letter.txt --out letter.sig", ""},
    {"verify", "Verify a signature or an HMAC",
     "verify --key k.blob --in letter.txt --signature letter.sig",
     "The status is 1 when it is not valid."},
    {"encrypt", "Encrypt data", "encrypt --key k.blob --in plain.txt --out secret.bin",
     "The output is the nonce (gcm: 12 bytes; cbc, ctr: one block; else none), the ciphertext\n"
     "and, with gcm, the tag."},
    {"decrypt", "Decrypt what encrypt put out",
     "decrypt --key k.blob --in secret.bin --out plain.txt",
     "With gcm nothing is put out before the tag was verified; for standard output up to\n"
     "64 MiB are held back for that."},
    {"attest", "Write a certificate chain that tells what a key is, leaf first (PEM)",
     "attest --key k.blob --challenge 0x0102030405060708 --out chain.pem", ""},
    {"hmac-sharing", "Agree on an HMAC key with other keymaster instances",
     "hmac-sharing --with \"$(keymasterctl --state other hmac-sharing)\"",
     "Without --with it prints this TA's parameters; with it, the check, which is the same for\n"
     "all who share."},
    {"auth-token", "Make an auth token, as an authenticator of this device does",
     "auth-token --sid 42 --out user.token", ""},
    {"verify-authorization", "Have the TA verify an auth token",
     "verify-authorization --challenge 7 --token user.token", ""},
    {"device-locked", "Tell the TA that the device was locked", "device-locked --password-only",
     ""},
    {"early-boot-ended", "Tell the TA that early boot is over", "early-boot-ended", ""},
    {"configure", "Configure the TA with a system version",
     "configure --os-version 110000 --patch-level 202101",
     "Every other command does so with the platform's version, which KEYMASTER_OS_VERSION and\n"
     "KEYMASTER_OS_PATCHLEVEL in the environment replace."},
    {"info", "Show versions and features", "info", ""},
    {"add-entropy", "Offer entropy to the keymaster", "add-entropy --in /etc/hostname", ""},
    {"delete-all", "Ask for the deletion of all keys", "delete-all", ""},
    {"destroy-ids", "Ask for the destruction of the attestation ids", "destroy-ids", ""},
};

// The lines of an example as they are typed.
std::string Typed(const std::string& examples) {
  std::string out;
  size_t start = 0;
  while (start <= examples.size()) {
    const size_t end = std::min(examples.find('\n', start), examples.size());
    out += "\n  keymasterctl " + examples.substr(start, end - start);
    start = end + 1;
  }
  return out;
}

}  // namespace

const CommandText& TextOf(const std::string& name) {
  for (const CommandText& text : kCommands) {
    if (text.name == name) return text;
  }
  throw std::logic_error("no text for the command " + name);
}

std::string FooterOf(const CommandText& text) {
  const std::string note = *text.note != '\0' ? std::string("\n") + text.note : "";
  return "Example:" + Typed(text.examples) + note;
}

std::string ProgramFooter() {
  return "Example:" +
         Typed(
             "generate --algorithm ec --key k.blob\n"
             "sign --key k.blob --in letter.txt --out letter.sig") +
         "\nkeymasterctl COMMAND --help tells more. Status: 0 done, 1 failed, 2 wrong usage.";
}
