#include "tools/keymasterctl/command_table.h"

#include <algorithm>

#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/names.h"

namespace {

constexpr const char* kKind = "Kind of key";
constexpr const char* kUses = "What the key may do";
constexpr const char* kAccess = "Who may use the key, and when";
// The commands that take what a key is bound to.
constexpr const char* kBound =
    "generate import show characteristics export upgrade attest sign verify encrypt decrypt";

constexpr const char* kNew = "generate import";
constexpr const char* kUse = "sign verify encrypt decrypt";
constexpr const char* kCipher = "encrypt decrypt";

constexpr OptionRow kRows[] = {
    {"*", kFirstGroup, "--state", "DIR", "State folder of the TA (default: the TA's own)"},
    {"*", kFirstGroup, "--verbose", "", "Show the library's whole log on standard error"},
    {"*", kFirstGroup, "--trace", "1|params|secrets|full",
     "Show every TEE command on standard error; =params also the key parameters, =secrets also "
     "those that are secret, =full whole buffers"},
    {"*", kFirstGroup, "--json", "", "Tell the result, or a failure, as a JSON object"},
    {"*", kFirstGroup, "--color", "auto|always|never",
     "Colour the output (default auto: on a terminal)"},
    {"generate import import-wrapped", kFirstGroup, "-k,--key", "!FILE", "Key file to write"},
    {"generate import import-wrapped upgrade", kFirstGroup, "-f,--force", "",
     "Replace the key in an existing file"},
    {"characteristics export upgrade delete attest sign verify encrypt decrypt", kFirstGroup,
     "-k,--key", "!FILE", "Key file"},
    {"show", kFirstGroup, "key", "!FILE", "Key file"},
    {"import add-entropy sign verify encrypt decrypt", kFirstGroup, "-i,--in", "FILE",
     "Input file, - for standard input (default)"},
    {"export attest sign encrypt decrypt auth-token", kFirstGroup, "-o,--out", "FILE",
     "Output file, - for standard output (default)"},
    {"import", kFirstGroup, "--raw", "",
     "The input is the bytes of a symmetric key (default algorithm aes)"},
    {"import-wrapped", kFirstGroup, "--wrapped", "!FILE", "Wrapped key (DER)"},
    {"import-wrapped", kFirstGroup, "--wrapping-key", "!FILE",
     "Key file of the wrapping key, an RSA key with purpose wrap-key"},
    {"import-wrapped", kFirstGroup, "--masking-key,--mask", "FILE",
     "Masking key: 32 bytes, or as hexadecimal digits (default: 32 zero bytes)"},
    {"import-wrapped", kFirstGroup, "--digest", "", "Digest of OAEP (default sha1)", KM_TAG_DIGEST},
    {"import-wrapped", kFirstGroup, "--password-sid", "N",
     "Secure id of the user's password, for a key bound to it"},
    {"import-wrapped", kFirstGroup, "--biometric-sid", "N",
     "Secure id of the user's fingerprint, likewise"},
    {"export", kFirstGroup, "--der", "", "DER instead of PEM"},
    {"export", kFirstGroup, "--pem", "", "PEM (default)"},
    {"upgrade", kFirstGroup, "-o,--out", "FILE", "New key file (default: in place of the old one)"},
    {"delete", kFirstGroup, "--keep-file", "", "Leave the file"},
    {"attest", kFirstGroup, "--challenge", "!BYTES",
     "What the verifier asked for: text, 0x and hexadecimal, or @FILE"},
    {"attest", kFirstGroup, "--attest-app-id", "BYTES",
     "Attestation application id, likewise (default keymasterctl)"},
    {"generate", kKind, "-a,--algorithm", "!", "Algorithm", KM_TAG_ALGORITHM},
    {"import", kKind, "-a,--algorithm", "", "Algorithm (default: the key's own)", KM_TAG_ALGORITHM},
    {kNew, kKind, "-s,--size", "", "Key size in bits", KM_TAG_KEY_SIZE},
    {kNew, kKind, "--curve", "", "Curve of an EC key (default p256)", KM_TAG_EC_CURVE},
    {kNew, kKind, "--exponent", "", "Public exponent of RSA (default 65537)",
     KM_TAG_RSA_PUBLIC_EXPONENT},
    {"generate import attest verify-authorization", kKind, "--param", "NAME=VALUE,...",
     "Any other parameter, named as characteristics shows it; the TA alone judges it"},
    {kNew, kUses, "--purpose", "", "Uses (default: the algorithm's pair)", KM_TAG_PURPOSE},
    {kNew, kUses, "--digest", "", "Digests (default sha256)", KM_TAG_DIGEST},
    {kNew, kUses, "--padding", "", "Paddings (default: by the uses)", KM_TAG_PADDING},
    {kNew, kUses, "--mode", "", "Block modes (default gcm; 3des: cbc)", KM_TAG_BLOCK_MODE},
    {kNew, kUses, "--min-mac", "", "Smallest tag or MAC, in bits (default 128)",
     KM_TAG_MIN_MAC_LENGTH},
    {kNew, kUses, "--caller-nonce", "", "The caller may choose the nonce", KM_TAG_CALLER_NONCE},
    {"sign verify", kFirstGroup, "--digest", "", "Digest (default: sha256 if allowed)",
     KM_TAG_DIGEST},
    {kCipher, kFirstGroup, "--digest", "", "Digest of OAEP (default: sha256 if allowed)",
     KM_TAG_DIGEST},
    {kUse, kFirstGroup, "--padding", "", "Padding (default: one that is allowed)", KM_TAG_PADDING},
    {kCipher, kFirstGroup, "--mode", "", "Block mode (default: one that is allowed)",
     KM_TAG_BLOCK_MODE},
    {"sign encrypt decrypt", kFirstGroup, "--mac-length", "",
     "Bits of a MAC (default: the digest's) or tag (128)", KM_TAG_MAC_LENGTH},
    {"verify", kFirstGroup, "--signature", "!FILE", "Signature file"},
    {kCipher, kFirstGroup, "--aad", "BYTES", "Associated data: text, 0x and hexadecimal, or @FILE"},
    {kCipher, kFirstGroup, "--nonce", "BYTES",
     "Nonce, likewise; it is then not part of the ciphertext (key: --caller-nonce)"},
    {kBound, kAccess, "--app-id", "",
     "Application id of the key: text, 0x and hexadecimal, or @FILE", KM_TAG_APPLICATION_ID},
    {kBound, kAccess, "--app-data", "", "Application data of the key, likewise",
     KM_TAG_APPLICATION_DATA},
    {kNew, kAccess, "--auth-sid", "", "The key needs a user with this secure id",
     KM_TAG_USER_SECURE_ID},
    {kNew, kAccess, "--auth-type", "", "How that user authenticates", KM_TAG_USER_AUTH_TYPE},
    {kNew, kAccess, "--auth-timeout", "",
     "Seconds that an authentication lasts (default: each operation needs its own)",
     KM_TAG_AUTH_TIMEOUT},
    {kNew, kAccess, "--no-auth", "", "The key needs no user (default)"},
    {kNew, kAccess, "--unlocked-device", "", "Only on an unlocked device",
     KM_TAG_UNLOCKED_DEVICE_REQUIRED},
    {kNew, kAccess, "--early-boot", "", "Only during early boot", KM_TAG_EARLY_BOOT_ONLY},
    {kNew, kAccess, "--rollback-resistant", "",
     "A deleted key stays deleted, also from a saved copy", KM_TAG_ROLLBACK_RESISTANCE},
    {kNew, kAccess, "--valid-from", "", "Not before YYYY-MM-DD[Thh:mm:ss], UTC; for all dates",
     KM_TAG_ACTIVE_DATETIME},
    {kNew, kAccess, "--valid-until", "", "No new signature or encryption after this date",
     KM_TAG_ORIGINATION_EXPIRE_DATETIME},
    {kNew, kAccess, "--use-until", "", "No verification or decryption after this date",
     KM_TAG_USAGE_EXPIRE_DATETIME},
    {kNew, kAccess, "--max-uses", "", "Uses per boot", KM_TAG_MAX_USES_PER_BOOT},
    {kNew, kAccess, "--min-seconds", "", "Seconds between uses", KM_TAG_MIN_SECONDS_BETWEEN_OPS},
    {kUse, kAccess, "--auth-token", "FILE", "File with an auth token, for a key that needs a user"},
    {kUse, kAccess, "--auth-sid", "N",
     "Authenticate this operation as the user with this secure id"},
    {"auth-token", kFirstGroup, "--sid", "!N", "Secure id of the user"},
    {"auth-token", kFirstGroup, "--authenticator-id", "N",
     "Secure id of the authenticator (default 0)"},
    {"auth-token", kFirstGroup, "--type", "", "Kind of authenticator (default password)",
     KM_TAG_USER_AUTH_TYPE},
    {"auth-token verify-authorization", kFirstGroup, "--challenge", "N",
     "Operation that the token is for, or challenge for the reply (default 0)"},
    {"auth-token", kFirstGroup, "--timestamp", "N", "Milliseconds since boot (default: now)"},
    {"verify-authorization", kFirstGroup, "--auth-token,--token", "!FILE", "Token file"},
    {"auth-token hmac-sharing", kFirstGroup, "--with", "HEX,...",
     "Sharing parameters of the other instances, as hmac-sharing prints them"},
    {"configure", kFirstGroup, "--os-version", "N", "OS version as MMmmss"},
    {"configure", kFirstGroup, "--patch-level", "N", "OS patch level as YYYYMM"},
    {"device-locked", kFirstGroup, "--password-only", "",
     "Only the password unlocks it, no fingerprint"},
    {"help", kFirstGroup, "command", "COMMAND", "The command to tell of"},
    {"completion", kFirstGroup, "shell", "!bash", "Shell that the script is for"},
};

}  // namespace

