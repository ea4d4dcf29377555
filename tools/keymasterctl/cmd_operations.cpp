// sign, verify, encrypt, decrypt
//
// A ciphertext is the nonce (GCM: 12 bytes; CBC and CTR: one block; ECB and RSA: none), then what
// the TA puts out, which in GCM ends with the tag. With --nonce the nonce is not part of it.

#include <openssl/crypto.h>

#include "auth_token.h"
#include "commands.h"
#include "errors.h"
#include "names.h"
#include "operation.h"
#include "progress.h"
#include "report.h"
#include "terminal.h"

namespace {

constexpr size_t kPiece = 1u << 20;

struct OperationArgs {
  KeyArgs key;
  std::string in = "-";
  std::string out = "-";
  std::string signature;
  OperationChoice choice;
  std::string aad;
  std::optional<std::string> nonce;
  std::optional<std::string> token_path;
  std::optional<uint64_t> sid;
};

// Returns the token that the options give for an operation: 0 for begin, then by its handle.
Bytes TokenFor(const OperationArgs& args, const std::optional<Bytes>& given, Session& session,
               uint64_t challenge) {
  if (given) return *given;
  AuthTokenArgs token;
  token.sid = args.sid.value_or(0);
  token.challenge = challenge;
  return MakeAuthToken(token, SharingParameters(session));
}

bool Authenticates(const OperationArgs& args) { return args.token_path || args.sid; }

// What an operation needs before it begins, in the order of its members.
struct Prepared {
  Prepared(const OperationArgs& args, keymaster_purpose_t purpose)
      : key(args.key),
        input(args.in),
        plan(PlanOperation(session, key, purpose, args.choice, &params)) {
    // Read once, since it may be a stream.
    if (args.token_path) token = ReadFile(*args.token_path);
    if (Authenticates(args)) params.Add(KM_TAG_AUTH_TOKEN, TokenFor(args, token, session, 0));
  }
  Session session;
  Key key;
  Input input;
  ParamList params;
  OperationPlan plan;
  std::optional<Bytes> token;
};

// An operation that has begun, with its user's token and its associated data.
class Begun : public Operation {
 public:
  Begun(const OperationArgs& args, keymaster_purpose_t purpose, Prepared* prepared)
      : Operation(prepared->session, purpose, prepared->key, &prepared->params) {
    if (Authenticates(args))
      SetAuthToken(TokenFor(args, prepared->token, prepared->session, handle()));
    if (!args.aad.empty()) AddAssociatedData(ParseBytes(args.aad));
  }
};

// Runs the input through the operation, the last piece with finish.
void Stream(Operation* operation, Input* input, const Bytes* signature, Output* output) {
  Progress progress(input->size());
  Bytes piece;
  Bytes next;
  input->Read(kPiece, &piece);
  bool last = false;
  while (!last) {
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
    piece.swap(next);
  }
}

void RunSign(const OperationArgs& args) {
  NeedFileForJson(args.out);
  Prepared prepared(args, KM_PURPOSE_SIGN);
  Begun operation(args, KM_PURPOSE_SIGN, &prepared);
  Output output(args.out, Output::Access::kByUmask, Output::Release::kAsItComes);
  Stream(&operation, &prepared.input, nullptr, &output);
  output.Commit();
  TellWritten("signature", args.out, output.bytes());
}

void RunVerify(const OperationArgs& args) {
  const Bytes signature = ReadFile(args.signature);
  Prepared prepared(args, KM_PURPOSE_VERIFY);
  Begun operation(args, KM_PURPOSE_VERIFY, &prepared);
  try {
    Stream(&operation, &prepared.input, &signature, nullptr);
  } catch (const ResultFailure& failure) {
    if (!Style().json || failure.result() != KM_ERROR_VERIFICATION_FAILED) throw;
    Report().Member("valid", "false").Print();
    throw ToldFailure();
  }
  Report().Say(Paint(stdout, Color::kGreen, "signature is valid")).Member("valid", "true").Print();
}

void CheckNonce(const OperationArgs& args, const Prepared& prepared) {
  if (args.nonce && prepared.plan.nonce_length == 0) {
    throw UsageFailure("--nonce means nothing for this key or mode");
  }
}

void RunEncrypt(const OperationArgs& args) {
  NeedFileForJson(args.out);
  Prepared prepared(args, KM_PURPOSE_ENCRYPT);
  CheckNonce(args, prepared);
  if (args.nonce) prepared.params.Add(KM_TAG_NONCE, ParseBytes(*args.nonce));
  Begun operation(args, KM_PURPOSE_ENCRYPT, &prepared);
  Output output(args.out, Output::Access::kByUmask, Output::Release::kAsItComes);
  if (!args.nonce) output.Write(operation.nonce());
  Stream(&operation, &prepared.input, nullptr, &output);
  output.Commit();
  TellWritten("ciphertext", args.out, output.bytes());
}

void RunDecrypt(const OperationArgs& args) {
  NeedFileForJson(args.out);
  Prepared prepared(args, KM_PURPOSE_DECRYPT);
  CheckNonce(args, prepared);
  const size_t nonce_length = prepared.plan.nonce_length;
  const Bytes nonce = args.nonce ? ParseBytes(*args.nonce) : prepared.input.Read(nonce_length);
  if (!args.nonce && nonce.size() != nonce_length) {
    throw Failure("the input is too short: it begins with a nonce of " +
                  std::to_string(nonce_length) + " bytes");
  }
  if (!nonce.empty()) prepared.params.Add(KM_TAG_NONCE, nonce);
  Begun operation(args, KM_PURPOSE_DECRYPT, &prepared);
  // Nothing that a tag has yet to confirm may be taken for the plaintext.
  const bool held = prepared.plan.mode == KM_MODE_GCM;
  Output output(args.out, Output::Access::kByUmask,
                held ? Output::Release::kAtCommit : Output::Release::kAsItComes);
  Stream(&operation, &prepared.input, nullptr, &output);
  output.Commit();
  TellWritten("plaintext", args.out, output.bytes());
}

void AddCommonOptions(const Command& command, OperationArgs* args) {
  AddKeyOptions(command, &args->key);
  command.Add("-i,--in", &args->in, "Input file, - for standard input (default)").Takes("FILE");
  command.Add("--digest", &args->choice.digest, "Digest (default: sha256 if allowed)")
      .TakesNames(KM_TAG_DIGEST);
  command.Add("--padding", &args->choice.padding, "Padding (default: one that is allowed)")
      .TakesNames(KM_TAG_PADDING);
  const Option token = command
                           .Add("--auth-token", &args->token_path,
                                "File with an auth token, for a key that needs a user")
                           .Takes("FILE");
  command
      .Add("--auth-sid", &args->sid, "Authenticate this operation as the user with this secure id")
      .Excludes(token);
}

void AddSignOptions(const Command& command, OperationArgs* args) {
  AddCommonOptions(command, args);
  command.Add("-o,--out", &args->out, "Signature file, - for standard output (default)")
      .Takes("FILE");
  command.Add("--mac-length", &args->choice.mac_length, "Bits of an HMAC (default: the digest's)");
}

void AddCipherOptions(const Command& command, OperationArgs* args, const char* nonce) {
  AddCommonOptions(command, args);
  command.Add("-o,--out", &args->out, "Output file, - for standard output (default)").Takes("FILE");
  command.Add("--mode", &args->choice.mode, "Block mode (default: one that is allowed)")
      .TakesNames(KM_TAG_BLOCK_MODE);
  command.Add("--mac-length", &args->choice.mac_length, "Bits of the tag (default 128)");
  command.Add("--aad", &args->aad, "Associated data: text, 0x and hexadecimal, or @FILE")
      .Takes("BYTES");
  command.Add("--nonce", &args->nonce, nonce).Takes("BYTES");
}

}  // namespace

void AddOperationCommands(CommandLine* line) {
  {
    const auto [command, args] = line->AddCommand<OperationArgs>("sign", RunSign);
    AddSignOptions(command, args);
  }
  {
    const auto [command, args] = line->AddCommand<OperationArgs>("verify", RunVerify);
    AddCommonOptions(command, args);
    command.Add("--signature", &args->signature, "Signature file").Takes("FILE").Required();
  }
  {
    const auto [command, args] = line->AddCommand<OperationArgs>("encrypt", RunEncrypt);
    AddCipherOptions(command, args,
                     "Nonce, likewise; the output is then without it (key: --caller-nonce)");
  }
  {
    const auto [command, args] = line->AddCommand<OperationArgs>("decrypt", RunDecrypt);
    AddCipherOptions(command, args, "Nonce, likewise; the input is then without it");
  }
}
