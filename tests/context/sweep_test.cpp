// All requests alike: each call they make fails in turn, the TEE context is missing, and the TEE
// reports lengths that cannot be.
#include "tests/context/request.h"

namespace test {
namespace {

struct Sweep : RequestTest {
  struct Request {
    const char* name;
    std::function<int32_t()> run;                        // 0 with the replies of Answer
    std::vector<std::pair<uint32_t, int>> outputs = {};  // command and index
  };

  // Every output of a failed request is as the caller left it, or empty.
  template <typename... Outs>
  int32_t Check(int32_t result, Outs&... outs) {
    const std::string taken[] = {outs.Take()...};
    for (const std::string& text : taken) {
      EXPECT_TRUE(result == 0 || text == "kept" || text == "empty" || text == "kept | kept" ||
                  text == "empty | empty")
          << text;
    }
    return result;
  }

  void Answer() {
    const Bytes set = Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {1}});
    const std::map<uint32_t, Reply> kReplies = {
        {2, Reply::Ok().Out(2, {1, 2}).Out(3, Characteristics())},
        {3, Reply::Ok().Out(2, Characteristics())},
        {4, Reply::Ok().Out(2, {1, 2}).Out(3, Characteristics())},
        {5, Reply::Ok().Out(2, Cat({Le32(1), Le32(0), Le32(1), Le32(1), {0x23, 3}}))},
        {6, Reply::Ok().Out(2, Cat({Le32(2), Le32(1), {1}, Le32(1), {2}}))},
        {7, Reply::Ok().Out(2, {1})},
        {8, Reply::Ok().Out(2, set).Value(3, 1, 2)},
        {9, Reply::Ok().Out(2, set).Out(3, {1})},
        {10, Reply::Ok().Out(2, set).Out(3, {1})},
        {39, Reply::Ok().Out(2, set).Out(3, Bytes(64))},
        {65, Reply::Ok().Out(1, {1})}};
    for (const auto& [command, reply] : kReplies) {
      platform().On(command, [r = reply](const Invocation&) { return r; });
    }
  }

