// attest

#include "commands.h"
#include "errors.h"
#include "key_options.h"
#include "pem.h"

namespace {

struct AttestArgs {
  KeyArgs key;
  std::string challenge;
  std::string attest_app_id = "keymasterctl";
  std::vector<std::string> extra;
  std::string out = "-";
};

void RunAttest(const AttestArgs& args) {
  const Key key(args.key);
  ParamList params;
  AddBinding(args.key.binding, &params);
  params.Add(KM_TAG_ATTESTATION_CHALLENGE, ParseBytes(args.challenge));
  params.Add(KM_TAG_ATTESTATION_APPLICATION_ID, ParseBytes(args.attest_app_id));
  for (const std::string& text : args.extra) params.AddText(text);
  Session session;
  OwnedChain chain;
  Check("attest", session->TivasKmAttestKey(key.blob(), params.set(), &chain));
  Bytes pem;
  for (size_t i = 0; i < chain.entry_count; ++i) {
    const Bytes one = ToPem("CERTIFICATE", chain.entries[i]);
    pem.insert(pem.end(), one.begin(), one.end());
  }
  WriteFile(args.out, pem);
}

}  // namespace

void AddAttestCommands(CommandLine* line) {
  const auto [command, args] = line->AddCommand<AttestArgs>("attest", RunAttest);
  AddKeyOptions(command, &args->key);
  command
      .Add("--challenge", &args->challenge,
           "What the verifier asked for: text, 0x and hexadecimal, or @FILE")
      .Required();
  command.Add("--attest-app-id", &args->attest_app_id,
              "Attestation application id, likewise (default keymasterctl)");
  command.Add("--param", &args->extra,
              "Any other attestation parameter as NAME=VALUE, such as "
              "attestation-id-brand=TEXT");
  command.Add("-o,--out", &args->out, "Chain file, - for standard output (default)");
}
