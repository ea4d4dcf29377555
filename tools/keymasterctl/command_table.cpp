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
    {"characteristics", "Show what is enforced for a key",
     "characteristics --key k.blob\ncharacteristics --key k.blob --json", ""},
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
    {"doctor", "Check the set-up, and say what is wrong and what to do", "doctor\ndoctor --json",
     "The status is 1 when something is broken."},
    {"completion", "Print a shell's completion script",
     "completion bash >~/.local/share/bash-completion/completions/keymasterctl", ""},
    {"manual", "Print the manual page", "manual >keymasterctl.1", ""},
};

}  // namespace

const CommandText& TextOf(const std::string& name) {
  for (const CommandText& text : kCommands) {
    if (text.name == name) return text;
  }
  throw std::logic_error("no text for the command " + name);
}

std::string TypedExamples(const CommandText& text, const std::string& before) {
  const std::string examples = text.examples;
  std::string out;
  for (size_t start = 0; start < examples.size();) {
    const size_t end = std::min(examples.find('\n', start), examples.size());
    out += before + "keymasterctl " + examples.substr(start, end - start) + "\n";
    start = end + 1;
  }
  return out;
}

std::string FooterOf(const CommandText& text) {
  return "Example:\n" + TypedExamples(text, "  ") + text.note + (*text.note != '\0' ? "\n" : "") +
         "keymasterctl --help shows the options that every command takes.";
}

std::string ProgramFooter() {
  std::string out = "Example:\n" + TypedExamples(TextOf("generate"), "  ") +
                    TypedExamples(TextOf("sign"), "  ") + "\nExit status:\n";
  for (const NamedText& row : ExitStatuses()) {
    out += std::string("  ") + row.name + "  " + row.text + "\n";
  }
  return out + "\nkeymasterctl COMMAND --help tells more.";
}

const std::vector<NamedText>& ExitStatuses() {
  static const std::vector<NamedText> rows = {
      {"0", "The request was done."},
      {"1", "The keymaster refused it, a signature is not valid, or a file cannot be used."},
      {"2", "The command line is wrong."},
      {"3", "The TEE or its keymaster TA cannot be reached, or died."},
  };
  return rows;
}

const std::vector<NamedText>& Environment() {
  static const std::vector<NamedText> rows = {
      {"KEYMASTER_TA_STATE", "State folder of the TA where --state is not given."},
      {"KEYMASTER_OS_VERSION", "OS version that keys are bound to, as MMmmss."},
      {"KEYMASTER_OS_PATCHLEVEL", "OS patch level that keys are bound to, as YYYYMM."},
      {"ANDROID_LOG_TAGS", "What of the log is shown, as logcat reads it."},
      {"QAVIX_EVENTS", "File for fault events, - for standard error."},
      {"TEE_WORKER", "Program that runs the TA."},
      {"TEE_TRACE", "As --trace."},
      {"NO_COLOR", "When set, nothing is coloured."},
  };
  return rows;
}