  std::vector<Request> Requests() {
    return {
        {"configure", [this] { return km.TivasKmConfigure(version_.get()); }},
        {"generate", [this] { return Generate(3); }, {{2, 2}, {2, 3}}},
        {"generate RSA", [this] { return Generate(1); }, {{4, 2}, {4, 3}}},
        {"import", [this] { return Import(KM_KEY_FORMAT_RAW, {1}); }, {{4, 2}, {4, 3}}},
        {"import RSA", [this] { return Import(KM_KEY_FORMAT_PKCS8, pkcs8_); }},
        {"export",
         [this] {
           OutBlob out;
           return Check(km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key_, &blob_, &blob_, &out), out);
         },
         {{5, 2}}},
        {"characteristics",
         [this] {
           OutCharacteristics out;
           return Check(km.TivasKmGetKeyCharacteristics(&key_, &blob_, &blob_, &out), out);
         },
         {{3, 2}}},
        {"upgrade",
         [this] {
           OutKey out;
           return Check(km.TivasKmUpgradeKey(&key_, params_.get(), &out), out);
         },
         {{7, 2}}},
        {"delete", [this] { return km.TivasKmDeletekey(&key_); }},
        {"attest",
         [this] {
           OutChain out;
           return Check(km.TivasKmAttestKey(&key_, params_.get(), &out), out);
         },
         {{6, 2}}},
        {"begin",
         [this] {
           OutSet out;
           unsigned long handle = 0;
           return Check(km.TivasKmBegin(KM_PURPOSE_SIGN, &key_, params_.get(), &out, &handle), out);
         },
         {{8, 2}}},
        {"update", [this] { return Update(&blob_); }, {{9, 2}, {9, 3}}},
        {"update without input", [this] { return Update(nullptr); }},
        {"finish", [this] { return Finish(blob_); }, {{10, 2}, {10, 3}}},
        {"finish large", [this] { return Finish(large_); }, {{9, 3}, {10, 2}, {10, 3}}},
        {"abort", [this] { return km.TivasKmAbort(1); }},
        {"verify",
         [this] {
           keymaster_key_param_set_t verified{};
           TsVerificationToken token{0, 0, &verified, 0, {}};
           const int32_t result = km.TivasVerifyAuthorization(1, params_.get(), &blob_, &token);
           FreeSet(&verified);
           return result;
         },
         {{39, 2}, {39, 3}}},
        {"early boot", [this] { return km.TivasKmEarlyBootEnded(); }},
        {"locked", [this] { return km.TivasKmDeviceLocked(false); }},
        {"HMAC parameters",
         [this] { return km.TivasgetHmacSharingParameters(hmac_, 4, hmac_ + 4, 4); }},
        {"shared HMAC",
         [this] {
           OutBlob out;
           return Check(km.TivascomputeSharedHmac(hmac_, 8, &out), out);
         },
         {{65, 1}}}};
  }

 private:
  int32_t Generate(uint32_t algorithm) {
    ParamSet set({{KM_TAG_ALGORITHM, algorithm},
                  {KM_TAG_KEY_SIZE, 512},
                  {KM_TAG_RSA_PUBLIC_EXPONENT, 3},
                  {KM_TAG_APPLICATION_ID, Bytes{1}}});
    OutKey key;
    OutCharacteristics out;
    return Check(km.TivasKmGenerateKey(set.get(), &key, &out), key, out);
  }
  int32_t Import(keymaster_key_format_t format, const Bytes& data) {
    const keymaster_blob_t blob = Blob(data);
    OutKey key;
    OutCharacteristics out;
    return Check(km.TivasKmImportKey(params_.get(), format, &blob, &key, &out), key, out);
  }
  int32_t Update(const keymaster_blob_t* input) {
    OutSet set;
    OutBlob out;
    unsigned long consumed = 0;
    return Check(km.TivasKmUpdate(1, params_.get(), input, &consumed, &set, &out), set, out);
  }
  // Without output parameters: a failure behind their decoding leaves them to the caller.
  int32_t Finish(const keymaster_blob_t& input) {
    OutSet set;
    OutBlob out;
    const int32_t result = km.TivasKmFinishNew(1, params_.get(), &input, &blob_, &set, &out);
    return Check(result, out);
  }

  const Bytes bytes_ = Ramp(1, 20), long_ = Ramp(1, 4100), pkcs8_ = Pkcs8(SharedRsaKey());
  const keymaster_key_blob_t key_ = KeyBlob(bytes_);
  const keymaster_blob_t blob_ = Blob(bytes_), large_ = Blob(long_);
  ParamSet params_{{KM_TAG_ASSOCIATED_DATA, {1, 2}}, {KM_TAG_PURPOSE, 1}};
  ParamSet version_{{KM_TAG_OS_VERSION, 1}, {KM_TAG_OS_PATCHLEVEL, 2}};
  uint8_t hmac_[8] = {};
};

TEST_F(Sweep, EveryFailingCallIsReported) {
  Answer();
  for (const Request& request : Requests()) {
    SCOPED_TRACE(request.name);
    FailEachCallOf(request.run);
  }
}

TEST_F(Sweep, EveryRequestNeedsTheContext) {
  Ts_Finishcontext();
  for (const Request& request : Requests()) {
    SCOPED_TRACE(request.name);
    platform().ClearRecords();
    EXPECT_EQ(Code(0xFFFF0006), request.run());
    EXPECT_EQ("", Journal());
  }
}

TEST_F(Sweep, ReportedLengthsBeyondTheBufferAreRefused) {
  for (const Request& request : Requests()) {
    for (const auto& output : request.outputs) {
      for (const uint32_t size : {4097u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        if (output.first == 6 && size == 4097) continue;  // fits
        SCOPED_TRACE(request.name + (" " + std::to_string(output.second)) + " " +
                     std::to_string(size));
        Answer();
        const Handler answer = platform().handlers[output.first];
        platform().On(output.first, [&](const Invocation& invocation) {
          return answer(invocation).Size(output.second, size);
        });
        // Some lengths come back capped at the buffer's size; what is in it then decodes.
        const bool capped =
            output.first == 4 ? output.second == 3 : output.first > 8 && output.second == 2;
        EXPECT_EQ(capped, request.run() == 0);
      }
    }
  }
}

}  // namespace
}  // namespace test
