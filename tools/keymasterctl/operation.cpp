#include "tools/keymasterctl/operation.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "tools/keymasterctl/auth_token.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"

namespace {

constexpr size_t kPiece = 1u << 20;
// The largest input that finish takes without an update before it.
constexpr size_t kFinishLimit = 4032;

constexpr const char* kDigests = "sha256,sha512,sha384,sha224,sha1,md5,none";

void AddChosen(keymaster_tag_t tag, const std::optional<uint32_t>& value, ParamList* params) {
  if (value) params->Add(tag, *value);
}

constexpr std::chrono::milliseconds kDelay(500);
constexpr std::chrono::milliseconds kInterval(100);

std::string MiB(uint64_t bytes) { return std::to_string(bytes >> 20); }

}  // namespace

Operation::Operation(const Args& args, keymaster_purpose_t purpose)
    : args_(args),
      purpose_(purpose),
      key_(args),
      token_bytes_(args.Has("auth-token") ? ReadFile(args.Text("auth-token")) : Bytes()),
      input_(args.Text("in", "-")) {}

Operation::~Operation() {
  if (running_) (void)(*session_)->TivasKmAbort(handle_);
}

// What the key allows.
std::vector<uint64_t> Operation::Allowed(keymaster_tag_t tag) const {
  std::vector<uint64_t> all;
  for (const auto* set : {&characteristics_.hw_enforced, &characteristics_.sw_enforced}) {
    for (size_t i = 0; i < set->length; ++i) {
      if (set->params[i].tag == tag) all.push_back(NumberOf(set->params[i]));
    }
  }
  return all;
}

// Returns the option's value if it was given, else the first preferred one that the key allows.
Operation::Chosen Operation::Choose(const char* option, keymaster_tag_t tag,
                                    const char* preferred) const {
  const std::vector<uint64_t> allowed = Allowed(tag);
  Chosen chosen = args_.Value(option, tag);
  for (const std::string& name : Split(preferred, ',')) {
    const Chosen value = ValueByName(tag, name);
    chosen = !chosen && Contains(allowed, *value) ? value : chosen;
  }
  return chosen;
}

// Rejects an option that would change nothing.
void Operation::RejectUnused(const std::string& subject, const char* used) const {
  const std::vector<std::string> known = Split(used, ',');
  for (const char* option : {"digest", "padding", "mode", "mac-length"}) {
    RequireUsage(!args_.Has(option) || Contains(known, option),
                 std::string("--") + option + " means nothing for " + subject);
  }
}

void Operation::PlanRsa(bool signs) {
  RejectUnused("an RSA key", "digest,padding");
  Chosen padding =
      Choose("padding", KM_TAG_PADDING, signs ? "pkcs1-sign,pss,none" : "oaep,pkcs1-encrypt,none");
  if (padding == kPadPkcs1ByUse) {
    padding = signs ? KM_PAD_RSA_PKCS1_1_5_SIGN : KM_PAD_RSA_PKCS1_1_5_ENCRYPT;
  }
  AddChosen(KM_TAG_PADDING, padding, &params_);
  const bool raw = padding == KM_PAD_NONE;
  const bool digests = args_.Has("digest") || signs || padding == KM_PAD_RSA_OAEP;
  AddChosen(KM_TAG_DIGEST,
            raw && signs && !args_.Has("digest") ? Chosen(KM_DIGEST_NONE)
            : digests                            ? Choose("digest", KM_TAG_DIGEST, kDigests)
                                                 : Chosen(),
            &params_);
}

void Operation::PlanHmac() {
  RejectUnused("an HMAC key", "digest,mac-length");
  const Chosen digest = Choose("digest", KM_TAG_DIGEST, kDigests);
  AddChosen(KM_TAG_DIGEST, digest, &params_);
  // A verification takes the length of the MAC that it is given.
  if (purpose_ == KM_PURPOSE_SIGN) {
    constexpr uint32_t kBits[] = {0, 128, 160, 224, 256, 384, 512};
    const uint32_t whole = digest.value_or(0) < std::size(kBits) ? kBits[digest.value_or(0)] : 0;
    params_.Add(KM_TAG_MAC_LENGTH, args_.Number("mac-length").value_or(whole));
  }
}

void Operation::PlanCipher() {
  const Chosen mode = Choose("mode", KM_TAG_BLOCK_MODE, "gcm,cbc,ctr,ecb");
  Require(mode.has_value(), "the key has no block mode; give --mode");
  mode_ = *mode;
  const bool gcm = mode_ == KM_MODE_GCM;
  RejectUnused(gcm ? "a cipher" : "a cipher in this mode",
               gcm ? "mode,padding,mac-length" : "mode,padding");
  params_.Add(KM_TAG_BLOCK_MODE, mode_);
  const bool pads = mode_ == KM_MODE_CBC || mode_ == KM_MODE_ECB;
  const Chosen padding = Choose("padding", KM_TAG_PADDING, pads ? "pkcs7,none" : "none");
  AddChosen(KM_TAG_PADDING, pads ? padding : padding.value_or(KM_PAD_NONE), &params_);
  const size_t block = algorithm_ == KM_ALGORITHM_AES ? 16 : 8;
  nonce_length_ = gcm ? 12 : mode_ == KM_MODE_ECB ? 0 : block;
  if (gcm) params_.Add(KM_TAG_MAC_LENGTH, args_.Number("mac-length").value_or(128));
}

