#include "operation.h"

#include <algorithm>
#include <initializer_list>

#include "errors.h"
#include "names.h"

namespace {

// The largest input that finish takes without an update before it.
constexpr size_t kFinishLimit = 4032;

// What a key allows, of what an operation has to choose.
struct KeyFacts {
  uint32_t algorithm = 0;
  std::vector<uint32_t> digests;
  std::vector<uint32_t> paddings;
  std::vector<uint32_t> modes;
};

KeyFacts ReadFacts(Session& session, const Key& key) {
  OwnedCharacteristics characteristics;
  Check("reading the key",
        session->TivasKmGetKeyCharacteristics(key.blob(), key.app_id(), key.app_data(),
                                              &characteristics),
        key.path());
  const auto values = [&characteristics](keymaster_tag_t tag) {
    std::vector<uint32_t> all = ValuesOf(characteristics.hw_enforced, tag);
    const std::vector<uint32_t> more = ValuesOf(characteristics.sw_enforced, tag);
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  KeyFacts facts;
  const std::vector<uint32_t> algorithms = values(KM_TAG_ALGORITHM);
  if (algorithms.empty()) throw Failure("the key has no algorithm");
  facts.algorithm = algorithms.front();
  facts.digests = values(KM_TAG_DIGEST);
  facts.paddings = values(KM_TAG_PADDING);
  facts.modes = values(KM_TAG_BLOCK_MODE);
  return facts;
}

// Returns the choice if there is one, else the first preferred value that the key allows.
std::optional<uint32_t> Choose(const std::optional<uint32_t>& choice,
                               const std::vector<uint32_t>& allowed,
                               std::initializer_list<uint32_t> preferred) {
  if (choice) return choice;
  for (uint32_t value : preferred) {
    if (std::find(allowed.begin(), allowed.end(), value) != allowed.end()) return value;
  }
  return std::nullopt;
}

std::optional<uint32_t> ChooseDigest(const OperationChoice& choice, const KeyFacts& facts) {
  return Choose(choice.digest, facts.digests,
                {KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_512, KM_DIGEST_SHA_2_384, KM_DIGEST_SHA_2_224,
                 KM_DIGEST_SHA1, KM_DIGEST_MD5, KM_DIGEST_NONE});
}

uint32_t DigestBits(uint32_t digest) {
  constexpr uint32_t kBits[] = {0, 128, 160, 224, 256, 384, 512};
  return digest < std::size(kBits) ? kBits[digest] : 0;
}

// Refuses a choice that would change nothing.
void RefuseUnused(const std::optional<uint32_t>& choice, const char* option, const char* what) {
  if (choice) throw UsageFailure(std::string(option) + " means nothing for " + what);
}

void PlanRsa(const KeyFacts& facts, bool signs, const OperationChoice& choice, ParamList* params) {
  RefuseUnused(choice.mode, "--mode", "an RSA key");
  RefuseUnused(choice.mac_length, "--mac-length", "an RSA key");
  std::optional<uint32_t> padding = choice.padding;
  if (padding == kPadPkcs1ByUse) {
    padding = signs ? KM_PAD_RSA_PKCS1_1_5_SIGN : KM_PAD_RSA_PKCS1_1_5_ENCRYPT;
  }
  padding = signs ? Choose(padding, facts.paddings,
                           {KM_PAD_RSA_PKCS1_1_5_SIGN, KM_PAD_RSA_PSS, KM_PAD_NONE})
                  : Choose(padding, facts.paddings,
                           {KM_PAD_RSA_OAEP, KM_PAD_RSA_PKCS1_1_5_ENCRYPT, KM_PAD_NONE});
  if (padding) params->Add(KM_TAG_PADDING, *padding);
  std::optional<uint32_t> digest = choice.digest;
  if (!digest && signs && padding == KM_PAD_NONE) digest = KM_DIGEST_NONE;
  if (!digest && (signs || padding == KM_PAD_RSA_OAEP)) digest = ChooseDigest(choice, facts);
  if (digest) params->Add(KM_TAG_DIGEST, *digest);
}

void PlanHmac(const KeyFacts& facts, keymaster_purpose_t purpose, const OperationChoice& choice,
              ParamList* params) {
  RefuseUnused(choice.padding, "--padding", "an HMAC key");
  const std::optional<uint32_t> digest = ChooseDigest(choice, facts);
  if (digest) params->Add(KM_TAG_DIGEST, *digest);
  // A verification takes the length of the MAC that it is given.
  if (purpose != KM_PURPOSE_SIGN) return;
  params->Add(KM_TAG_MAC_LENGTH, choice.mac_length.value_or(DigestBits(digest.value_or(0))));
}

void PlanCipher(const KeyFacts& facts, const OperationChoice& choice, OperationPlan* plan,
                ParamList* params) {
  RefuseUnused(choice.digest, "--digest", "a cipher");
  const std::optional<uint32_t> mode =
      Choose(choice.mode, facts.modes, {KM_MODE_GCM, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_ECB});
  if (!mode) throw Failure("the key has no block mode; give --mode");
  if (*mode != KM_MODE_GCM) RefuseUnused(choice.mac_length, "--mac-length", "a mode but gcm");
  const bool pads = *mode == KM_MODE_CBC || *mode == KM_MODE_ECB;
  const std::optional<uint32_t> padding =
      pads ? Choose(choice.padding, facts.paddings, {KM_PAD_PKCS7, KM_PAD_NONE})
           : choice.padding.value_or(KM_PAD_NONE);
  params->Add(KM_TAG_BLOCK_MODE, *mode);
  if (padding) params->Add(KM_TAG_PADDING, *padding);
  if (*mode == KM_MODE_GCM) params->Add(KM_TAG_MAC_LENGTH, choice.mac_length.value_or(128));
  plan->mode = *mode;
  if (*mode == KM_MODE_GCM) plan->nonce_length = 12;
  if (*mode == KM_MODE_CBC || *mode == KM_MODE_CTR) {
    plan->nonce_length = facts.algorithm == KM_ALGORITHM_AES ? 16 : 8;
  }
}

}  // namespace

OperationPlan PlanOperation(Session& session, const Key& key, keymaster_purpose_t purpose,
                            const OperationChoice& choice, ParamList* params) {
  const KeyFacts facts = ReadFacts(session, key);
  OperationPlan plan;
  plan.algorithm = facts.algorithm;
  const bool signs = purpose == KM_PURPOSE_SIGN || purpose == KM_PURPOSE_VERIFY;
  key.binding().AddTo(params);
  if (facts.algorithm == KM_ALGORITHM_RSA) {
    PlanRsa(facts, signs, choice, params);
  } else if (facts.algorithm == KM_ALGORITHM_EC) {
    RefuseUnused(choice.padding, "--padding", "an EC key");
    RefuseUnused(choice.mac_length, "--mac-length", "an EC key");
    const std::optional<uint32_t> digest = ChooseDigest(choice, facts);
    if (digest) params->Add(KM_TAG_DIGEST, *digest);
  } else if (facts.algorithm == KM_ALGORITHM_HMAC) {
    PlanHmac(facts, purpose, choice, params);
  } else {
    PlanCipher(facts, choice, &plan, params);
  }
  return plan;
}

Operation::Operation(Session& session, keymaster_purpose_t purpose, const Key& key,
                     ParamList* params)
    : session_(session), key_path_(key.path()) {
  OwnedParamSet out;
  CheckRequest("begin", session_->TivasKmBegin(purpose, key.blob(), params->set(), &out, &handle_));
  running_ = true;
  for (size_t i = 0; i < out.length; ++i) {
    if (out.params[i].tag == KM_TAG_NONCE) nonce_ = Copy(out.params[i].blob);
  }
}

Operation::~Operation() {
  if (running_) session_->TivasKmAbort(handle_);
}

void Operation::CheckRequest(const char* what, int32_t result) {
  if (result != 0) running_ = false;
  Check(what, result, key_path_);
}

void Operation::SetAuthToken(const Bytes& token) { token_.Add(KM_TAG_AUTH_TOKEN, token); }

void Operation::AddAssociatedData(const Bytes& data) {
  ParamList params;
  params.Add(KM_TAG_ASSOCIATED_DATA, data);
  for (size_t i = 0; i < token_.set()->length; ++i) {
    params.Add(KM_TAG_AUTH_TOKEN, Copy(token_.set()->params[i].blob));
  }
  CheckRequest("update with associated data",
               session_->TivasKmUpdate(handle_, params.set(), nullptr, nullptr, nullptr, nullptr));
}

void Operation::Update(const Bytes& piece, OwnedBlob* output) {
  const keymaster_blob_t input = View(piece);
  unsigned long consumed = 0;
  CheckRequest("update",
               session_->TivasKmUpdate(handle_, token_.set(), &input, &consumed, nullptr, output));
  if (consumed != piece.size()) throw Failure("update took only a part of its input");
}

void Operation::Finish(const Bytes& rest, const Bytes* signature, OwnedBlob* output) {
  const keymaster_blob_t input = View(rest);
  if (signature == nullptr) {
    CheckRequest("finish", session_->TivasKmFinishNew(handle_, token_.set(), &input, nullptr,
                                                      nullptr, output));
  } else {
    // A verification puts nothing out, and a finish of large input counts that as a failure.
    const bool large = rest.size() > kFinishLimit;
    if (large) Update(rest, output);
    const keymaster_blob_t given = View(*signature);
    CheckRequest("verification",
                 session_->TivasKmFinish(handle_, token_.set(), large ? nullptr : &input, &given,
                                         nullptr, nullptr));
  }
  running_ = false;
}
