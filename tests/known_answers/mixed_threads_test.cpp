// Requests of all kinds on many threads at once, for KM_THREADS_SECONDS (2) and until
// KM_SOAK_REQUESTS (0) were made: each comes to what it comes to alone, and nothing stays behind.
#include <dlfcn.h>
#include <malloc.h>
#include <tee_client_api.h>

#include <chrono>
#include <iostream>
#include <thread>

#include "tests/known_answers/vectors.h"

namespace {

std::atomic<uint64_t> g_opened{0}, g_closed{0};

template <typename F>
F* Next(F*, const char* name) {
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The library's sessions pass through here.
TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session, const TEEC_UUID* app,
                             uint32_t method, const void* data, TEEC_Operation* operation,
                             uint32_t* origin) {
  static const auto next = Next(&TEEC_OpenSession, "TEEC_OpenSession");
  ++g_opened;
  return next(context, session, app, method, data, operation, origin);
}

void TEEC_CloseSession(TEEC_Session* session) {
  static const auto next = Next(&TEEC_CloseSession, "TEEC_CloseSession");
  ++g_closed;
  next(session);
}

namespace {

uint64_t Setting(const char* name, uint64_t otherwise) {
  const char* const text = getenv(name);
  return text == nullptr ? otherwise : strtoull(text, nullptr, 10);
}

// A key's life, from its making to its end.
void Live(Client* client, keymaster_algorithm_t algorithm, uint64_t size) {
  const bool secret = algorithm == KM_ALGORITHM_HMAC;
  const Params use = {{KM_TAG_DIGEST, KM_DIGEST_SHA_2_256},
                      {KM_TAG_PADDING, KM_PAD_RSA_PSS},
                      {KM_TAG_MAC_LENGTH, 256}};
  Params described =
      use + Params{{KM_TAG_ALGORITHM, algorithm},     {KM_TAG_KEY_SIZE, size},
                   {KM_TAG_PURPOSE, KM_PURPOSE_SIGN}, {KM_TAG_PURPOSE, KM_PURPOSE_VERIFY},
                   {KM_TAG_NO_AUTH_REQUIRED, 1},      {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}};
  if (secret) described.emplace_back(KM_TAG_MIN_MAC_LENGTH, 256);
  const ParamSet description(described), nothing({});
  const Str text = "text";
  auto& km = client->km;
  Key key, upgraded;
  keymaster_key_characteristics_t made = {}, asked = {};
  ASSERT_EQ(km.TivasKmGenerateKey(description.get(), &key, &made), 0);
  EXPECT_EQ(km.TivasKmGetKeyCharacteristics(&key, nullptr, nullptr, &asked), 0);
  EXPECT_EQ(made.hw_enforced.length, asked.hw_enforced.length);
  for (auto* traits : {&made, &asked}) {
    test::FreeSet(&traits->hw_enforced);
    test::FreeSet(&traits->sw_enforced);
  }
  const auto signature = client->Operate(KM_PURPOSE_SIGN, key, use, text, 3);
  EXPECT_EQ(signature.first, 0);
  EXPECT_EQ(client->Operate(KM_PURPOSE_VERIFY, key, use, text, 3, {}, signature.second).first, 0);
  keymaster::TKeymasterBlob<keymaster_blob_t> exported;
  EXPECT_EQ(km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key, nullptr, nullptr, &exported) == 0,
            !secret);
  const ParamSet attested(
      {{KM_TAG_ATTESTATION_CHALLENGE, text}, {KM_TAG_ATTESTATION_APPLICATION_ID, text}});
  keymaster_cert_chain_t chain = {};
  EXPECT_EQ(km.TivasKmAttestKey(&key, attested.get(), &chain) == 0, !secret);
  for (size_t i = 0; i < chain.entry_count; ++i) {
    free(const_cast<uint8_t*>(chain.entries[i].data));
  }
  free(chain.entries);
  EXPECT_EQ(km.TivasKmUpgradeKey(&key, nothing.get(), &upgraded), 0);
  EXPECT_EQ(km.TivasKmDeletekey(&key), 0);
  EXPECT_EQ(client->Operate(KM_PURPOSE_SIGN, key, use, text, 3).first, KM_ERROR_INVALID_KEY_BLOB);
  client->requests += 6;
}

// Begins at a vector of the thread's own, so that wrapped imports and plain ones meet.
void Serve(Client* client, size_t thread, std::chrono::milliseconds time, uint64_t requests) {
  const auto start = std::chrono::steady_clock::now();
  for (size_t round = thread * 31;
       client->requests < requests || std::chrono::steady_clock::now() - start < time; ++round) {
    client->Check(Vectors()[round % Vectors().size()], {1 + round % 40});
    if (round % 8 == 0) Live(client, KM_ALGORITHM_EC, 256);
    if (round % 8 == 4) Live(client, KM_ALGORITHM_HMAC, 128);
    if (round % 64 == 1) Live(client, KM_ALGORITHM_RSA, 768);
    if (testing::Test::HasFailure()) return;
  }
}

TEST_F(Connected, ThreadsServeMixedRequestsAndLeaveNothing) {
  const auto all = [this](std::chrono::milliseconds time, uint64_t requests) {
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 12; ++i) {
      threads.emplace_back(Serve, &client, i, time, requests);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  };
  all(std::chrono::milliseconds(0), 2000);
  const size_t before = mallinfo2().uordblks;
  all(std::chrono::seconds(Setting("KM_THREADS_SECONDS", 2)), Setting("KM_SOAK_REQUESTS", 0));
  const size_t after = mallinfo2().uordblks;
  std::cout << client.requests << " requests, " << g_opened << " sessions, " << before << " and "
            << after << " bytes in use\n";
  EXPECT_LT(after, before + 65536);
  EXPECT_LE(client.requests, g_opened);
  EXPECT_EQ(g_opened, g_closed);
}

}  // namespace
