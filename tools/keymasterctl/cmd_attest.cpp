// attest

#include "attestation.h"
#include "commands.h"
#include "errors.h"
#include "key_options.h"
#include "pem.h"
#include "report.h"

namespace {

struct AttestArgs {
  KeyArgs key;
  std::string challenge;
  std::string attest_app_id = "keymasterctl";
  std::vector<std::string> extra;
  std::string out = "-";
};

// Tells what the chain says; standard output is for that only when the chain is not there.
void TellChain(const AttestArgs& args, const OwnedChain& chain) {
  std::vector<std::string> certificates;
  for (size_t i = 0; i < chain.entry_count; ++i) {
    const CertificateSummary one = ReadCertificate(chain.entries[i]);
    certificates.push_back(JsonObject({{"subject", JsonText(one.subject)},
                                       {"issuer", JsonText(one.issuer)},
                                       {"not_after", JsonText(one.not_after)}},
                                      4));
  }
  Report report;
  report.Row("chain", args.out).Row("length", chain.entry_count);
  report.Member("certificates", JsonList(certificates, 2));
  const std::optional<Attestation> leaf =
      chain.entry_count > 0 ? ReadAttestation(chain.entries[0]) : std::nullopt;
  if (leaf) {
    report.Row("attestation version", leaf->version)
        .Row("attestation security level", SecurityLevelName(leaf->security_level))
        .Row("keymaster version", leaf->keymaster_version)
        .Row("keymaster security level", SecurityLevelName(leaf->keymaster_security_level))
        .Row("challenge", "0x" + ToHex(leaf->challenge));
  }
  report.Print();
}

void RunAttest(const AttestArgs& args) {
  NeedFileForJson(args.out);
  const Key key(args.key);
  ParamList params;
  key.binding().AddTo(&params);
  params.Add(KM_TAG_ATTESTATION_CHALLENGE, ParseBytes(args.challenge));
  params.Add(KM_TAG_ATTESTATION_APPLICATION_ID, ParseBytes(args.attest_app_id));
  for (const std::string& text : args.extra) params.AddText(text);
  Session session;
  OwnedChain chain;
  Check("attest", session->TivasKmAttestKey(key.blob(), params.set(), &chain), args.key.path);
  Bytes pem;
  for (size_t i = 0; i < chain.entry_count; ++i) {
    const Bytes one = ToPem("CERTIFICATE", chain.entries[i]);
    pem.insert(pem.end(), one.begin(), one.end());
  }
  WriteFile(args.out, pem);
  if (args.out != "-") TellChain(args, chain);
}

}  // namespace

void AddAttestCommands(CommandLine* line) {
  const auto [command, args] = line->AddCommand<AttestArgs>("attest", RunAttest);
  AddKeyOptions(command, &args->key);
  command
      .Add("--challenge", &args->challenge,
           "What the verifier asked for: text, 0x and hexadecimal, or @FILE")
      .Takes("BYTES")
      .Required();
  command.Add("--attest-app-id", &args->attest_app_id,
              "Attestation application id, likewise (default keymasterctl)");
  command
      .Add("--param", &args->extra,
           "Any other attestation parameter as NAME=VALUE, such as "
           "attestation-id-brand=TEXT")
      .Takes("NAME=VALUE");
  command.Add("-o,--out", &args->out, "Chain file, - for standard output (default)").Takes("FILE");
}
