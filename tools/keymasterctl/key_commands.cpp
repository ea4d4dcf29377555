// generate, import, import-wrapped, show, export, upgrade, delete, attest

#include <ctype.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/key.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

using Request = std::function<int32_t(Session*, const keymaster_key_param_set_t*, NewKey*)>;

// Makes a key with a request that fills in its blob and characteristics.
void MakeKey(const Args& args, const KeyFacts* facts, const char* what, const Request& request) {
  ParamList params;
  FillNewKeyParams(args, facts, &params);
  NewKey key(args);
  Session session;
  Check(what, request(&session, params.set(), &key));
  key.Write(&session);
}

// The masking key's file holds its bytes, or hexadecimal digits in lines.
Bytes ReadMask(const Args& args) {
  if (!args.Has("mask")) return Bytes(32);
  Bytes content = ReadFile(args.Text("mask"));
  std::string digits(content.begin(), content.end());
  digits.erase(std::remove_if(digits.begin(), digits.end(), isspace), digits.end());
  const std::optional<Bytes> bytes = ParseHex(digits);
  return bytes && bytes->size() == 32 ? *bytes : content;
}

}  // namespace

void RunGenerate(const Args& args) {
  MakeKey(args, nullptr, "generate",
          [](Session* session, const keymaster_key_param_set_t* params, NewKey* key) {
            return (*session)->TivasKmGenerateKey(params, key->blob(), key->characteristics());
          });
}

void RunImport(const Args& args) {
  const Bytes file = ReadFile(args.Text("in", "-"));
  const std::optional<uint32_t> algorithm = AlgorithmOf(args);
  const bool raw = args.Has("raw");
  // Of the 192 bits of a triple DES key 168 count.
  const size_t bits = algorithm == KM_ALGORITHM_TRIPLE_DES ? 7 : 8;
  const PrivateKey key =
      raw ? PrivateKey{file, {algorithm.value_or(KM_ALGORITHM_AES), file.size() * bits}}
          : ReadPrivateKey(file);
  RequireUsage(algorithm.value_or(key.facts.algorithm) == key.facts.algorithm,
               "the input is a key for " + ValueName(KM_TAG_ALGORITHM, key.facts.algorithm));
  MakeKey(args, &key.facts, "import",
          [&](Session* session, const keymaster_key_param_set_t* params, NewKey* made) {
            const keymaster_blob_t data = View(key.bytes);
            return (*session)->TivasKmImportKey(params,
                                                raw ? KM_KEY_FORMAT_RAW : KM_KEY_FORMAT_PKCS8,
                                                &data, made->blob(), made->characteristics());
          });
}

void RunImportWrapped(const Args& args) {
  const Bytes wrapped = ReadFile(args.Text("wrapped"));
  const Key wrapping(args, "wrapping-key");
  const Bytes mask = ReadMask(args);
  NewKey key(args);
  const keymaster_key_blob_t wrapped_view = KeyView(wrapped);
  const keymaster_key_blob_t mask_view = KeyView(mask);
  ParamList params;
  // With a digest of the user's own the library's defaults, which say SHA-1, do not apply.
  if (const auto digest = args.Value("digest", KM_TAG_DIGEST); digest) {
    params.Add(KM_TAG_DIGEST, *digest);
    params.Add(KM_TAG_PADDING, KM_PAD_RSA_OAEP);
    params.Add(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY);
  }
  Session session;
  wrapping.Check("import of the wrapped key",
                 session->TivasKmImportWrappedKeyNew(
                     &wrapped_view, wrapping.blob(), &mask_view, params.set(),
                     args.Number("password-sid").value_or(0),
                     args.Number("biometric-sid").value_or(0), key.blob(), key.characteristics()));
  key.Write(&session);
}

void RunShow(const Args& args) {
  const Key key(args);
  Session session;
  OwnedCharacteristics characteristics;
  key.ReadCharacteristics(&session, &characteristics);
  Report report;
  report.Row("key", args.Text("key")).Row("bytes", key.content().size());
  const keymaster_key_param_set_t& hardware = characteristics.hw_enforced;
  const keymaster_key_param_set_t& software = characteristics.sw_enforced;
  report.Member("hardware enforced", SetJson(hardware))
      .Member("software enforced", SetJson(software));
  report
      .Say("hardware-enforced:\n" + SetText(hardware) + "software-enforced:\n" + SetText(software))
      .Print();
}

void RunExport(const Args& args) {
  const bool der = args.Has("der") && !args.Has("pem");
  const Key key(args);
  ResultFile output(args, der ? Output::Content::kBinary : Output::Content::kText);
  Session session;
  OwnedBlob spki;
  key.Check("export", session->TivasKmExportKey(KM_KEY_FORMAT_X509, key.blob(), key.app_id(),
                                                key.app_data(), &spki));
  output.Write(der ? Copy(spki) : ToPem("PUBLIC KEY", spki));
  output.CommitAs("public key");
}

void RunUpgrade(const Args& args) {
  const Key key(args);
  const std::string path = args.Text("key");
  NewKey upgraded =
      args.Has("out") ? NewKey(args, "out") : NewKey(path, Output::Existing::kInPlace);
  ParamList params;
  key.AddBindingTo(&params);
  Session session;
  key.Check("upgrade", session->TivasKmUpgradeKey(key.blob(), params.set(), upgraded.blob()));
  if (upgraded.blob()->key_material != nullptr) {
    upgraded.Write(&session);
    return;
  }
  Report().Say(path + " needs no upgrade").Member("key", path).Member("upgraded", false).Print();
}

void RunDelete(const Args& args) {
  const std::string path = args.Text("key");
  RequireUsage(path != "-" || args.Has("keep-file"),
               "name the key's file, which is removed, or give --keep-file");
  const Key key(args);
  Session session;
  key.Check("delete", session->TivasKmDeletekey(key.blob()));
  if (!args.Has("keep-file") && unlink(path.c_str()) != 0) {
    throw SystemFailure("cannot remove", path);
  }
  Report().Say("deleted " + path).Member("deleted", path).Print();
}

void RunAttest(const Args& args) {
  const Key key(args);
  ParamList params;
  key.AddBindingTo(&params);
  params.AddText(KM_TAG_ATTESTATION_CHALLENGE, args.Text("challenge"));
  params.AddText(KM_TAG_ATTESTATION_APPLICATION_ID, args.Text("attest-app-id", "keymasterctl"));
  for (const std::string& text : args.Texts("param")) {
    params.AddNamed(text);
  }
  ResultFile output(args, Output::Content::kText);
  Session session;
  OwnedChain chain;
  key.Check("attest", session->TivasKmAttestKey(key.blob(), params.set(), &chain));
  for (size_t i = 0; i < chain.entry_count; ++i) {
    output.Write(ToPem("CERTIFICATE", chain.entries[i]));
  }
  output.CommitAs("chain");
}
