#include "tools/keymasterctl/operation.h"

#include <algorithm>
#include <initializer_list>

#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"

namespace {

// The largest input that finish takes without an update before it.
constexpr size_t kFinishLimit = 4032;

using Chosen = std::optional<uint32_t>;

// What the user chose; what is not chosen is read from the key.
struct Choice {
  explicit Choice(const Args& args)
      : digest(args.Value("digest", KM_TAG_DIGEST)),
        padding(args.Value("padding", KM_TAG_PADDING)),
        mode(args.Value("mode", KM_TAG_BLOCK_MODE)),
        mac_length(args.Value("mac-length", KM_TAG_MAC_LENGTH)) {}
  Chosen digest;
  Chosen padding;
  Chosen mode;
  Chosen mac_length;  // bits
};

// What a key allows, of what an operation has to choose.
struct Allowed {
  uint32_t algorithm = 0;
  std::vector<uint64_t> digests;
  std::vector<uint64_t> paddings;
  std::vector<uint64_t> modes;
  std::vector<uint64_t> sids;
};

Allowed ReadAllowed(Session* session, const Key& key) {
  OwnedCharacteristics characteristics;
  key.ReadCharacteristics(session, &characteristics);
  const auto values = [&characteristics](keymaster_tag_t tag) {
    std::vector<uint64_t> all;
    for (const auto* set : {&characteristics.hw_enforced, &characteristics.sw_enforced}) {
      for (size_t i = 0; i < set->length; ++i) {
        if (set->params[i].tag == tag) {
          all.push_back(NumberOf(set->params[i]));
        }
      }
    }
    return all;
  };
  const std::vector<uint64_t> algorithms = values(KM_TAG_ALGORITHM);
  Require(!algorithms.empty(), "the key has no algorithm");
  return {static_cast<uint32_t>(algorithms[0]), values(KM_TAG_DIGEST), values(KM_TAG_PADDING),
          values(KM_TAG_BLOCK_MODE), values(KM_TAG_USER_SECURE_ID)};
}

// Returns the choice if there is one, else the first preferred value that the key allows.
Chosen Choose(const Chosen& choice, const std::vector<uint64_t>& allowed,
              std::initializer_list<uint32_t> preferred) {
  const auto* const found =
      std::find_if(preferred.begin(), preferred.end(), [&allowed](uint32_t value) {
        return std::find(allowed.begin(), allowed.end(), value) != allowed.end();
      });
  return choice || found == preferred.end() ? choice : Chosen(*found);
}

Chosen ChooseDigest(const Choice& choice, const Allowed& allowed) {
  return Choose(choice.digest, allowed.digests,
                {KM_DIGEST_SHA_2_256, KM_DIGEST_SHA_2_512, KM_DIGEST_SHA_2_384, KM_DIGEST_SHA_2_224,
                 KM_DIGEST_SHA1, KM_DIGEST_MD5, KM_DIGEST_NONE});
}

void AddChosen(keymaster_tag_t tag, const Chosen& value, ParamList* params) {
  if (value) {
    params->Add(tag, *value);
  }
}

// Rejects a choice that would change nothing.
void RejectUnused(const Chosen& choice, const char* option, const char* what) {
  RequireUsage(!choice, std::string(option) + " means nothing for " + what);
}

void PlanRsa(const Allowed& allowed, bool signs, const Choice& choice, ParamList* params) {
  RejectUnused(choice.mode, "--mode", "an RSA key");
  RejectUnused(choice.mac_length, "--mac-length", "an RSA key");
  Chosen padding = choice.padding;
  if (padding == kPadPkcs1ByUse) {
    padding = signs ? KM_PAD_RSA_PKCS1_1_5_SIGN : KM_PAD_RSA_PKCS1_1_5_ENCRYPT;
  }
  padding = signs ? Choose(padding, allowed.paddings,
                           {KM_PAD_RSA_PKCS1_1_5_SIGN, KM_PAD_RSA_PSS, KM_PAD_NONE})
                  : Choose(padding, allowed.paddings,
                           {KM_PAD_RSA_OAEP, KM_PAD_RSA_PKCS1_1_5_ENCRYPT, KM_PAD_NONE});
  AddChosen(KM_TAG_PADDING, padding, params);
  Chosen digest = choice.digest;
  if (!digest && signs && padding == KM_PAD_NONE) {
    digest = KM_DIGEST_NONE;
  } else if (signs || padding == KM_PAD_RSA_OAEP) {
    digest = ChooseDigest(choice, allowed);
  }
  AddChosen(KM_TAG_DIGEST, digest, params);
}

void PlanEc(const Allowed& allowed, const Choice& choice, ParamList* params) {
  RejectUnused(choice.padding, "--padding", "an EC key");
  RejectUnused(choice.mac_length, "--mac-length", "an EC key");
  AddChosen(KM_TAG_DIGEST, ChooseDigest(choice, allowed), params);
}

void PlanHmac(const Allowed& allowed, bool makes, const Choice& choice, ParamList* params) {
  RejectUnused(choice.padding, "--padding", "an HMAC key");
  const Chosen digest = ChooseDigest(choice, allowed);
  AddChosen(KM_TAG_DIGEST, digest, params);
  // A verification takes the length of the MAC that it is given.
  if (makes) {
    constexpr uint32_t kBits[] = {0, 128, 160, 224, 256, 384, 512};
    const uint32_t whole = digest.value_or(0) < std::size(kBits) ? kBits[digest.value_or(0)] : 0;
    params->Add(KM_TAG_MAC_LENGTH, choice.mac_length.value_or(whole));
  }
}

void PlanCipher(const Allowed& allowed, const Choice& choice, OperationPlan* plan,
                ParamList* params) {
  RejectUnused(choice.digest, "--digest", "a cipher");
  const Chosen mode =
      Choose(choice.mode, allowed.modes, {KM_MODE_GCM, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_ECB});
  Require(mode.has_value(), "the key has no block mode; give --mode");
  plan->mode = *mode;
  params->Add(KM_TAG_BLOCK_MODE, *mode);
  const bool pads = *mode == KM_MODE_CBC || *mode == KM_MODE_ECB;
  AddChosen(KM_TAG_PADDING,
            pads ? Choose(choice.padding, allowed.paddings, {KM_PAD_PKCS7, KM_PAD_NONE})
                 : choice.padding.value_or(KM_PAD_NONE),
            params);
  if (*mode == KM_MODE_GCM) {
    params->Add(KM_TAG_MAC_LENGTH, choice.mac_length.value_or(128));
    plan->nonce_length = 12;
  } else {
    RejectUnused(choice.mac_length, "--mac-length", "a mode but gcm");
    const size_t block = allowed.algorithm == KM_ALGORITHM_AES ? 16 : 8;
    plan->nonce_length = *mode == KM_MODE_ECB ? 0 : block;
  }
}

}  // namespace

