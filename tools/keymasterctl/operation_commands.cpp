// sign, verify, encrypt, decrypt
//
// A ciphertext is the nonce (GCM: 12 bytes; CBC and CTR: one block; ECB and RSA: none), then what
// the TA puts out, which in GCM ends with the tag. With --nonce the nonce is not part of it.

#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/operation.h"
#include "tools/keymasterctl/report.h"

void RunSign(const Args& args) {
  Operation operation(args, KM_PURPOSE_SIGN);
  ResultFile output(args, Output::Content::kBinary);
  operation.Plan();
  operation.Begin();
  operation.Run(nullptr, &output);
  output.CommitAs("signature");
}

void RunVerify(const Args& args) {
  const Bytes signature = ReadFile(args.Text("signature"));
  Operation operation(args, KM_PURPOSE_VERIFY);
  operation.Plan();
  try {
    operation.Begin();
    operation.Run(&signature, nullptr);
  } catch (const Failure& failure) {
    if (!Style().json || failure.result != KM_ERROR_VERIFICATION_FAILED) throw;
    Report().Member("valid", false).Print();
    throw Failure("");
  }
  Report().Say(Paint(stdout, Color::kGreen, "signature is valid")).Member("valid", true).Print();
}

void RunEncrypt(const Args& args) {
  Operation operation(args, KM_PURPOSE_ENCRYPT);
  ResultFile output(args, Output::Content::kBinary);
  operation.Plan();
  if (args.Has("nonce")) operation.params().Add(KM_TAG_NONCE, ParseBytes(args.Text("nonce")));
  operation.Begin();
  if (!args.Has("nonce")) output.Write(operation.nonce());
  operation.Run(nullptr, &output);
  output.CommitAs("ciphertext");
}

void RunDecrypt(const Args& args) {
  Operation operation(args, KM_PURPOSE_DECRYPT);
  ResultFile output(args, Output::Content::kText);
  operation.Plan();
  const size_t length = operation.nonce_length();
  Bytes nonce = ParseBytes(args.Text("nonce"));
  if (!args.Has("nonce")) {
    operation.input().Read(length, &nonce);
    Require(nonce.size() == length, "the input is too short: it begins with a nonce of " +
                                        std::to_string(length) + " bytes");
  }
  if (!nonce.empty()) operation.params().Add(KM_TAG_NONCE, nonce);
  // Nothing that a tag has yet to confirm may be taken for the plaintext.
  if (operation.mode() == KM_MODE_GCM) output.Hold();
  operation.Begin();
  operation.Run(nullptr, &output);
  output.CommitAs("plaintext");
}
