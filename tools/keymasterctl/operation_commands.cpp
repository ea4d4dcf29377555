// sign, verify, encrypt, decrypt
//
// A ciphertext is the nonce (GCM: 12 bytes; CBC and CTR: one block; ECB and RSA: none), then what
// the TA puts out, which in GCM ends with the tag. With --nonce the nonce is not part of it.

#include <openssl/crypto.h>

#include <algorithm>

#include "tools/keymasterctl/auth_token.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/operation.h"
#include "tools/keymasterctl/report.h"

namespace {

constexpr size_t kPiece = 1u << 20;

// What an operation needs before it begins; files are opened before the TEE is reached.
class Prepared {
 public:
  Prepared(const Args& args, keymaster_purpose_t purpose)
      : args_(args),
        purpose_(purpose),
        key_(args),
        token_(args.Has("auth-token") ? ReadFile(args.Text("auth-token")) : Bytes()),
        input(args.Text("in", "-")) {}

  // Connects, and reads from the key what the options leave open.
  void Plan() {
    session_.emplace();
    plan = PlanOperation(&*session_, key_, purpose_, args_, &params);
    RequireUsage(!args_.Has("nonce") || plan.nonce_length != 0,
                 "--nonce means nothing for this key or mode");
  }

  // Begins, with the user's token and the associated data.
  Operation& Begin() {
    const Bytes token = Token(0);
    if (!token.empty()) {
      params.Add(KM_TAG_AUTH_TOKEN, token);
    }
    operation_.emplace(&*session_, purpose_, key_, &params, UserHint(token));
    if (!token.empty()) {
      operation_->SetAuthToken(Token(operation_->handle()));
    }
    if (args_.Has("aad")) {
      operation_->AddAssociatedData(ParseBytes(args_.Text("aad")));
    }
    return *operation_;
  }

 private:
  // The token that the options give for an operation: 0 for begin, then by its handle. Empty where
  // they give none.
  Bytes Token(uint64_t challenge) {
    const std::optional<uint64_t> sid = args_.Number("auth-sid");
    hw_auth_token_t token = {};
    token.challenge = challenge;
    token.user_id = sid.value_or(0);
    token.authenticator_type = HW_AUTH_PASSWORD;
    token.timestamp = MillisecondsSinceBoot();
    return sid ? MakeAuthToken(token, SharingParameters(&*session_)) : token_;
  }

  // Says so when the token is for another user than the key.
  std::string UserHint(const Bytes& bytes) const {
    const std::vector<uint64_t>& users = plan.sids;
    const std::optional<hw_auth_token_t> token = ReadAuthToken(bytes);
    const auto is_for = [&users](uint64_t sid) {
      return std::find(users.begin(), users.end(), sid) != users.end();
    };
    if (!token || users.empty() || is_for(token->user_id) || is_for(token->authenticator_id)) {
      return "";
    }
    return "the key is for the user with secure id " + std::to_string(users[0]) + ", not " +
           std::to_string(token->user_id);
  }

  const Args& args_;
  keymaster_purpose_t purpose_;
  Key key_;
  Bytes token_;  // read once, since it may be a stream
  std::optional<Session> session_;
  std::optional<Operation> operation_;

 public:
  Input input;
  ParamList params;
  OperationPlan plan;
};

// Runs the input through the operation, the last piece with finish.
void Stream(Operation* operation, Input* input, const Bytes* signature, Output* output) {
  Progress progress(input->size());
  Bytes piece;
  Bytes next;
  input->Read(kPiece, &piece);
  for (bool last = false; !last; piece.swap(next)) {
    input->Read(kPiece, &next);
    last = next.empty();
    OwnedBlob result;
    if (last) {
      operation->Finish(piece, signature, &result);
    } else {
      operation->Update(piece, &result);
    }
    if (output != nullptr) {
      output->Write(result.data, result.data_length);
    }
    OPENSSL_cleanse(piece.data(), piece.size());
    progress.Add(piece.size());
  }
}

}  // namespace

void RunSign(const Args& args) {
  Prepared prepared(args, KM_PURPOSE_SIGN);
  ResultFile output(args, Output::Content::kBinary);
  prepared.Plan();
  Stream(&prepared.Begin(), &prepared.input, nullptr, &output);
  output.CommitAs("signature");
}

void RunVerify(const Args& args) {
  const Bytes signature = ReadFile(args.Text("signature"));
  Prepared prepared(args, KM_PURPOSE_VERIFY);
  prepared.Plan();
  try {
    Stream(&prepared.Begin(), &prepared.input, &signature, nullptr);
  } catch (const Failure& failure) {
    if (!Style().json || failure.result != KM_ERROR_VERIFICATION_FAILED) {
      throw;
    }
    Report().Member("valid", false).Print();
    throw Failure("");
  }
  Report().Say(Paint(stdout, Color::kGreen, "signature is valid")).Member("valid", true).Print();
}

void RunEncrypt(const Args& args) {
  Prepared prepared(args, KM_PURPOSE_ENCRYPT);
  ResultFile output(args, Output::Content::kBinary);
  prepared.Plan();
  if (args.Has("nonce")) {
    prepared.params.Add(KM_TAG_NONCE, ParseBytes(args.Text("nonce")));
  }
  Operation& operation = prepared.Begin();
  if (!args.Has("nonce")) {
    output.Write(operation.nonce());
  }
  Stream(&operation, &prepared.input, nullptr, &output);
  output.CommitAs("ciphertext");
}

void RunDecrypt(const Args& args) {
  Prepared prepared(args, KM_PURPOSE_DECRYPT);
  ResultFile output(args, Output::Content::kText);
  prepared.Plan();
  const size_t nonce_length = prepared.plan.nonce_length;
  Bytes nonce = ParseBytes(args.Text("nonce"));
  if (!args.Has("nonce")) {
    prepared.input.Read(nonce_length, &nonce);
  }
  Require(args.Has("nonce") || nonce.size() == nonce_length,
          "the input is too short: it begins with a nonce of " + std::to_string(nonce_length) +
              " bytes");
  if (!nonce.empty()) {
    prepared.params.Add(KM_TAG_NONCE, nonce);
  }
  // Nothing that a tag has yet to confirm may be taken for the plaintext.
  if (prepared.plan.mode == KM_MODE_GCM) {
    output.Hold();
  }
  Stream(&prepared.Begin(), &prepared.input, nullptr, &output);
  output.CommitAs("plaintext");
}