const std::vector<CommandRow>& Commands() {
  static const std::vector<CommandRow> commands = {

      {"Keys", "generate", RunGenerate, "Make a key",
       "generate --algorithm ec --key k.blob\n"
       "generate --algorithm rsa --size 3072 --purpose decrypt --padding oaep --key k.blob",
       nullptr},
      {"Keys", "import", RunImport,
       "Import an RSA or EC private key (PEM or DER), or a symmetric key",
       "import --in private.pem --key k.blob\n"
       "import --raw --in aes.key --mode cbc --key k.blob",
       nullptr},
      {"Keys", "import-wrapped", RunImportWrapped, "Import a key that was wrapped for this device",
       "import-wrapped --wrapped key.der --wrapping-key wrap.blob --key k.blob", nullptr},
      {"Keys", "show", RunShow, "Show a key file, and what is enforced for its key",
       "show k.blob\nshow k.blob --json", nullptr},
      {"Keys", "characteristics", RunShow, "Show what is enforced for a key",
       "characteristics --key k.blob\ncharacteristics --key k.blob --json", nullptr},
      {"Keys", "export", RunExport, "Write the public key of an RSA or EC key",
       "export --key k.blob --out k.pem", nullptr},
      {"Keys", "upgrade", RunUpgrade, "Renew a key file for the present system version",
       "upgrade --key k.blob", nullptr},
      {"Keys", "delete", RunDelete, "Delete a key in the TA, and its file", "delete --key k.blob",
       nullptr},
      {"Keys", "attest", RunAttest,
       "Write a certificate chain that tells what a key is, leaf first (PEM)",
       "attest --key k.blob --challenge 0x0102030405060708 --out chain.pem", nullptr},
      {"Using keys", "sign", RunSign, "Sign data, or make an HMAC of it",
       "sign --key k.blob --in letter.txt --out letter.sig", nullptr},
      {"Using keys", "verify", RunVerify, "Verify a signature or an HMAC",
       "verify --key k.blob --in letter.txt --signature letter.sig",
       "The status is 1 when it is not valid."},
      {"Using keys", "encrypt", RunEncrypt, "Encrypt data",
       "encrypt --key k.blob --in plain.txt --out secret.bin",
       "The output is the nonce (gcm: 12 bytes; cbc, ctr: one block; else none), the ciphertext\n"
       "and, with gcm, the tag."},
      {"Using keys", "decrypt", RunDecrypt, "Decrypt what encrypt put out",
       "decrypt --key k.blob --in secret.bin --out plain.txt",
       "With gcm nothing is put out before the tag was verified; for standard output up to\n"
       "64 MiB are held back for that."},
      {"Users", "auth-token", RunAuthToken,
       "Make an auth token, as an authenticator of this device does",
       "auth-token --sid 42 --out user.token", nullptr},
      {"Users", "verify-authorization", RunVerifyAuthorization, "Have the TA verify an auth token",
       "verify-authorization --challenge 7 --token user.token", nullptr},
      {"Users", "hmac-sharing", RunHmacSharing,
       "Agree on an HMAC key with other keymaster instances",
       "hmac-sharing --with \"$(keymasterctl --state other hmac-sharing)\"",
       "Without --with it prints this TA's parameters; with it, the check, which is the same for\n"
       "all who share."},
      {"Device", "info", RunInfo, "Show versions and features", "info", nullptr},
      {"Device", "configure", RunConfigure, "Configure the TA with a system version",
       "configure --os-version 110000 --patch-level 202101",
       "Every other command does so with the platform's version, which KEYMASTER_OS_VERSION and\n"
       "KEYMASTER_OS_PATCHLEVEL in the environment replace."},
      {"Device", "device-locked", RunDeviceLocked, "Tell the TA that the device was locked",
       "device-locked --password-only", nullptr},
      {"Device", "early-boot-ended", RunEarlyBootEnded, "Tell the TA that early boot is over",
       "early-boot-ended", nullptr},
      {"Device", "add-entropy", RunAddEntropy, "Offer entropy to the keymaster",
       "add-entropy --in /etc/hostname", nullptr},
      {"Device", "delete-all", RunDeleteAll, "Ask for the deletion of all keys", "delete-all",
       nullptr},
      {"Device", "destroy-ids", RunDestroyIds, "Ask for the destruction of the attestation ids",
       "destroy-ids", nullptr},
      {"This tool", "doctor", RunDoctor, "Check the set-up, and say what is wrong and what to do",
       "doctor\ndoctor --json",
       "It works on copies and changes nothing. The status is 1 when something is broken."},
      {"This tool", "help", RunHelp, "Show the help of a command", "help generate", nullptr},
      {"This tool", "completion", RunCompletion, "Print the completion script for bash",
       "completion bash >~/.local/share/bash-completion/completions/keymasterctl", nullptr},
      {"This tool", "manual", RunManual, "Print the manual page", "manual >keymasterctl.1",
       nullptr},

  };
  return commands;
}