void Operation::Plan() {
  session_.emplace();
  key_.ReadCharacteristics(&*session_, &characteristics_);
  key_.AddBindingTo(&params_);
  const std::vector<uint64_t> algorithms = Allowed(KM_TAG_ALGORITHM);
  Require(!algorithms.empty(), "the key has no algorithm");
  algorithm_ = static_cast<uint32_t>(algorithms[0]);
  if (algorithm_ == KM_ALGORITHM_RSA) {
    PlanRsa(purpose_ == KM_PURPOSE_SIGN || purpose_ == KM_PURPOSE_VERIFY);
  } else if (algorithm_ == KM_ALGORITHM_EC) {
    RejectUnused("an EC key", "digest");
    AddChosen(KM_TAG_DIGEST, Choose("digest", KM_TAG_DIGEST, kDigests), &params_);
  } else if (algorithm_ == KM_ALGORITHM_HMAC) {
    PlanHmac();
  } else {
    PlanCipher();
  }
  RequireUsage(!args_.Has("nonce") || nonce_length_ != 0,
               "--nonce means nothing for this key or mode");
}

// The token that the options give for an operation: 0 for begin, then by its handle. Empty where
// they give none.
Bytes Operation::Token(uint64_t challenge) {
  const std::optional<uint64_t> sid = args_.Number("auth-sid");
  hw_auth_token_t token = {};
  token.challenge = challenge;
  token.user_id = sid.value_or(0);
  token.authenticator_type = HW_AUTH_PASSWORD;
  token.timestamp = MillisecondsSinceBoot();
  return sid ? MakeAuthToken(token, SharingParameters(&*session_)) : token_bytes_;
}

// Says so when the token is for another user than the key.
std::string Operation::UserHint(const Bytes& bytes) const {
  const std::vector<uint64_t> users = Allowed(KM_TAG_USER_SECURE_ID);
  const std::optional<hw_auth_token_t> token = ReadAuthToken(bytes);
  const bool other = token && !users.empty() && !Contains(users, token->user_id) &&
                     !Contains(users, token->authenticator_id);
  return other ? "the key is for the user with secure id " + std::to_string(users[0]) + ", not " +
                     std::to_string(token->user_id)
               : "";
}

void Operation::Begin() {
  const Bytes token = Token(0);
  user_hint_ = UserHint(token);
  if (!token.empty()) params_.Add(KM_TAG_AUTH_TOKEN, token);
  OwnedParamSet out;
  CheckRequest("begin",
               (*session_)->TivasKmBegin(purpose_, key_.blob(), params_.set(), &out, &handle_));
  running_ = true;
  for (size_t i = 0; i < out.length; ++i) {
    if (out.params[i].tag == KM_TAG_NONCE) nonce_ = Copy(out.params[i].blob);
  }
  ParamList associated;
  if (!token.empty()) {
    const Bytes own = Token(handle_);
    token_.Add(KM_TAG_AUTH_TOKEN, own);
    associated.Add(KM_TAG_AUTH_TOKEN, own);
  }
  if (args_.Has("aad")) {
    associated.Add(KM_TAG_ASSOCIATED_DATA, ParseBytes(args_.Text("aad")));
    CheckRequest(
        "update with associated data",
        (*session_)->TivasKmUpdate(handle_, associated.set(), nullptr, nullptr, nullptr, nullptr));
  }
}

void Operation::CheckRequest(const char* what, int32_t result) {
  running_ = running_ && result == 0;
  const std::string hint = result == KM_ERROR_KEY_USER_NOT_AUTHENTICATED ? user_hint_
                           : result == KM_ERROR_UNSUPPORTED_PURPOSE      ? UsesHint(algorithm_)
                                                                         : "";
  key_.Check(what, result, hint);
}

// Sends input; what comes out goes to output, which is empty.
void Operation::Update(const Bytes& piece, OwnedBlob* output) {
  const keymaster_blob_t input = View(piece);
  unsigned long consumed = 0;
  CheckRequest("update", (*session_)->TivasKmUpdate(handle_, token_.set(), &input, &consumed,
                                                    nullptr, output));
  Require(consumed == piece.size(), "update took only a part of its input");
}

// Sends the last input, of any size, and for a verification the signature.
void Operation::Finish(const Bytes& rest, const Bytes* signature, OwnedBlob* output) {
  const keymaster_blob_t input = View(rest);
  if (signature == nullptr) {
    CheckRequest("finish", (*session_)->TivasKmFinishNew(handle_, token_.set(), &input, nullptr,
                                                         nullptr, output));
  } else {
    // A verification puts nothing out, and a finish of large input counts that as a failure.
    const bool large = rest.size() > kFinishLimit;
    if (large) Update(rest, output);
    const keymaster_blob_t given = View(*signature);
    CheckRequest("verification",
                 (*session_)->TivasKmFinish(handle_, token_.set(), large ? nullptr : &input, &given,
                                            nullptr, nullptr));
  }
  running_ = false;
}

void Operation::Run(const Bytes* signature, Output* output) {
  Progress progress(input_.size());
  Bytes piece;
  Bytes next;
  input_.Read(kPiece, &piece);
  for (bool last = false; !last; piece.swap(next)) {
    input_.Read(kPiece, &next);
    last = next.empty();
    OwnedBlob result;
    if (last) {
      Finish(piece, signature, &result);
    } else {
      Update(piece, &result);
    }
    if (output != nullptr) output->Write(result.data, result.data_length);
    progress.Add(piece.size());
  }
}

Progress::Progress(std::optional<uint64_t> total)
    : total_(total), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + kDelay) {}

Progress::~Progress() {
  if (drawn_) fputs("\r\x1b[K", stderr);
}

void Progress::Add(size_t bytes) {
  done_ += bytes;
  if (!terminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + kInterval;
  drawn_ = true;
  const uint64_t total = total_.value_or(0);
  const std::string line = total == 0 ? MiB(done_)
                                      : std::to_string(std::min(done_, total) * 100 / total) +
                                            "%  " + MiB(done_) + " of " + MiB(total);
  fprintf(stderr, "\r%s MiB\x1b[K", line.c_str());
}
