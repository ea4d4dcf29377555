#include "errors.h"

#include <errno.h>
#include <hardware/keymaster_defs.h>
#include <string.h>

#include "report.h"
#include "terminal.h"

namespace {

struct Named {
  uint32_t code;
  const char* name;
};

#define KM_NAMED(name) \
  { static_cast<uint32_t>(name), #name }

constexpr Named kNames[] = {
    KM_NAMED(KM_ERROR_ROOT_OF_TRUST_ALREADY_SET),
    KM_NAMED(KM_ERROR_UNSUPPORTED_PURPOSE),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_PURPOSE),
    KM_NAMED(KM_ERROR_UNSUPPORTED_ALGORITHM),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_ALGORITHM),
    KM_NAMED(KM_ERROR_UNSUPPORTED_KEY_SIZE),
    KM_NAMED(KM_ERROR_UNSUPPORTED_BLOCK_MODE),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_BLOCK_MODE),
    KM_NAMED(KM_ERROR_UNSUPPORTED_MAC_LENGTH),
    KM_NAMED(KM_ERROR_UNSUPPORTED_PADDING_MODE),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_PADDING_MODE),
    KM_NAMED(KM_ERROR_UNSUPPORTED_DIGEST),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_DIGEST),
    KM_NAMED(KM_ERROR_INVALID_EXPIRATION_TIME),
    KM_NAMED(KM_ERROR_INVALID_USER_ID),
    KM_NAMED(KM_ERROR_INVALID_AUTHORIZATION_TIMEOUT),
    KM_NAMED(KM_ERROR_UNSUPPORTED_KEY_FORMAT),
    KM_NAMED(KM_ERROR_INCOMPATIBLE_KEY_FORMAT),
    KM_NAMED(KM_ERROR_UNSUPPORTED_KEY_ENCRYPTION_ALGORITHM),
    KM_NAMED(KM_ERROR_UNSUPPORTED_KEY_VERIFICATION_ALGORITHM),
    KM_NAMED(KM_ERROR_INVALID_INPUT_LENGTH),
    KM_NAMED(KM_ERROR_KEY_EXPORT_OPTIONS_INVALID),
    KM_NAMED(KM_ERROR_DELEGATION_NOT_ALLOWED),
    KM_NAMED(KM_ERROR_KEY_NOT_YET_VALID),
    KM_NAMED(KM_ERROR_KEY_EXPIRED),
    KM_NAMED(KM_ERROR_KEY_USER_NOT_AUTHENTICATED),
    KM_NAMED(KM_ERROR_OUTPUT_PARAMETER_NULL),
    KM_NAMED(KM_ERROR_INVALID_OPERATION_HANDLE),
    KM_NAMED(KM_ERROR_INSUFFICIENT_BUFFER_SPACE),
    KM_NAMED(KM_ERROR_VERIFICATION_FAILED),
    KM_NAMED(KM_ERROR_TOO_MANY_OPERATIONS),
    KM_NAMED(KM_ERROR_UNEXPECTED_NULL_POINTER),
    KM_NAMED(KM_ERROR_INVALID_KEY_BLOB),
    KM_NAMED(KM_ERROR_IMPORTED_KEY_NOT_ENCRYPTED),
    KM_NAMED(KM_ERROR_IMPORTED_KEY_DECRYPTION_FAILED),
    KM_NAMED(KM_ERROR_IMPORTED_KEY_NOT_SIGNED),
    KM_NAMED(KM_ERROR_IMPORTED_KEY_VERIFICATION_FAILED),
    KM_NAMED(KM_ERROR_INVALID_ARGUMENT),
    KM_NAMED(KM_ERROR_UNSUPPORTED_TAG),
    KM_NAMED(KM_ERROR_INVALID_TAG),
    KM_NAMED(KM_ERROR_MEMORY_ALLOCATION_FAILED),
    KM_NAMED(KM_ERROR_INVALID_RESCOPING),
    KM_NAMED(KM_ERROR_IMPORT_PARAMETER_MISMATCH),
    KM_NAMED(KM_ERROR_SECURE_HW_ACCESS_DENIED),
    KM_NAMED(KM_ERROR_OPERATION_CANCELLED),
    KM_NAMED(KM_ERROR_CONCURRENT_ACCESS_CONFLICT),
    KM_NAMED(KM_ERROR_SECURE_HW_BUSY),
    KM_NAMED(KM_ERROR_SECURE_HW_COMMUNICATION_FAILED),
    KM_NAMED(KM_ERROR_UNSUPPORTED_EC_FIELD),
    KM_NAMED(KM_ERROR_MISSING_NONCE),
    KM_NAMED(KM_ERROR_INVALID_NONCE),
    KM_NAMED(KM_ERROR_MISSING_MAC_LENGTH),
    KM_NAMED(KM_ERROR_KEY_RATE_LIMIT_EXCEEDED),
    KM_NAMED(KM_ERROR_CALLER_NONCE_PROHIBITED),
    KM_NAMED(KM_ERROR_KEY_MAX_OPS_EXCEEDED),
    KM_NAMED(KM_ERROR_INVALID_MAC_LENGTH),
    KM_NAMED(KM_ERROR_MISSING_MIN_MAC_LENGTH),
    KM_NAMED(KM_ERROR_UNSUPPORTED_MIN_MAC_LENGTH),
    KM_NAMED(KM_ERROR_UNSUPPORTED_KDF),
    KM_NAMED(KM_ERROR_UNSUPPORTED_EC_CURVE),
    KM_NAMED(KM_ERROR_KEY_REQUIRES_UPGRADE),
    KM_NAMED(KM_ERROR_ATTESTATION_CHALLENGE_MISSING),
    KM_NAMED(KM_ERROR_KEYMASTER_NOT_CONFIGURED),
    KM_NAMED(KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING),
    KM_NAMED(KM_ERROR_CANNOT_ATTEST_IDS),
    KM_NAMED(KM_ERROR_ROLLBACK_RESISTANCE_UNAVAILABLE),
    KM_NAMED(KM_ERROR_HARDWARE_TYPE_UNAVAILABLE),
    KM_NAMED(KM_ERROR_PROOF_OF_PRESENCE_REQUIRED),
    KM_NAMED(KM_ERROR_CONCURRENT_PROOF_OF_PRESENCE_REQUESTED),
    KM_NAMED(KM_ERROR_NO_USER_CONFIRMATION),
    KM_NAMED(KM_ERROR_DEVICE_LOCKED),
    KM_NAMED(KM_ERROR_EARLY_BOOT_ENDED),
    KM_NAMED(KM_ERROR_ATTESTATION_KEYS_NOT_PROVISIONED),
    KM_NAMED(KM_ERROR_ATTESTATION_IDS_NOT_PROVISIONED),
    KM_NAMED(KM_ERROR_INVALID_OPERATION),
    KM_NAMED(KM_ERROR_STORAGE_KEY_UNSUPPORTED),
    KM_NAMED(KM_ERROR_UNIMPLEMENTED),
    KM_NAMED(KM_ERROR_VERSION_MISMATCH),
    KM_NAMED(KM_ERROR_UNKNOWN_ERROR),
    {0xFFFF0000u, "TEEC_ERROR_GENERIC"},
    {0xFFFF0001u, "TEEC_ERROR_ACCESS_DENIED"},
    {0xFFFF0002u, "TEEC_ERROR_CANCEL"},
    {0xFFFF0003u, "TEEC_ERROR_ACCESS_CONFLICT"},
    {0xFFFF0004u, "TEEC_ERROR_EXCESS_DATA"},
    {0xFFFF0005u, "TEEC_ERROR_BAD_FORMAT"},
    {0xFFFF0006u, "TEEC_ERROR_BAD_PARAMETERS"},
    {0xFFFF0007u, "TEEC_ERROR_BAD_STATE"},
    {0xFFFF0008u, "TEEC_ERROR_ITEM_NOT_FOUND"},
    {0xFFFF0009u, "TEEC_ERROR_NOT_IMPLEMENTED"},
    {0xFFFF000Au, "TEEC_ERROR_NOT_SUPPORTED"},
    {0xFFFF000Bu, "TEEC_ERROR_NO_DATA"},
    {0xFFFF000Cu, "TEEC_ERROR_OUT_OF_MEMORY"},
    {0xFFFF000Du, "TEEC_ERROR_BUSY"},
    {0xFFFF000Eu, "TEEC_ERROR_COMMUNICATION"},
    {0xFFFF000Fu, "TEEC_ERROR_SECURITY"},
    {0xFFFF0010u, "TEEC_ERROR_SHORT_BUFFER"},
    {0xFFFF0011u, "TEEC_ERROR_EXTERNAL_CANCEL"},
    {0xFFFF3024u, "TEEC_ERROR_TARGET_DEAD"},
};