std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const CommandRow& command : Commands()) {
    names.emplace_back(command.name);
  }
  return names;
}

std::vector<OptionRow> OptionsOf(const std::string& command) {
  std::vector<OptionRow> rows;
  for (const OptionRow& row : kRows) {
    const std::vector<std::string> commands = Split(row.commands, ' ');
    if (std::find(commands.begin(), commands.end(), command) != commands.end()) rows.push_back(row);
  }
  return rows;
}

std::vector<std::string> NamesOf(const OptionRow& option) { return Split(option.names, ','); }

std::string NameOf(const OptionRow& option) {
  const std::string name = NamesOf(option).back();
  return name.substr(name.find_first_not_of('-'));
}

bool IsRequired(const OptionRow& option) { return *option.value == '!'; }

bool IsPositional(const OptionRow& option) { return *option.names != '-'; }

std::string ValueOf(const OptionRow& option) {
  std::string value = option.value + (IsRequired(option) ? 1 : 0);
  const keymaster_tag_type_t type = keymaster_tag_get_type(option.tag);
  if (!value.empty() || option.tag == KM_TAG_INVALID || type == KM_BOOL) return value;
  const std::string words = ValueNames(option.tag);
  const std::string kind = IsBytes(option.tag) ? "BYTES" : type == KM_DATE ? "DATE" : "N";
  // A new key has several, a use of it has one.
  const bool several = IsRepeatable(option.tag) && option.commands == std::string(kNew);
  return (words.empty() ? kind : words) + (several ? ",..." : "");
}

