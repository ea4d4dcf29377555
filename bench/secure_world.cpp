// What share of a real operation is the library's? The platform's calls pass through here to the
// embedded secure world, and the time spent behind them is not the library's.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <keymaster_tivas_context.h>
#include <tee_client_api.h>
#include <zubrel.h>

#include <chrono>

#include "content.h"

namespace {

using Clock = std::chrono::steady_clock;
Clock::duration g_behind = Clock::duration::zero();

// Behind makes the next definition's call of that name, on the platform's account.
template <typename Function, typename... Args>
auto Behind(const char* name, Function*, Args... args) {
  static auto* const next = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  struct Timer {
    Clock::time_point start = Clock::now();
    ~Timer() { g_behind += Clock::now() - start; }
  } timer;
  return next(args...);
}

}  // namespace

extern "C" {
TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session, const TEEC_UUID* uuid,
                             uint32_t method, const void* data, TEEC_Operation* operation,
                             uint32_t* origin) {
  return Behind("TEEC_OpenSession", &TEEC_OpenSession, context, session, uuid, method, data,
                operation, origin);
}
void TEEC_CloseSession(TEEC_Session* session) {
  Behind("TEEC_CloseSession", &TEEC_CloseSession, session);
}
TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t command, TEEC_Operation* operation,
                               uint32_t* origin) {
  return Behind("TEEC_InvokeCommand", &TEEC_InvokeCommand, session, command, operation, origin);
}
int __zubrel_start_ex(const char* label, unsigned timeout, void (*callback)(void*), void* arg,
                      unsigned flags) {
  return Behind("__zubrel_start_ex", &__zubrel_start_ex, label, timeout, callback, arg, flags);
}
int zubrel_end(int id) { return Behind("zubrel_end", &zubrel_end, id); }
}

namespace bench {

namespace {

keymaster::KeymasterTivasContext& Km() {
  static keymaster::KeymasterTivasContext context;
  static const bool ready = context.Initialize(keymaster::KmVersion::KEYMASTER_4_1) == 0;
  if (!ready) abort();
  return context;
}

keymaster_key_blob_t Generate(const Params& params) {
  const keymaster_key_param_set_t set = SetOf(params);
  keymaster_key_blob_t key = {};
  if (Km().TivasKmGenerateKey(&set, &key, nullptr) != 0) abort();
  return key;
}

// One operation, by which a key does one thing with a message.
struct Operation {
  keymaster_purpose_t purpose;
  keymaster_key_blob_t key;
  Params params;
  size_t size;      // of the message, in bytes
  Bytes signature;  // to be verified
};

bool Perform(const Operation& operation, Bytes* result) {
  const Bytes message(operation.size, 0x42);
  const keymaster_key_param_set_t set = SetOf(operation.params);
  const keymaster_blob_t input = View(message), signature = View(operation.signature);
  const bool verify = operation.purpose == KM_PURPOSE_VERIFY;
  unsigned long handle = 0;
  keymaster_blob_t output = {};
  const bool done =
      Km().TivasKmBegin(operation.purpose, &operation.key, &set, nullptr, &handle) == 0 &&
      Km().TivasKmFinishNew(handle, nullptr, &input, verify ? &signature : nullptr, nullptr,
                            &output) == 0;
  if (result != nullptr) result->assign(output.data, output.data + output.data_length);
  Release(&output);
  return done;
}

void Run(benchmark::State& state, const Operation& operation) {
  Clock::duration total = Clock::duration::zero();
  g_behind = Clock::duration::zero();
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!Perform(operation, nullptr)) state.SkipWithError("the operation failed");
    total += Clock::now() - start;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["library_us"] =
      std::chrono::duration<double, std::micro>(total - g_behind).count() /
      static_cast<double>(state.iterations());
  state.counters["share"] = 1 - std::chrono::duration<double>(g_behind) / total;
}

Params KeyOf(keymaster_algorithm_t algorithm, uint32_t bits, const Params& more) {
  Params params = {Number(KM_TAG_ALGORITHM, algorithm), Number(KM_TAG_KEY_SIZE, bits),
                   Number(KM_TAG_NO_AUTH_REQUIRED, 1)};
  params.insert(params.end(), more.begin(), more.end());
  return params;
}

}  // namespace

void RegisterSecureWorld() {
  const Params sha = {Number(KM_TAG_DIGEST, KM_DIGEST_SHA_2_256)};
  const Params pkcs1 = {Number(KM_TAG_DIGEST, KM_DIGEST_SHA_2_256),
                        Number(KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN)};
  const Params gcm = {Number(KM_TAG_BLOCK_MODE, KM_MODE_GCM), Number(KM_TAG_PADDING, KM_PAD_NONE)};
  const auto with = [](Params params, std::initializer_list<keymaster_key_param_t> more) {
    params.insert(params.end(), more);
    return params;
  };
  const auto sign = Number(KM_TAG_PURPOSE, KM_PURPOSE_SIGN),
             verify = Number(KM_TAG_PURPOSE, KM_PURPOSE_VERIFY),
             encrypt = Number(KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT);
  const keymaster_key_blob_t ec = Generate(KeyOf(KM_ALGORITHM_EC, 256, with(sha, {sign, verify})));
  const keymaster_key_blob_t rsa =
      Generate(KeyOf(KM_ALGORITHM_RSA, 2048,
                     with(pkcs1, {sign, verify, Number(KM_TAG_RSA_PUBLIC_EXPONENT, 65537)})));
  const keymaster_key_blob_t aes = Generate(
      KeyOf(KM_ALGORITHM_AES, 256, with(gcm, {encrypt, Number(KM_TAG_MIN_MAC_LENGTH, 128)})));
  const Params gcm_begin = with(gcm, {Number(KM_TAG_MAC_LENGTH, 128)});
  std::pair<const char*, Operation> operations[] = {
      {"sign EC P-256, 1 KiB", {KM_PURPOSE_SIGN, ec, sha, 1024, {}}},
      {"verify EC P-256, 1 KiB", {KM_PURPOSE_VERIFY, ec, sha, 1024, {}}},
      {"sign RSA 2048, 1 KiB", {KM_PURPOSE_SIGN, rsa, pkcs1, 1024, {}}},
      {"encrypt AES-256-GCM, 1 KiB", {KM_PURPOSE_ENCRYPT, aes, gcm_begin, 1024, {}}},
      {"encrypt AES-256-GCM, 1 MiB", {KM_PURPOSE_ENCRYPT, aes, gcm_begin, 1 << 20, {}}}};
  if (!Perform(operations[0].second, &operations[1].second.signature)) abort();
  for (const auto& [name, operation] : operations) {
    benchmark::RegisterBenchmark((std::string("world/") + name).c_str(), Run, operation)
        ->UseRealTime();
  }
}

}  // namespace bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::RegisterSecureWorld();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
