// Arguments that a request rejects before the TA hears of it, and in which order it looks at them.
#include "tests/context/request_test.h"

namespace test {
namespace {

constexpr int32_t kNoOutput = KM_ERROR_OUTPUT_PARAMETER_NULL,
                  kBadFormat = KM_ERROR_UNSUPPORTED_KEY_FORMAT,
                  kBadArgument = KM_ERROR_INVALID_ARGUMENT,
                  kBadLength = KM_ERROR_INVALID_INPUT_LENGTH,
                  kUnimplemented = KM_ERROR_UNIMPLEMENTED;

uint8_t g_byte = 0;  // what is never read
constexpr keymaster_blob_t Long(uint64_t length) { return {&g_byte, length}; }
const keymaster_blob_t kWraps = Long(0xFFFFFFF0), kFourGiB = Long(uint64_t{1} << 32),
                       kFinishable = Long(4032), kUnfinishable = Long((uint64_t{1} << 32) + 4032);
const Bytes kZeros(9);
const keymaster_key_blob_t kNotDer = KeyBlob(kZeros);

// Null takes arguments away; Hollow gives them a length without bytes.
template <auto... kArguments>
void Null([[maybe_unused]] Args* args) {
  ((args->*kArguments = nullptr), ...);
}
void Hollow(const keymaster_key_blob_t** key) { *key = &kHollowKey; }
void Hollow(const keymaster_blob_t** blob) { *blob = &kHollowBlob; }
void Hollow(const keymaster_key_param_set_t** set) { *set = &kHollowSet; }
template <auto kArgument, auto... kNull>
void Hollow(Args* args) {
  Hollow(&(args->*kArgument));
  Null<kNull...>(args);
}

struct Row {
  const char* request;
  void (*change)(Args* args);
  int32_t result;
  const char* log = "";  // the last message behind that of the request's start
};

const Row kRows[] = {
    {"Configure", Null<&Args::params>, kNullPointer},
    {"Configure", Hollow<&Args::params>, kNullPointer},
    {"GenerateEc", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"GenerateEc", Hollow<&Args::params, &Args::key_blob>, kNoOutput},
    {"GenerateEc", Hollow<&Args::params>, kNullPointer},
    {"ImportRaw", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"ImportRaw", Null<&Args::input, &Args::key_blob>, kNullPointer},
    {"ImportRaw", Hollow<&Args::params, &Args::key_blob>, kNoOutput, "E [error] : keyBlob is NULL"},
    {"ImportRaw", [](Args* a) { a->params = &kHollowSet, a->format = KM_KEY_FORMAT_X509; },
     kNoMemory, "E [error] : build km params failed"},
    {"ImportRaw", Hollow<&Args::input>, kBadParameters},
    {"ImportRaw", [](Args* a) { a->format = KM_KEY_FORMAT_X509; }, kBadFormat,
     "E wrong key format\n"},
    {"ImportRaw", [](Args* a) { a->format = static_cast<keymaster_key_format_t>(2); }, kBadFormat,
     "E wrong key format\n"},
    {"ImportRsa", Hollow<&Args::input>, kBadFormat},
    {"ExportRsa", Null<&Args::key, &Args::data>, kNullPointer},
    {"ExportRsa", Hollow<&Args::key>, kNullPointer},
    {"ExportRsa", Hollow<&Args::client_id, &Args::data>, kNoOutput},
    {"GetKeyCharacteristics", Null<&Args::key, &Args::characteristics>, kNullPointer},
    {"GetKeyCharacteristics", Hollow<&Args::key>, kNullPointer},
    {"GetKeyCharacteristics", Hollow<&Args::client_id, &Args::characteristics>, kNoOutput},
    {"GetKeyCharacteristics", Hollow<&Args::client_id>, kNoMemory},
    {"UpgradeKey", Null<&Args::key, &Args::key_blob>, kNullPointer},
    {"UpgradeKey", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"UpgradeKey", Hollow<&Args::params, &Args::key_blob>, kNoOutput},
    {"UpgradeKey", Hollow<&Args::params>, kNoMemory},
    {"UpgradeKey", Hollow<&Args::key>, kBadParameters},
    {"Deletekey", Null<&Args::key>, kUnimplemented, "E [error] : NULL pointers.\n"},
    {"Deletekey", Hollow<&Args::key>, kUnimplemented, "E [error] : NULL pointers.\n"},
    {"AttestKey", Null<&Args::key>, kNullPointer},
    {"AttestKey", Null<&Args::params>, kNullPointer},
    {"AttestKey", Hollow<&Args::params>, kNullPointer},
    {"AttestKey", Null<&Args::chain>, kNullPointer},
    {"AttestKey", Hollow<&Args::key>, kBadParameters},
    {"Begin", Null<&Args::key, &Args::number>, kNullPointer},
    {"Begin", Hollow<&Args::key, &Args::number>, kNullPointer},
    {"Begin", Null<&Args::number>, kNoMemory},
    {"Update", Null<&Args::number>, kNoOutput,
     "E [error] : ParamsCheck failed, km_error=0xffffffe5"},
    {"Update", [](Args* a) { a->input = &kWraps; }, kNullPointer,
     "E [error] : ParamsCheck failed, km_error=0xffffffe0"},
    {"Update", [](Args* a) { a->input = &kFourGiB; }, kBadLength,
     "E [error] : ParamsCheck failed, km_error=0xffffffeb"},
    {"UpdateAssociatedData", Null<&Args::params>, kNullPointer, "E [error] : invalid in_params"},
    {"UpdateAssociatedData", Hollow<&Args::params>, kNullPointer,
     "E [error] : invalid inParams->params"},
    {"UpdateAssociatedData", [](Args* a) { a->params = &kEmptySet; }, kNullPointer,
     "E [error] : not contain gcm tag but input is null, km_error=0xffffffe0"},
    {"UpdateAssociatedData", [](Args* a) { a->params = fixture().ec_params.get(); }, kNullPointer,
     "E [error] : not contain gcm tag but input is null, km_error=0xffffffe0"},
    {"FinishLarge", Null<&Args::input>, kNullPointer},
    {"FinishLarge", Hollow<&Args::input>, kNullPointer},
    {"FinishLarge", [](Args* a) { a->input = &kFinishable; }, kBadLength},
    {"FinishNew", [](Args* a) { a->input = &kUnfinishable; }, kBadLength,
     "E KmUpdate failed, ffffffeb\n"},
    {"ImportWrappedKey", Hollow<&Args::wrapped, &Args::key_blob>, kNullPointer,
     "E [error] : params or keyData is NULL"},
    {"ImportWrappedKey", Null<&Args::wrapped>, kNullPointer,
     "E [error] : params or keyData is NULL"},
    {"ImportWrappedKey", Null<&Args::key>, kNullPointer, "E [error] : params or keyData is NULL"},
    {"ImportWrappedKey", Null<&Args::mask>, kNullPointer, "E [error] : params or keyData is NULL"},
    {"ImportWrappedKey", Null<&Args::unwrapping_params, &Args::key_blob>, kNoOutput,
     "E [error] : keyBlob is NULL"},
    {"ImportWrappedKey", [](Args* a) { a->wrapped = &kNotDer; }, kBadArgument,
     "E KmUnwrappedKey failed, ret ffffffda"},
    {"ImportWrappedKey", Hollow<&Args::key>, kNullPointer, "E KmUnwrappedKey failed, ret ffffffe0"},
    {"UnwrappedKey", Null<&Args::wrapped>, kNullPointer},
    {"UnwrappedKey", Null<&Args::data>, kNullPointer},
    {"DecryptTransitKeyMaterial", Null<&Args::unwrapping_params>, kNullPointer},
    {"DecryptTransitKeyMaterial", Null<&Args::wrapped>, kNullPointer},
    {"DecryptTransitKeyMaterial", Null<&Args::data>, kNullPointer},
    {"TransitKeyRsaDecrypt", Null<&Args::wrapped>, kNullPointer},
    {"TransitKeyRsaDecrypt", Null<&Args::data>, kNullPointer},
    {"TransitKeyRsaDecrypt", Null<&Args::key>, kNullPointer,
     "E [error] : KmBegin failed, error ffffffe0"},
    {"WrappedKeyAesGcmDecrypt", Null<&Args::input>, kNullPointer},
    {"WrappedKeyAesGcmDecrypt", Null<&Args::iv>, kNullPointer},
    {"WrappedKeyAesGcmDecrypt", Null<&Args::description>, kNullPointer},
    {"WrappedKeyAesGcmDecrypt", Null<&Args::wrapped>, kNullPointer},
    {"WrappedKeyAesGcmDecrypt", Null<&Args::data>, kNullPointer},
    {"VerifyAuthorization", Null<&Args::params>, kNullPointer},
    {"VerifyAuthorization", Null<&Args::input>, kNullPointer},
    {"VerifyAuthorization", Null<&Args::token>, kNullPointer},
    {"VerifyAuthorization", Hollow<&Args::input>, kNoMemory, "E memcpy_s hwAuthToken failed.\n"},
    {"GetHmacSharingParameters", Null<&Args::hmac1>, kBadParameters},
    {"ComputeSharedHmac", Null<&Args::sharing_params>, kNullPointer},
    {"ComputeSharedHmac", Null<&Args::data>, kNullPointer},
};

using Arguments = RequestTest;

TEST_F(Arguments, AreCheckedInOrderBeforeTheTa) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.request) + ", row " + std::to_string(&row - kRows));
    Renew();
    args = Args(&outputs);
    const Request& request = FindRequest(row.request);
    request.Prepare(&args);
    row.change(&args);
    EXPECT_EQ(row.result, request.method->call(args));
    EXPECT_EQ(CommandIds(), Commands());
    if (row.log[0] != '\0') {
      EXPECT_EQ(row.log, Logged().back());
    } else if (row.result != kBadParameters && row.result != kBadFormat) {
      EXPECT_GE(1u, Logged().size()) << "said more than that it starts: " << Logged().back();
    }
  }
}

}  // namespace
}  // namespace test