struct Hint {
  uint32_t code;
  const char* text;
};

constexpr uint32_t Code(keymaster_error_t error) { return static_cast<uint32_t>(error); }

constexpr uint32_t kGeneric = 0xFFFF0000u;
constexpr uint32_t kItemNotFound = 0xFFFF0008u;
constexpr uint32_t kCommunication = 0xFFFF000Eu;
constexpr uint32_t kTargetDead = 0xFFFF3024u;

constexpr Hint kHints[] = {
    {Code(KM_ERROR_INVALID_KEY_BLOB),
     "the key file is damaged, was made under another --state folder, was deleted, is of a "
     "later system version, or needs the --app-id and --app-data that it was made with"},
    {Code(KM_ERROR_KEY_REQUIRES_UPGRADE),
     "the system is newer than the key; run: keymasterctl upgrade --key FILE"},
    {Code(KM_ERROR_KEYMASTER_NOT_CONFIGURED), "run: keymasterctl configure"},
    {Code(KM_ERROR_TOO_MANY_OPERATIONS), "wait until another operation has ended, and try again"},
    {Code(KM_ERROR_KEY_MAX_OPS_EXCEEDED), "the key's uses are spent until the next boot"},
    {Code(KM_ERROR_KEY_RATE_LIMIT_EXCEEDED),
     "wait: keymasterctl characteristics --key FILE shows min-seconds-between-ops"},
    {Code(KM_ERROR_CANNOT_ATTEST_IDS),
     "an --param attestation-id-... is not this device's: leave it out"},
    {Code(KM_ERROR_KEY_USER_NOT_AUTHENTICATED),
     "the key needs its user: give --auth-token FILE (from keymasterctl auth-token) or --auth-sid"},
    {Code(KM_ERROR_UNSUPPORTED_PURPOSE), "the key's algorithm has no such use"},
    {Code(KM_ERROR_INCOMPATIBLE_PURPOSE),
     "the key was not made for this use; keymasterctl characteristics --key FILE shows its "
     "purposes"},
    {Code(KM_ERROR_INCOMPATIBLE_DIGEST),
     "the key does not allow this digest; keymasterctl characteristics --key FILE lists those it "
     "does"},
    {Code(KM_ERROR_INCOMPATIBLE_PADDING_MODE),
     "the key does not allow this padding; keymasterctl characteristics --key FILE lists those it "
     "does"},
    {Code(KM_ERROR_INCOMPATIBLE_BLOCK_MODE),
     "the key does not allow this mode; keymasterctl characteristics --key FILE lists those it "
     "does"},
    {Code(KM_ERROR_CALLER_NONCE_PROHIBITED),
     "leave --nonce out, or make the key with --caller-nonce"},
    {Code(KM_ERROR_DEVICE_LOCKED),
     "the device is locked: unlock it with --auth-token FILE, made after the lock"},
    {Code(KM_ERROR_EARLY_BOOT_ENDED),
     "the key works until early-boot-ended, and again after a boot"},
    {Code(KM_ERROR_VERIFICATION_FAILED),
     "the data, the signature or tag, or the key is not the one it was made with"},
    {Code(KM_ERROR_INVALID_INPUT_LENGTH),
     "the input does not fit: a raw RSA or unpadded block input must have its exact length, a "
     "padded RSA input is shorter than the key, a ciphertext must be whole, a challenge has at "
     "most "
     "128 bytes"},
    {Code(KM_ERROR_UNSUPPORTED_KEY_SIZE), "choose another --size or --curve"},
    {Code(KM_ERROR_UNSUPPORTED_KEY_FORMAT), "give an unencrypted RSA or EC private key (PKCS#8)"},
    {Code(KM_ERROR_IMPORT_PARAMETER_MISMATCH),
     "--size, --curve or --exponent differ from the key's own: leave them out"},
    {Code(KM_ERROR_ROLLBACK_RESISTANCE_UNAVAILABLE), "leave --rollback-resistant out"},
    {Code(KM_ERROR_INVALID_MAC_LENGTH),
     "a MAC or tag, in whole bytes, has from the key's min-mac-length to the digest's length or "
     "128 "
     "bits"},
    {Code(KM_ERROR_INVALID_ARGUMENT), "a value does not fit; --verbose may show which"},
    {Code(KM_ERROR_UNKNOWN_ERROR), "--verbose may show more"},
    {Code(KM_ERROR_KEY_EXPIRED), "the key's validity is over"},
    {Code(KM_ERROR_KEY_NOT_YET_VALID), "the key's validity has not begun"},
    {Code(KM_ERROR_INCOMPATIBLE_ALGORITHM),
     "the key's algorithm cannot do this; keymasterctl characteristics --key FILE shows it"},
    {0xFFFF0010u,
     "a reply of the TA is limited to 4096 bytes: the key has too many or too long parameters"},
    {kGeneric, "keymasterctl doctor tells what is wrong with the set-up"},
    {kItemNotFound, "the TEE has no keymaster TA; keymasterctl doctor tells more"},
    {0xFFFF000Du, "the TEE takes no further session now: try again"},
    {kCommunication, "the TEE does not answer; keymasterctl doctor tells more"},
    {kTargetDead, "the TA died; try again: a new one starts. --trace shows its last command"},
};

