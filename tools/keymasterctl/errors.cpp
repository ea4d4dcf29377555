#include "tools/keymasterctl/errors.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

// What the user can do next, by the name of a result.
constexpr const char* kHints = R"(
KM_ERROR_KEY_REQUIRES_UPGRADE the system is newer than the key; run: keymasterctl upgrade --key FILE
KM_ERROR_KEYMASTER_NOT_CONFIGURED run: keymasterctl configure
KM_ERROR_TOO_MANY_OPERATIONS wait until another operation has ended, and try again
KM_ERROR_KEY_MAX_OPS_EXCEEDED the key's uses are spent until the next boot
KM_ERROR_KEY_RATE_LIMIT_EXCEEDED wait: keymasterctl characteristics --key FILE shows min-seconds-between-ops
KM_ERROR_CANNOT_ATTEST_IDS an --param attestation-id-... is not this device's: leave it out
KM_ERROR_KEY_USER_NOT_AUTHENTICATED the key needs its user: give --auth-token FILE (from keymasterctl auth-token) or --auth-sid
KM_ERROR_UNSUPPORTED_PURPOSE the key's algorithm has no such use
KM_ERROR_INCOMPATIBLE_PURPOSE the key was not made for this use; keymasterctl characteristics --key FILE shows its purposes
KM_ERROR_INCOMPATIBLE_DIGEST the key does not allow this digest; keymasterctl characteristics --key FILE lists those it does
KM_ERROR_INCOMPATIBLE_PADDING_MODE the key does not allow this padding; keymasterctl characteristics --key FILE lists those it does
KM_ERROR_INCOMPATIBLE_BLOCK_MODE the key does not allow this mode; keymasterctl characteristics --key FILE lists those it does
KM_ERROR_CALLER_NONCE_PROHIBITED leave --nonce out, or make the key with --caller-nonce
KM_ERROR_DEVICE_LOCKED the device is locked: unlock it with --auth-token FILE, made after the lock
KM_ERROR_EARLY_BOOT_ENDED the key works until early-boot-ended, and again after a boot
KM_ERROR_VERIFICATION_FAILED the data, the signature or tag, or the key is not the one it was made with
KM_ERROR_INVALID_INPUT_LENGTH the input does not fit: raw RSA and unpadded blocks have an exact length, padded RSA input is shorter than the key, a challenge has at most 128 bytes
KM_ERROR_UNSUPPORTED_KEY_SIZE choose another --size or --curve
KM_ERROR_UNSUPPORTED_KEY_FORMAT give an unencrypted RSA or EC private key (PKCS#8)
KM_ERROR_IMPORT_PARAMETER_MISMATCH --size, --curve or --exponent differ from the key's own: leave them out
KM_ERROR_ROLLBACK_RESISTANCE_UNAVAILABLE leave --rollback-resistant out
KM_ERROR_INVALID_MAC_LENGTH a MAC or tag, in whole bytes, has from the key's min-mac-length to the digest's length or 128 bits
KM_ERROR_INVALID_ARGUMENT a value does not fit; --verbose shows which, in the library's log
KM_ERROR_UNKNOWN_ERROR --verbose shows the library's log
KM_ERROR_KEY_EXPIRED the key's validity is over
KM_ERROR_KEY_NOT_YET_VALID the key's validity has not begun
KM_ERROR_INCOMPATIBLE_ALGORITHM the key's algorithm cannot do this; keymasterctl characteristics --key FILE shows it
TEEC_ERROR_SHORT_BUFFER a reply of the TA is limited to 4096 bytes: the key has too many or too long parameters
TEEC_ERROR_GENERIC keymasterctl doctor tells what is wrong with the set-up
TEEC_ERROR_ITEM_NOT_FOUND the TEE has no keymaster TA; keymasterctl doctor tells more
TEEC_ERROR_BUSY the TEE takes no further session now: try again
TEEC_ERROR_COMMUNICATION the TEE does not answer; keymasterctl doctor tells more
TEEC_ERROR_TARGET_DEAD the TA died; try again: a new one starts. --trace shows its last command
)";

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string HintFor(int32_t result, const std::string& key) {
  const std::string hints = kHints;
  const std::string name = "\n" + ResultName(result) + " ";
  const size_t at = hints.find(name);
  if (at == std::string::npos) return "";
  const size_t start = at + name.size();
  const std::string hint = hints.substr(start, hints.find('\n', start) - start);
  return Typed(ReplaceAll(hint, "--key FILE", "--key " + Quoted(key)));
}

// The name of a result with its number: "KM_ERROR_INVALID_KEY_BLOB (-33)".
std::string ResultText(int32_t result) {
  char number[16];
  snprintf(number, sizeof(number), IsTeeResult(result) ? "0x%08X" : "%d",
           static_cast<unsigned>(result));
  const std::string name = ResultName(result);
  return name.empty() ? std::string("result ") + number : name + " (" + number + ")";
}

void TellJson(const Failure& failure) {
  Report report;
  report.Member("error", failure.what()).Member("status", failure.status);
  if (failure.result) {
    report.Member("result", *failure.result).Member("name", ResultName(*failure.result));
  }
  if (!failure.hint.empty()) report.Member("hint", failure.hint);
  report.Print();
}

}  // namespace

Failure UsageFailure(const std::string& text, const std::string& hint) {
  return Failure(text, hint, kExitUsage);
}

Failure SystemFailure(const std::string& what, const std::string& path) {
  return Failure(what + " " + path + ": " + strerror(errno));
}

void Require(bool holds, const std::string& text) {
  if (!holds) throw Failure(text);
}

void RequireUsage(bool holds, const std::string& text) {
  if (!holds) throw UsageFailure(text);
}

Failure ResultFailure(const char* what, int32_t result, const std::string& key) {
  const std::string name = ResultName(result);
  const bool lost = name == "TEEC_ERROR_ITEM_NOT_FOUND" || name == "TEEC_ERROR_COMMUNICATION" ||
                    name == "TEEC_ERROR_TARGET_DEAD";
  Failure failure(std::string(what) + " failed: " + ResultText(result), HintFor(result, key),
                  lost ? kExitNoTa : kExitFailed);
  failure.result = result;
  return failure;
}

void Check(const char* what, int32_t result, const std::string& key) {
  if (result != 0) throw ResultFailure(what, result, key);
}

std::string Typed(std::string text) {
  const std::string& state = Style().state;
  const std::string tool = "keymasterctl --state " + Quoted(state);
  return state.empty() ? text : ReplaceAll(std::move(text), "keymasterctl", tool);
}

std::string Quoted(const std::string& text) {
  const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || strchr("/._-+,:=@%", c) != nullptr;
  });
  return plain ? text : "'" + ReplaceAll(text, "'", "'\\''") + "'";
}

void Tell(const Failure& failure) {
  if (*failure.what() == '\0') return;
  if (Style().json) {
    TellJson(failure);
    return;
  }
  fprintf(stderr, "%s %s\n", Paint(stderr, Color::kRed, "keymasterctl:").c_str(), failure.what());
  if (!failure.hint.empty()) fprintf(stderr, "  %s\n", failure.hint.c_str());
}
