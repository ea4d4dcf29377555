// Small operations on the embedded secure world: begin and finish, which open a session each.
#include <benchmark/benchmark.h>
#include <keymaster_tivas_context.h>

#include "tests/platform/bytes.h"

namespace bench {
namespace {

using test::Bytes;
using Params = std::vector<test::Param>;

keymaster::KeymasterTivasContext& Km() {
  static keymaster::KeymasterTivasContext context;
  static const bool is_ready = context.Initialize(keymaster::KmVersion::KEYMASTER_4_1) == 0;
  if (!is_ready) abort();
  return context;
}

// A kind of operation: how its key is made, and how it is begun.
struct Operation {
  const char* name;
  keymaster_purpose_t purpose;
  Params key, begin;
};

void Run(benchmark::State& state, const Operation& operation) {
  const test::ParamSet key_params(operation.key), begin_params(operation.begin);
  keymaster_key_blob_t key = {};
  if (Km().TivasKmGenerateKey(key_params.get(), &key, nullptr) != 0) state.SkipWithError("no key");
  const Bytes message(1024, 0x42);
  const keymaster_blob_t input = test::Blob(message);
  for (auto _ : state) {
    unsigned long handle = 0;
    keymaster_blob_t output = {};
    if (Km().TivasKmBegin(operation.purpose, &key, begin_params.get(), nullptr, &handle) != 0 ||
        Km().TivasKmFinishNew(handle, nullptr, &input, nullptr, nullptr, &output) != 0) {
      state.SkipWithError("the operation failed");
    }
    free(const_cast<uint8_t*>(output.data));
  }
  free(const_cast<uint8_t*>(key.key_material));
  state.SetItemsProcessed(state.iterations());
}

Params KeyOf(uint64_t algorithm, uint64_t bits, uint64_t purpose, Params more) {
  more.insert(more.end(), {{KM_TAG_ALGORITHM, algorithm},
                           {KM_TAG_KEY_SIZE, bits},
                           {KM_TAG_PURPOSE, purpose},
                           {KM_TAG_NO_AUTH_REQUIRED, 1}});
  return more;
}

void Register() {
  const test::Param sha = {KM_TAG_DIGEST, KM_DIGEST_SHA_2_256};
  const test::Param pkcs1 = {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN};
  const test::Param gcm = {KM_TAG_BLOCK_MODE, KM_MODE_GCM}, none = {KM_TAG_PADDING, KM_PAD_NONE};
  const auto sign = KM_PURPOSE_SIGN, encrypt = KM_PURPOSE_ENCRYPT;
  const Operation operations[] = {
      {"encrypt AES-256-GCM, 1 KiB",
       encrypt,
       KeyOf(KM_ALGORITHM_AES, 256, encrypt, {gcm, none, {KM_TAG_MIN_MAC_LENGTH, 128}}),
       {gcm, none, {KM_TAG_MAC_LENGTH, 128}}},
      {"sign HMAC-SHA-256, 1 KiB",
       sign,
       KeyOf(KM_ALGORITHM_HMAC, 256, sign, {sha, {KM_TAG_MIN_MAC_LENGTH, 256}}),
       {sha, {KM_TAG_MAC_LENGTH, 256}}},
      {"sign EC P-256, 1 KiB", sign, KeyOf(KM_ALGORITHM_EC, 256, sign, {sha}), {sha}},
      {"sign RSA 2048, 1 KiB",
       sign,
       KeyOf(KM_ALGORITHM_RSA, 2048, sign, {sha, pkcs1, {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}}),
       {sha, pkcs1}}};
  for (const Operation& operation : operations) {
    benchmark::RegisterBenchmark(operation.name, Run, operation)->UseRealTime();
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::Register();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
