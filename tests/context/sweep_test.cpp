// All requests alike: each call they make fails in turn, the TEE context is missing, and the TEE
// reports lengths that cannot be.
#include <string.h>

#include <map>

#include "tests/context/request.h"

namespace test {
namespace {

struct Sweep : RequestTest {
  struct Request {
    const char* name;
    std::function<int32_t()> run;                        // 0 with the replies of AnswerAll
    std::vector<std::pair<uint32_t, int>> outputs = {};  // command and index
  };

  void AnswerAll() {
    const Bytes set = Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {1}});
    const Reply key = Reply::Ok().Out(2, {1, 2}).Out(3, Characteristics());
    const Reply step = Reply::Ok().Out(2, set).Out(3, {1});
    const std::map<uint32_t, Reply> kReplies = {
        {2, key},
        {3, Reply::Ok().Out(2, Characteristics())},
        {4, key},
        {5, Reply::Ok().Out(2, Cat({Le32(1), Le32(0), Le32(1), Le32(1), {0x23, 3}}))},
        {6, Reply::Ok().Out(2, Cat({Le32(2), Le32(1), {1}, Le32(1), {2}}))},
        {7, Reply::Ok().Out(2, {1})},
        {8, Reply::Ok().Out(2, set).Value(3, 1, 2)},
        {9, step},
        {10, step},
        {39, Reply::Ok().Out(2, set).Out(3, Bytes(64))},
        {65, Reply::Ok().Out(1, {1})}};
    for (const auto& [command, reply] : kReplies) {
      platform().On(command, [r = reply](const Invocation&) { return r; });
    }
  }

  // Runs a request; every output of a failed one is as the caller left it, or empty. Only output
  // parameters of a finish are the caller's once they are decoded.
  int32_t Run(const Request& request) {
    const int32_t result = request.run();
    const std::string set = set_out_.Take();
    for (const std::string& text :
         {blob_out_.Take(), key_out_.Take(), chain_out_.Take(), characteristics_out_.Take(),
          strstr(request.name, "finish") == nullptr ? set : "kept"}) {
      EXPECT_TRUE(result == 0 || text == "kept" || text == "empty" || text == "kept | kept" ||
                  text == "empty | empty")
          << text;
    }
    FreeSet(&verified_);
    return result;
  }

  std::vector<Request> Requests() {
    const auto generate = [this](ParamSet* set) {
      return km.TivasKmGenerateKey(set->get(), &key_out_, &characteristics_out_);
    };
    const auto import = [this](keymaster_key_format_t format, const keymaster_blob_t& data) {
      return km.TivasKmImportKey(params_.get(), format, &data, &key_out_, &characteristics_out_);
    };
    const auto update = [this](const keymaster_blob_t* input) {
      return km.TivasKmUpdate(1, params_.get(), input, &number_, &set_out_, &blob_out_);
    };
    const auto finish = [this](const keymaster_blob_t& input) {
      return km.TivasKmFinishNew(1, params_.get(), &input, &blob_, &set_out_, &blob_out_);
    };
    return {{"configure", [this] { return km.TivasKmConfigure(version_.get()); }},
            {"generate", [=] { return generate(&params_); }, {{2, 2}, {2, 3}}},
            {"generate RSA", [=] { return generate(&rsa_); }, {{4, 2}, {4, 3}}},
            {"import", [=] { return import(KM_KEY_FORMAT_RAW, blob_); }, {{4, 2}, {4, 3}}},
            {"import RSA", [=] { return import(KM_KEY_FORMAT_PKCS8, Blob(pkcs8_)); }},
            {"export",
             [this] {
               return km.TivasKmExportKey(KM_KEY_FORMAT_X509, &key_, &blob_, &blob_, &blob_out_);
             },
             {{5, 2}}},
            {"characteristics",
             [this] {
               return km.TivasKmGetKeyCharacteristics(&key_, &blob_, &blob_, &characteristics_out_);
             },
             {{3, 2}}},
            {"upgrade",
             [this] { return km.TivasKmUpgradeKey(&key_, params_.get(), &key_out_); },
             {{7, 2}}},
            {"delete", [this] { return km.TivasKmDeletekey(&key_); }},
            {"attest",
             [this] { return km.TivasKmAttestKey(&key_, params_.get(), &chain_out_); },
             {{6, 2}}},
            {"begin",
             [this] {
               return km.TivasKmBegin(KM_PURPOSE_SIGN, &key_, params_.get(), &set_out_, &number_);
             },
             {{8, 2}}},
            {"update", [=] { return update(&blob_); }, {{9, 2}, {9, 3}}},
            {"update without input", [=] { return update(nullptr); }},
            {"finish", [=] { return finish(blob_); }, {{10, 2}, {10, 3}}},
            {"finish large", [=] { return finish(large_); }, {{9, 3}, {10, 2}, {10, 3}}},
            {"abort", [this] { return km.TivasKmAbort(1); }},
            {"verify",
             [this] { return km.TivasVerifyAuthorization(1, params_.get(), &blob_, &token_); },
             {{39, 2}, {39, 3}}},
            {"early boot", [this] { return km.TivasKmEarlyBootEnded(); }},
            {"locked", [this] { return km.TivasKmDeviceLocked(false); }},
            {"HMAC parameters",
             [this] { return km.TivasgetHmacSharingParameters(hmac_, 4, hmac_ + 4, 4); }},
            {"shared HMAC",
             [this] { return km.TivascomputeSharedHmac(hmac_, 8, &blob_out_); },
             {{65, 1}}}};
  }