OperationPlan PlanOperation(Session* session, const Key& key, keymaster_purpose_t purpose,
                            const Args& args, ParamList* params) {
  const Choice choice(args);
  const Allowed allowed = ReadAllowed(session, key);
  OperationPlan plan;
  plan.sids = allowed.sids;
  key.AddBindingTo(params);
  const bool signs = purpose == KM_PURPOSE_SIGN || purpose == KM_PURPOSE_VERIFY;
  if (allowed.algorithm == KM_ALGORITHM_RSA) {
    PlanRsa(allowed, signs, choice, params);
  } else if (allowed.algorithm == KM_ALGORITHM_EC) {
    PlanEc(allowed, choice, params);
  } else if (allowed.algorithm == KM_ALGORITHM_HMAC) {
    PlanHmac(allowed, purpose == KM_PURPOSE_SIGN, choice, params);
  } else {
    PlanCipher(allowed, choice, &plan, params);
  }
  return plan;
}

Operation::Operation(Session* session, keymaster_purpose_t purpose, const Key& key,
                     ParamList* params, const std::string& user_hint)
    : session_(*session), key_(key), user_hint_(user_hint) {
  OwnedParamSet out;
  CheckRequest("begin", session_->TivasKmBegin(purpose, key.blob(), params->set(), &out, &handle_));
  running_ = true;
  for (size_t i = 0; i < out.length; ++i) {
    if (out.params[i].tag == KM_TAG_NONCE) {
      nonce_ = Copy(out.params[i].blob);
    }
  }
}

Operation::~Operation() {
  if (running_) {
    (void)session_->TivasKmAbort(handle_);
  }
}

void Operation::CheckRequest(const char* what, int32_t result) {
  running_ = running_ && result == 0;
  if (result == KM_ERROR_KEY_USER_NOT_AUTHENTICATED && !user_hint_.empty()) {
    Failure failure = ResultFailure(what, result);
    failure.hint = user_hint_;
    throw failure;
  }
  key_.Check(what, result);
}

void Operation::SetAuthToken(const Bytes& token) { token_.Add(KM_TAG_AUTH_TOKEN, token); }

void Operation::AddAssociatedData(const Bytes& data) {
  ParamList params;
  params.Add(KM_TAG_ASSOCIATED_DATA, data);
  if (const keymaster_blob_t* const token = token_.BytesOf(KM_TAG_AUTH_TOKEN); token != nullptr) {
    params.Add(KM_TAG_AUTH_TOKEN, Copy(*token));
  }
  CheckRequest("update with associated data",
               session_->TivasKmUpdate(handle_, params.set(), nullptr, nullptr, nullptr, nullptr));
}

void Operation::Update(const Bytes& piece, OwnedBlob* output) {
  const keymaster_blob_t input = View(piece);
  unsigned long consumed = 0;
  CheckRequest("update",
               session_->TivasKmUpdate(handle_, token_.set(), &input, &consumed, nullptr, output));
  Require(consumed == piece.size(), "update took only a part of its input");
}

void Operation::Finish(const Bytes& rest, const Bytes* signature, OwnedBlob* output) {
  const keymaster_blob_t input = View(rest);
  if (signature == nullptr) {
    CheckRequest("finish", session_->TivasKmFinishNew(handle_, token_.set(), &input, nullptr,
                                                      nullptr, output));
  } else {
    // A verification puts nothing out, and a finish of large input counts that as a failure.
    const bool large = rest.size() > kFinishLimit;
    if (large) {
      Update(rest, output);
    }
    const keymaster_blob_t given = View(*signature);
    CheckRequest("verification",
                 session_->TivasKmFinish(handle_, token_.set(), large ? nullptr : &input, &given,
                                         nullptr, nullptr));
  }
  running_ = false;
}
