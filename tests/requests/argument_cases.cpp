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

void EmptyParams(Args* a) { a->params = fixture().none.get(); }

template <keymaster_key_format_t kFormat>
void As(Args* a) {
  a->format = kFormat;
}

// What is missing last shows in which order the arguments are looked at.
template <auto... kSets>
void All(Args* a) {
  (kSets(a), ...);
}

template <size_t kLength>
void MaskOf(Args* a) {
  static const keymaster_key_blob_t mask = {fixture().mask.data(), kLength};
  a->mask = &mask;
}

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
    {"Configure", "no set", kNullPointer, No<&Args::params>},
    {"Configure", "a set without its array", kNullPointer, Hollow<&Args::params>},
    {"Configure", "an empty set", kInvalid, EmptyParams},
    {"Configure", "no patch level", kInvalid, nullptr, {{KM_TAG_OS_VERSION, 130000}}},
    {"Configure", "no version", kInvalid, nullptr, {{KM_TAG_OS_PATCHLEVEL, 202211}}},

    {"GenerateEc", "neither set nor key blob", kNullPointer, No<&Args::params, &Args::key_blob>},
    {"GenerateEc", "a set without its array", kNullPointer, Hollow<&Args::params>},
    {"GenerateEc", "no array and no key blob", kNullOutput,
     All<Hollow<&Args::params>, No<&Args::key_blob>>},
    {"GenerateRsa", "no key blob", kNullOutput, No<&Args::key_blob>},
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

    {"ImportRaw", "neither set nor key blob", kNullPointer, No<&Args::params, &Args::key_blob>},
    {"ImportRaw", "neither key nor key blob", kNullPointer, No<&Args::input, &Args::key_blob>},
    {"ImportRaw", "no array and no key blob", kNullOutput,
     All<Hollow<&Args::params>, No<&Args::key_blob>>},
    {"ImportRaw", "a set without its array", kMemory, Hollow<&Args::params>},
    {"ImportRaw", "X.509", kBadFormat, As<KM_KEY_FORMAT_X509>},
    {"ImportRaw", "a key without its bytes", kTeeBadParameters, Hollow<&Args::input>},
    {"ImportEc", "a key without its bytes", kBadFormat, Hollow<&Args::input>},
    {"ImportEc", "no PKCS#8 at all", kBadFormat, InputOf<64>},
    {"ImportEc", "Ed25519", kBadFormat, Ed25519},

    {"ExportRsa", "neither key nor output", kNullPointer, No<&Args::key, &Args::data>},
    {"ExportRsa", "a key without its bytes", kNullPointer, Hollow<&Args::key>},
    {"ExportRsa", "no bytes of a client and no output", kNullOutput,
     All<Hollow<&Args::client_id>, No<&Args::data>>},
    {"ExportRsa", "a client without its bytes", kMemory, Hollow<&Args::client_id>, {}, {kData}},
    {"ExportRsa", "PKCS#8", kBadFormat, As<KM_KEY_FORMAT_PKCS8>, {}, {kData}},
    {"ExportRsa", "raw", kBadFormat, As<KM_KEY_FORMAT_RAW>, {}, {kData}},

    {"GetKeyCharacteristics", "neither key nor output", kNullPointer,
     No<&Args::key, &Args::characteristics>},
    {"GetKeyCharacteristics", "a key without its bytes", kNullPointer, Hollow<&Args::key>},
    {"GetKeyCharacteristics", "no bytes of a client and no output", kNullOutput,
     All<Hollow<&Args::client_id>, No<&Args::characteristics>>},
    {"GetKeyCharacteristics", "a client without its bytes", kMemory, Hollow<&Args::client_id>},

    {"UpgradeKey", "neither key nor output", kNullPointer, No<&Args::key, &Args::key_blob>},
    {"UpgradeKey", "a key without its bytes", kTeeBadParameters, Hollow<&Args::key>},
    {"UpgradeKey", "neither set nor output", kNullPointer, No<&Args::params, &Args::key_blob>},
    {"UpgradeKey", "no array and no output", kNullOutput,
     All<Hollow<&Args::params>, No<&Args::key_blob>>},
    {"UpgradeKey", "a set without its array", kMemory, Hollow<&Args::params>},

    {"Deletekey", "no key", kUnimplemented, No<&Args::key>},
    {"Deletekey", "a key without its bytes", kUnimplemented, Hollow<&Args::key>},

    {"AttestKey", "no key", kNullPointer, No<&Args::key>},
    {"AttestKey", "a key without its bytes", kTeeBadParameters, Hollow<&Args::key>},
    {"AttestKey", "no set", kNullPointer, No<&Args::params>},
    {"AttestKey", "a set without its array", kNullPointer, Hollow<&Args::params>},
    {"AttestKey", "no output", kNullPointer, No<&Args::chain>},
    {"AttestKey", "device-unique attestation, even if false", kUnimplemented, nullptr,
     {{KM_TAG_OS_VERSION, 1}, {KM_TAG_DEVICE_UNIQUE_ATTESTATION, 0}}},

    {"Begin", "neither key nor handle", kNullPointer, No<&Args::key, &Args::number>},
    {"Begin", "no bytes of a key and no handle", kNullPointer,
     All<Hollow<&Args::key>, No<&Args::number>>},
    {"Begin", "a set without its array", kMemory, Hollow<&Args::params>, {}, {kParams}},
    {"Begin", "no handle", kMemory, No<&Args::number>},

    {"Update", "nowhere to count", kNullOutput, No<&Args::number>},
    {"Update", "a length near 2^32", kNullPointer, InputOf<0xFFFFFFF0>},
    {"Update", "a length of 2^32", kBadLength, InputOf<0x100000000>},
    {"UpdateAssociatedData", "no set", kNullPointer, No<&Args::params>},
    {"UpdateAssociatedData", "an empty set", kNullPointer, EmptyParams},
    {"UpdateAssociatedData", "a set without its array", kNullPointer, Hollow<&Args::params>},
    {"UpdateAssociatedData", "no such data", kNullPointer, nullptr, {{KM_TAG_KEY_SIZE, 1}}},

    {"Finish", "4096 bytes", 0, InputOf<4096>, {}, {}, 1},
    {"Finish", "4097 bytes", kBadLength, InputOf<4097>, {}, {kParams}},
    {"FinishNew", "4032 bytes", 0, InputOf<4032>, {}, {}, 1},
    {"FinishNew", "4033 bytes", 0, InputOf<4033>, {}, {}, 2},
    {"FinishLarge", "no input", kNullPointer, No<&Args::input>, {}, {kParams, kData}},
    {"FinishLarge", "an input without its bytes", kNullPointer, Hollow<&Args::input>, {}, {kParams,
     kData}},
    {"FinishLarge", "4032 bytes", kBadLength, InputOf<4032>, {}, {kParams, kData}},
    {"FinishLarge", "no output", kNullPointer, No<&Args::data>, {}, {kParams}, 2},

    {"VerifyAuthorization", "no set", kNullPointer, No<&Args::params>, {}, {kParams}},
    {"VerifyAuthorization", "no auth token", kNullPointer, No<&Args::input>, {}, {kParams}},
    {"VerifyAuthorization", "no token", kNullPointer, No<&Args::token>, {}, {kParams}},
    {"VerifyAuthorization", "an auth token without its bytes", kMemory, Hollow<&Args::input>, {},
     {kParams}},
    {"GetHmacSharingParameters", "no first buffer", kTeeBadParameters, No<&Args::hmac1>},
    {"GetHmacSharingParameters", "no second buffer", kTeeBadParameters, No<&Args::hmac2>},
    {"ComputeSharedHmac", "no parameters", kNullPointer, No<&Args::sharing_params>},
    {"ComputeSharedHmac", "no output", kNullPointer, No<&Args::data>},

    {"ImportWrappedKey", "no wrapper", kNullPointer, No<&Args::wrapped>},
    {"ImportWrappedKey", "no bytes of a wrapper and no key blob", kNullPointer,
     All<Hollow<&Args::wrapped>, No<&Args::key_blob>>},
    {"ImportWrappedKey", "no wrapping key", kNullPointer, No<&Args::key>},
    {"ImportWrappedKey", "no mask", kNullPointer, No<&Args::mask>},
    {"ImportWrappedKey", "no key blob and no set", kNullOutput,
     No<&Args::unwrapping_params, &Args::key_blob>},
    {"ImportWrappedKey", "no unwrapping set", kNullPointer, No<&Args::unwrapping_params>, {}, {},
     1},
    {"ImportWrappedKey", "a mask of 31 bytes", kInvalid, MaskOf<31>, {}, {}, 3},

    {"UnwrappedKey", "no wrapper", kNullPointer, No<&Args::wrapped>},
    {"UnwrappedKey", "no output", kNullPointer, No<&Args::data>},
    {"UnwrappedKey", "no wrapping key", kNullPointer, No<&Args::key>},
    {"UnwrappedKey", "no mask", kNullPointer, No<&Args::mask>, {}, {}, 3},
    {"UnwrappedKey", "a mask without its bytes", kNullPointer, Hollow<&Args::mask>, {}, {}, 3},
    {"UnwrappedKey", "neither material nor tag", kBadLength, Wrapped<0, 0>, {}, {}, 3},
    {"UnwrappedKey", "no material", 0, Wrapped<0, 16>, {}, {}, 6},
    {"UnwrappedKey", "one byte of material", 0, Wrapped<1, 0>, {}, {}, 6},
    {"UnwrappedKey", "one byte of tag", 0, Wrapped<0, 1>, {}, {}, 6},

    {"DecryptTransitKeyMaterial", "no set", kNullPointer, No<&Args::unwrapping_params>, {},
     {kData}},
    {"DecryptTransitKeyMaterial", "no encrypted key", kNullPointer, No<&Args::wrapped>, {},
     {kData}},
    {"DecryptTransitKeyMaterial", "no output", kNullPointer, No<&Args::data>},
    {"TransitKeyRsaDecrypt", "no wrapping key", kNullPointer, No<&Args::key>},
    {"TransitKeyRsaDecrypt", "no encrypted key", kNullPointer, No<&Args::wrapped>},
    {"TransitKeyRsaDecrypt", "no output", kNullPointer, No<&Args::data>},
    {"TransitKeyRsaDecrypt", "over 4096 bytes", kBadLength, Wrapped<4096, 0>, {}, {}, 1},
    {"WrappedKeyAesGcmDecrypt", "no transit key", kNullPointer, No<&Args::input>},
    {"WrappedKeyAesGcmDecrypt", "no IV", kNullPointer, No<&Args::iv>},
    {"WrappedKeyAesGcmDecrypt", "no description", kNullPointer, No<&Args::description>},
    {"WrappedKeyAesGcmDecrypt", "no payload", kNullPointer, No<&Args::wrapped>},
    {"WrappedKeyAesGcmDecrypt", "no output", kNullPointer, No<&Args::data>},
    {"WrappedKeyAesGcmDecrypt", "over 4096 bytes", kBadLength, Wrapped<4096, 0>, {}, {}, 2},
};
// clang-format on

}  // namespace

const std::vector<ArgumentCase>& ArgumentCases() { return kCases; }

}  // namespace test
