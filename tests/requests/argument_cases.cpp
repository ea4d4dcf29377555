// The arguments that each method does not accept, and those at the edge of what it does. Unless
// said otherwise a failure sends nothing and touches no output.
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

constexpr int32_t kNullPointer = KM_ERROR_UNEXPECTED_NULL_POINTER,
                  kNullOutput = KM_ERROR_OUTPUT_PARAMETER_NULL,
                  kInvalid = KM_ERROR_INVALID_ARGUMENT, kBadSize = KM_ERROR_UNSUPPORTED_KEY_SIZE,
                  kBadFormat = KM_ERROR_UNSUPPORTED_KEY_FORMAT,
                  kBadLength = KM_ERROR_INVALID_INPUT_LENGTH,
                  kMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED,
                  kUnimplemented = KM_ERROR_UNIMPLEMENTED,
                  kTeeBadParameters = static_cast<int32_t>(0xFFFF0006);

// Blobs and sets that say they hold something and do not.
constexpr keymaster_key_blob_t kHollowKey = {nullptr, 32};
constexpr keymaster_blob_t kHollowBlob = {nullptr, 32};
constexpr keymaster_key_param_set_t kHollowSet = {nullptr, 1}, kEmptySet = {nullptr, 0};

void NoParams(Args* a) { a->params = nullptr; }
void HollowParams(Args* a) { a->params = &kHollowSet; }
void EmptyParams(Args* a) { a->params = &kEmptySet; }
void NoKey(Args* a) { a->key = nullptr; }
void HollowKey(Args* a) { a->key = &kHollowKey; }
void NoMask(Args* a) { a->mask = nullptr; }
void NoWrapped(Args* a) { a->wrapped = nullptr; }
void NoUnwrappingParams(Args* a) { a->unwrapping_params = nullptr; }
void NoInput(Args* a) { a->input = nullptr; }
void HollowInput(Args* a) { a->input = &kHollowBlob; }
void NoKeyBlob(Args* a) { a->key_blob = nullptr; }
void NoCharacteristics(Args* a) { a->characteristics = nullptr; }
void NoData(Args* a) { a->data = nullptr; }
void NoNumber(Args* a) { a->number = nullptr; }
void NoChain(Args* a) { a->chain = nullptr; }
void NoToken(Args* a) { a->token = nullptr; }
void NoHmac1(Args* a) { a->hmac1 = nullptr; }
void NoHmac2(Args* a) { a->hmac2 = nullptr; }
void NoSharingParams(Args* a) { a->sharing_params = nullptr; }
void HollowWrapped(Args* a) { a->wrapped = &kHollowKey; }
void NoIv(Args* a) { a->iv = nullptr; }
void NoDescription(Args* a) { a->description = nullptr; }
void AsPkcs8(Args* a) { a->format = KM_KEY_FORMAT_PKCS8; }
void AsX509(Args* a) { a->format = KM_KEY_FORMAT_X509; }
void AsRaw(Args* a) { a->format = KM_KEY_FORMAT_RAW; }

void HollowClient(Args* a) { a->client_id = &kHollowBlob; }

// What is missing last shows in which order the arguments are looked at.
template <auto... kSets>
void All(Args* a) {
  (kSets(a), ...);
}

template <size_t kLength>
void InputOf(Args* a) {
  static const keymaster_blob_t input = {fixture().long_input.data(), kLength};
  a->input = &input;
}

// Says it is longer than it is: refused before it is read.
template <size_t kLength>
void ClaimedInput(Args* a) {
  static const keymaster_blob_t input = {fixture().input.data(), kLength};
  a->input = &input;
}

template <size_t kLength>
void MaskOf(Args* a) {
  static const keymaster_key_blob_t mask = {fixture().mask.data(), kLength};
  a->mask = &mask;
}

void HollowMask(Args* a) { a->mask = &kHollowKey; }