  const Bytes bytes_ = Ramp(1, 20), long_ = Ramp(1, 4100), pkcs8_ = Pkcs8(SharedRsaKey());
  const keymaster_key_blob_t key_ = KeyBlob(bytes_);
  const keymaster_blob_t blob_ = Blob(bytes_), large_ = Blob(long_);
  ParamSet params_{{KM_TAG_ASSOCIATED_DATA, {1, 2}}, {KM_TAG_PURPOSE, 1}};
  ParamSet version_{{KM_TAG_OS_VERSION, 1}, {KM_TAG_OS_PATCHLEVEL, 2}};
  ParamSet rsa_{{KM_TAG_ALGORITHM, 1}, {KM_TAG_KEY_SIZE, 512}, {KM_TAG_RSA_PUBLIC_EXPONENT, 3}};
  uint8_t hmac_[8] = {};
  unsigned long number_ = 0;
  keymaster_key_param_set_t verified_{};
  TsVerificationToken token_{0, 0, &verified_, 0, {}};
  OutBlob blob_out_;
  OutKey key_out_;
  OutSet set_out_;
  OutCharacteristics characteristics_out_;
  OutChain chain_out_;
};

TEST_F(Sweep, EveryFailingCallIsReported) {
  AnswerAll();
  for (const Request& request : Requests()) {
    SCOPED_TRACE(request.name);
    FailEachCallOf([&] { return Run(request); });
  }
}

TEST_F(Sweep, EveryRequestNeedsTheContext) {
  Ts_Finishcontext();
  for (const Request& request : Requests()) {
    SCOPED_TRACE(request.name);
    platform().ClearRecords();
    EXPECT_EQ(Code(0xFFFF0006), Run(request));
    EXPECT_EQ("", Journal());
  }
}

TEST_F(Sweep, ReportedLengthsBeyondTheBufferAreRefused) {
  for (const Request& request : Requests()) {
    for (const auto& [command, index] : request.outputs) {
      for (const uint32_t size : {4097u, 8193u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        if (command == 6 && size == 4097) continue;  // fits
        SCOPED_TRACE(request.name + (" " + std::to_string(index)) + " " + std::to_string(size));
        AnswerAll();
        Reply lie = platform().handlers[command]({});
        platform().On(command, [&, i = index](const Invocation&) { return lie.Size(i, size); });
        // Some lengths come back capped at the buffer's size; what is in it then decodes.
        const bool capped = command == 4 ? index == 3 : command > 8 && index == 2;
        EXPECT_EQ(capped, Run(request) == 0);
      }
    }
  }
}

}  // namespace
}  // namespace test