bool IsTeeCode(uint32_t code) { return code >= 0xFFFF0000u && code < 0xFFFFF000u; }

std::string HintFor(uint32_t code, const std::string& key) {
  for (const Hint& hint : kHints) {
    if (hint.code != code) continue;
    std::string text = hint.text;
    const std::string place = "--key FILE";
    const size_t at = text.find(place);
    return at == std::string::npos ? text : text.replace(at, place.size(), "--key " + key);
  }
  return "";
}

int StatusOf(uint32_t code) {
  const bool lost = code == kItemNotFound || code == kCommunication || code == kTargetDead;
  return lost ? kExitNoTa : kExitFailed;
}

ResultFailure Refused(const char* what, int32_t result, const std::string& key, int status) {
  return ResultFailure(std::string(what) + " failed: " + ResultText(result), result,
                       HintFor(static_cast<uint32_t>(result), key), status);
}

}  // namespace

std::string ResultText(int32_t result) {
  const uint32_t code = static_cast<uint32_t>(result);
  const bool is_tee = IsTeeCode(code);
  char number[16];
  if (is_tee) {
    snprintf(number, sizeof(number), "0x%08X", code);
  } else {
    snprintf(number, sizeof(number), "%d", result);
  }
  for (const Named& entry : kNames) {
    if (entry.code == code) return std::string(entry.name) + " (" + number + ")";
  }
  return std::string(is_tee ? "TEE result " : "result ") + number;
}