std::vector<std::string> WordsOf(const OptionRow& option) {
  std::string value = ValueOf(option);
  value.resize(std::min(value.find(','), value.size()));
  return value.find('|') != std::string::npos || value == "bash" ? Split(value, '|')
                                                                 : std::vector<std::string>();
}

std::string TypedExamples(const CommandRow& command, const std::string& before) {
  std::string out;
  for (const std::string& line : Split(command.examples, '\n')) {
    out += before + "keymasterctl " + line + "\n";
  }
  return out;
}

const NamedTexts& ExitStatuses() {
  static const NamedTexts rows = {
      {"0", "The request was done."},
      {"1", "The keymaster refused it, a signature is not valid, or a file cannot be used."},
      {"2", "The command line is wrong."},
      {"3", "The TEE or its keymaster TA cannot be reached, or died."},
  };
  return rows;
}

const NamedTexts& Environment() {
  static const NamedTexts rows = {
      {"KEYMASTER_TA_STATE", "State folder of the TA where --state is not given."},
      {"KEYMASTER_OS_VERSION", "OS version that keys are bound to, as MMmmss."},
      {"KEYMASTER_OS_PATCHLEVEL", "OS patch level that keys are bound to, as YYYYMM."},
      {"ANDROID_LOG_TAGS",
       "What of the library's log is shown, as logcat reads it; without it nothing."},
      {"QAVIX_EVENTS", "File for fault events, - for standard error."},
      {"TEE_WORKER", "Program that runs the TA."},
      {"TEE_TRACE", "As --trace."},
      {"NO_COLOR", "When set, nothing is coloured."},
  };
  return rows;
}
