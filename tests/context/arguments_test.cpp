// In which order a request looks at its arguments, before the TA hears of it.
#include "tests/context/request_test.h"

namespace test {
namespace {

constexpr int32_t kNoOutput = KM_ERROR_OUTPUT_PARAMETER_NULL;

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
};

const Row kRows[] = {
    {"GenerateEc", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"GenerateEc", Hollow<&Args::params, &Args::key_blob>, kNoOutput},
    {"ImportRaw", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"ImportRaw", Null<&Args::input, &Args::key_blob>, kNullPointer},
    {"ImportRaw", Hollow<&Args::params, &Args::key_blob>, kNoOutput},
    {"ImportRaw", Hollow<&Args::params>, kNoMemory},
    {"ExportRsa", Null<&Args::key, &Args::data>, kNullPointer},
    {"ExportRsa", Hollow<&Args::client_id, &Args::data>, kNoOutput},
    {"ExportRsa", Hollow<&Args::client_id>, kNoMemory},
    {"GetKeyCharacteristics", Null<&Args::key, &Args::characteristics>, kNullPointer},
    {"GetKeyCharacteristics", Hollow<&Args::client_id, &Args::characteristics>, kNoOutput},
    {"GetKeyCharacteristics", Hollow<&Args::client_id>, kNoMemory},
    {"UpgradeKey", Null<&Args::key, &Args::key_blob>, kNullPointer},
    {"UpgradeKey", Null<&Args::params, &Args::key_blob>, kNullPointer},
    {"UpgradeKey", Hollow<&Args::params, &Args::key_blob>, kNoOutput},
    {"UpgradeKey", Hollow<&Args::params>, kNoMemory},
    {"Begin", Null<&Args::key, &Args::number>, kNullPointer},
    {"Begin", Hollow<&Args::key, &Args::number>, kNullPointer},
    {"Begin", Hollow<&Args::params>, kNoMemory},
    {"ImportWrappedKey", Hollow<&Args::wrapped, &Args::key_blob>, kNullPointer},
    {"ImportWrappedKey", Null<&Args::unwrapping_params, &Args::key_blob>, kNoOutput},
    {"VerifyAuthorization", Hollow<&Args::input>, kNoMemory},
};

using Arguments = RequestTest;

TEST_F(Arguments, AreCheckedInOrder) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string(row.request) + ", row " + std::to_string(&row - kRows));
    Renew();
    args = Args(&outputs);
    const Request& request = FindRequest(row.request);
    request.Prepare(&args);
    row.change(&args);
    EXPECT_EQ(row.result, request.method->call(args));
    EXPECT_EQ(CommandIds(), Commands());
  }
}

}  // namespace
}  // namespace test