void Check(const char* what, int32_t result, const std::string& key) {
  if (result != 0) throw Refused(what, result, key, StatusOf(static_cast<uint32_t>(result)));
}

void CheckConnected(const char* what, int32_t result) {
  const int status = IsTeeCode(static_cast<uint32_t>(result)) ? kExitNoTa : kExitFailed;
  if (result != 0) throw Refused(what, result, "FILE", status);
}

Failure SystemFailure(const std::string& what, const std::string& path) {
  return Failure(what + " " + path + ": " + strerror(errno));
}

void Tell(const Failure& failure) {
  const auto* refused = dynamic_cast<const ResultFailure*>(&failure);
  if (dynamic_cast<const ToldFailure*>(&failure) != nullptr) return;
  if (Style().json) {
    Report report;
    report.Text("error", failure.what()).Row("status", failure.status());
    if (refused != nullptr) {
      report.Row("result", refused->result());
      const std::string name = ResultText(refused->result());
      report.Text("name", name.substr(0, name.find(" (")));
      if (!refused->hint().empty()) report.Text("hint", refused->hint());
    }
    report.Print();
    return;
  }
  fprintf(stderr, "%s %s\n", Paint(stderr, Color::kRed, "keymasterctl:").c_str(), failure.what());
  if (refused != nullptr && !refused->hint().empty()) {
    fprintf(stderr, "  %s\n", refused->hint().c_str());
  }
}