// An Ed25519 key, which no import takes.
void Ed25519(Args* a) {
  static const Fenced key(
      Cat({{0x30, 0x2E, 2, 1, 0, 0x30, 5, 6, 3, 0x2B, 0x65, 0x70, 4, 0x22, 4, 0x20}, Ramp(1, 32)}));
  a->input = &key.blob;
}

template <size_t kMaterial, size_t kTag>
void Wrapped(Args* a) {
  static const Fenced bytes([] {
    Wrapper wrapper;
    wrapper.material = Ramp(77, kMaterial);
    wrapper.tag = Ramp(3, kTag);
    return wrapper.Encode();
  }());
  a->wrapped = &bytes.key;
}

Params RsaOf(uint64_t bits, uint64_t exponent) {
  return {{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
          {KM_TAG_KEY_SIZE, bits},
          {KM_TAG_RSA_PUBLIC_EXPONENT, exponent}};
}

// clang-format off
const std::vector<ArgumentCase> kCases = {
    {"Configure", "no set", kNullPointer, NoParams},
    {"Configure", "a set without its array", kNullPointer, HollowParams},
    {"Configure", "an empty set", kInvalid, EmptyParams},
    {"Configure", "no patch level", kInvalid, nullptr, {{KM_TAG_OS_VERSION, 130000}}},
    {"Configure", "no version", kInvalid, nullptr, {{KM_TAG_OS_PATCHLEVEL, 202211}}},

    {"GenerateEc", "neither set nor key blob", kNullPointer, All<NoParams, NoKeyBlob>},
    {"GenerateEc", "a set without its array", kNullPointer, HollowParams},
    {"GenerateEc", "no array and no key blob", kNullOutput, All<HollowParams, NoKeyBlob>},
    {"GenerateRsa", "no key blob", kNullOutput, NoKeyBlob},
    {"GenerateRsa", "no exponent and no size", kInvalid, nullptr, {{KM_TAG_ALGORITHM, 1}}},
    {"GenerateRsa", "an exponent of 33 bits", kInvalid, nullptr, RsaOf(512, 1ull << 32)},
    {"GenerateRsa", "an exponent of 32 bits", 0, nullptr, RsaOf(512, 0xFFFFFFFF), {}, 1},
    {"GenerateRsa", "no size", kBadSize, nullptr,
     {{KM_TAG_ALGORITHM, 1}, {KM_TAG_RSA_PUBLIC_EXPONENT, 3}}},
    {"GenerateRsa", "8 bits", kBadSize, nullptr, RsaOf(8, 3)},
    {"GenerateRsa", "4104 bits", kBadSize, nullptr, RsaOf(4104, 3)},
    {"GenerateRsa", "2050 bits", kBadSize, nullptr, RsaOf(2050, 3)},
    {"GenerateRsa", "an exponent of 1", KM_ERROR_UNKNOWN_ERROR, nullptr, RsaOf(512, 1)},
    {"GenerateRsa", "an even exponent", KM_ERROR_UNKNOWN_ERROR, nullptr, RsaOf(512, 4)},
    {"GenerateRsa", "the largest size", KM_ERROR_UNKNOWN_ERROR, nullptr, RsaOf(4096, 4)},

    {"ImportRaw", "neither set nor key blob", kNullPointer, All<NoParams, NoKeyBlob>},
    {"ImportRaw", "neither key nor key blob", kNullPointer, All<NoInput, NoKeyBlob>},
    {"ImportRaw", "no array and no key blob", kNullOutput, All<HollowParams, NoKeyBlob>},
    {"ImportRaw", "a set without its array", kMemory, HollowParams},
    {"ImportRaw", "X.509", kBadFormat, AsX509},
    {"ImportRaw", "a key without its bytes", kTeeBadParameters, HollowInput},
    {"ImportEc", "a key without its bytes", kBadFormat, HollowInput},
    {"ImportEc", "no PKCS#8 at all", kBadFormat, InputOf<64>},
    {"ImportEc", "Ed25519", kBadFormat, Ed25519},

    {"ExportRsa", "neither key nor output", kNullPointer, All<NoKey, NoData>},
    {"ExportRsa", "a key without its bytes", kNullPointer, HollowKey},
    {"ExportRsa", "no bytes of a client and no output", kNullOutput, All<HollowClient, NoData>},
    {"ExportRsa", "a client without its bytes", kMemory, HollowClient, {}, {kData}},
    {"ExportRsa", "PKCS#8", kBadFormat, AsPkcs8, {}, {kData}},
    {"ExportRsa", "raw", kBadFormat, AsRaw, {}, {kData}},

    {"GetKeyCharacteristics", "neither key nor output", kNullPointer, All<NoKey, NoCharacteristics>},
    {"GetKeyCharacteristics", "a key without its bytes", kNullPointer, HollowKey},
    {"GetKeyCharacteristics", "no bytes of a client and no output", kNullOutput,
     All<HollowClient, NoCharacteristics>},
    {"GetKeyCharacteristics", "a client without its bytes", kMemory, HollowClient},

    {"UpgradeKey", "neither key nor output", kNullPointer, All<NoKey, NoKeyBlob>},
    {"UpgradeKey", "a key without its bytes", kTeeBadParameters, HollowKey},
    {"UpgradeKey", "neither set nor output", kNullPointer, All<NoParams, NoKeyBlob>},
    {"UpgradeKey", "no array and no output", kNullOutput, All<HollowParams, NoKeyBlob>},
    {"UpgradeKey", "a set without its array", kMemory, HollowParams},

    {"Deletekey", "no key", kUnimplemented, NoKey},
    {"Deletekey", "a key without its bytes", kUnimplemented, HollowKey},

    {"AttestKey", "no key", kNullPointer, NoKey},
    {"AttestKey", "a key without its bytes", kTeeBadParameters, HollowKey},
    {"AttestKey", "no set", kNullPointer, NoParams},
    {"AttestKey", "a set without its array", kNullPointer, HollowParams},
    {"AttestKey", "no output", kNullPointer, NoChain},
    {"AttestKey", "device-unique attestation, even if false", kUnimplemented, nullptr,
     {{KM_TAG_OS_VERSION, 1}, {KM_TAG_DEVICE_UNIQUE_ATTESTATION, 0}}},

    {"Begin", "neither key nor handle", kNullPointer, All<NoKey, NoNumber>},
    {"Begin", "no bytes of a key and no handle", kNullPointer, All<HollowKey, NoNumber>},
    {"Begin", "a set without its array", kMemory, HollowParams, {}, {kParams}},
    {"Begin", "no handle", kMemory, NoNumber},

    {"Update", "nowhere to count", kNullOutput, NoNumber},
    {"Update", "a length near 2^32", kNullPointer, ClaimedInput<0xFFFFFFF0>},
    {"Update", "a length of 2^32", kBadLength, ClaimedInput<0x100000000>},
    {"UpdateAssociatedData", "no set", kNullPointer, NoParams},
    {"UpdateAssociatedData", "an empty set", kNullPointer, EmptyParams},
    {"UpdateAssociatedData", "a set without its array", kNullPointer, HollowParams},
    {"UpdateAssociatedData", "no such data", kNullPointer, nullptr, {{KM_TAG_KEY_SIZE, 1}}},

    {"Finish", "4096 bytes", 0, InputOf<4096>, {}, {}, 1},
    {"Finish", "4097 bytes", kBadLength, InputOf<4097>, {}, {kParams}},
    {"FinishNew", "4032 bytes", 0, InputOf<4032>, {}, {}, 1},
    {"FinishNew", "4033 bytes", 0, InputOf<4033>, {}, {}, 2},
    {"FinishLarge", "no input", kNullPointer, NoInput, {}, {kParams, kData}},
    {"FinishLarge", "an input without its bytes", kNullPointer, HollowInput, {}, {kParams, kData}},
    {"FinishLarge", "4032 bytes", kBadLength, InputOf<4032>, {}, {kParams, kData}},
    {"FinishLarge", "no output", kNullPointer, NoData, {}, {kParams}, 2},

    {"VerifyAuthorization", "no set", kNullPointer, NoParams, {}, {kParams}},
    {"VerifyAuthorization", "no auth token", kNullPointer, NoInput, {}, {kParams}},
    {"VerifyAuthorization", "no token", kNullPointer, NoToken, {}, {kParams}},
    {"VerifyAuthorization", "an auth token without its bytes", kMemory, HollowInput, {}, {kParams}},
    {"GetHmacSharingParameters", "no first buffer", kTeeBadParameters, NoHmac1},
    {"GetHmacSharingParameters", "no second buffer", kTeeBadParameters, NoHmac2},
    {"ComputeSharedHmac", "no parameters", kNullPointer, NoSharingParams},
    {"ComputeSharedHmac", "no output", kNullPointer, NoData},

    {"ImportWrappedKey", "no wrapper", kNullPointer, NoWrapped},
    {"ImportWrappedKey", "no bytes of a wrapper and no key blob", kNullPointer,
     All<HollowWrapped, NoKeyBlob>},
    {"ImportWrappedKey", "no wrapping key", kNullPointer, NoKey},
    {"ImportWrappedKey", "no mask", kNullPointer, NoMask},
    {"ImportWrappedKey", "no key blob and no set", kNullOutput, All<NoUnwrappingParams, NoKeyBlob>},
    {"ImportWrappedKey", "no unwrapping set", kNullPointer, NoUnwrappingParams, {}, {}, 1},
    {"ImportWrappedKey", "a mask of 31 bytes", kInvalid, MaskOf<31>, {}, {}, 3},

    {"UnwrappedKey", "no wrapper", kNullPointer, NoWrapped},
    {"UnwrappedKey", "no output", kNullPointer, NoData},
    {"UnwrappedKey", "no wrapping key", kNullPointer, NoKey},
    {"UnwrappedKey", "no mask", kNullPointer, NoMask, {}, {}, 3},
    {"UnwrappedKey", "a mask without its bytes", kNullPointer, HollowMask, {}, {}, 3},
    {"UnwrappedKey", "neither material nor tag", kBadLength, Wrapped<0, 0>, {}, {}, 3},
    {"UnwrappedKey", "no material", 0, Wrapped<0, 16>, {}, {}, 6},
    {"UnwrappedKey", "one byte of material", 0, Wrapped<1, 0>, {}, {}, 6},
    {"UnwrappedKey", "one byte of tag", 0, Wrapped<0, 1>, {}, {}, 6},

    {"DecryptTransitKeyMaterial", "no set", kNullPointer, NoUnwrappingParams, {}, {kData}},
    {"DecryptTransitKeyMaterial", "no encrypted key", kNullPointer, NoWrapped, {}, {kData}},
    {"DecryptTransitKeyMaterial", "no output", kNullPointer, NoData},
    {"TransitKeyRsaDecrypt", "no wrapping key", kNullPointer, NoKey},
    {"TransitKeyRsaDecrypt", "no encrypted key", kNullPointer, NoWrapped},
    {"TransitKeyRsaDecrypt", "no output", kNullPointer, NoData},
    {"WrappedKeyAesGcmDecrypt", "no transit key", kNullPointer, NoInput},
    {"WrappedKeyAesGcmDecrypt", "no IV", kNullPointer, NoIv},
    {"WrappedKeyAesGcmDecrypt", "no description", kNullPointer, NoDescription},
    {"WrappedKeyAesGcmDecrypt", "no payload", kNullPointer, NoWrapped},
    {"WrappedKeyAesGcmDecrypt", "no output", kNullPointer, NoData},
};
// clang-format on

}  // namespace

const std::vector<ArgumentCase>& ArgumentCases() { return kCases; }

}  // namespace test
