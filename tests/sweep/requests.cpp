#include "tests/sweep/requests.h"

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#include <utility>

namespace test {
namespace {

// ---- Inputs

keymaster_key_param_set_t g_none{};

const keymaster_key_param_set_t* EcParams() {
  static ParamSet set({{KM_TAG_ALGORITHM, KM_ALGORITHM_EC},
                       {KM_TAG_KEY_SIZE, 256},
                       {KM_TAG_APPLICATION_ID, Text("client")}});
  return set.get();
}

const keymaster_key_param_set_t* RsaParams() {
  static ParamSet set({{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                       {KM_TAG_KEY_SIZE, 512},
                       {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}});
  return set.get();
}

const keymaster_key_param_set_t* OperationParams() {
  static ParamSet set({{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, Ramp(1, 20)}});
  return set.get();
}

keymaster_key_blob_t* Key(const Bytes& bytes) {
  thread_local keymaster_key_blob_t key;
  key = KeyBlob(bytes);
  return &key;
}

// The last part of a long input begins with the fixture's.
const Bytes& LongInput() {
  static const Bytes input = Cat({Ramp(0, 68), fixture().input, Ramp(0, 0x80000 - 99)});
  return input;
}

uint64_t Digest(const Bytes& bytes) {
  return std::hash<std::string>()(std::string(bytes.begin(), bytes.end()));
}

// A blob of the kinds that own their bytes.
template <typename BlobType>
struct Held : keymaster::TKeymasterBlob<BlobType> {
  explicit Held(const Bytes& bytes) {
    keymaster::BlobData(*this) = keymaster::dup_buffer(bytes.data(), bytes.size());
    keymaster::BlobSize(*this) = bytes.size();
  }
};
using HeldKey = Held<keymaster_key_blob_t>;
using HeldBytes = Held<keymaster_blob_t>;

std::vector<Request> MakeRequests() {
  static const Fixture& f = fixture();
  static keymaster::KeymasterTivasContext km;
  static const keymaster_blob_t client = Blob(f.ec_blob);
  static const char kNewKey[] = "k:ue h:ue s:ue", kProcessed[] = "p:e d:e";
  std::vector<Request> all;
  const auto add = [&all](const char* name, const char* left,
                          std::function<int32_t(Outputs&)> run) {
    all.push_back({name, left, std::move(run)});
  };
  const auto add_import = [&](const char* name, keymaster_key_format_t format, const Bytes& key) {
    add(name, kNewKey, [format, data = Blob(key)](Outputs& o) {
      return km.TivasKmImportKey(EcParams(), format, &data, &o.key, &o.traits);
    });
  };
  const auto add_export = [&](const char* name, const Bytes& key) {
    add(name, "d:e", [&key](Outputs& o) {
      return km.TivasKmExportKey(KM_KEY_FORMAT_X509, Key(key), &client, &client, &o.data);
    });
  };
  const auto add_finish = [&](const char* name, const uint8_t* bytes, size_t length) {
    add(name, kProcessed, [input = keymaster_blob_t{bytes, length}](Outputs& o) {
      return km.TivasKmFinishNew(7, OperationParams(), &input, &input, &o.params, &o.data);
    });
  };

  add("Initialize", "",
      [](Outputs&) { return km.Initialize(keymaster::KmVersion::KEYMASTER_4_1); });
  add("GenerateEc", kNewKey,
      [](Outputs& o) { return km.TivasKmGenerateKey(EcParams(), &o.key, &o.traits); });
  add("GenerateRsa", kNewKey,
      [](Outputs& o) { return km.TivasKmGenerateKey(RsaParams(), &o.key, &o.traits); });
  add_import("ImportRaw", KM_KEY_FORMAT_RAW, f.mask);
  add_import("ImportRsa", KM_KEY_FORMAT_PKCS8, f.rsa_pkcs8);
  add_import("ImportEc", KM_KEY_FORMAT_PKCS8, f.ec_pkcs8);
  add_export("ExportRsa", f.blob);
  add_export("ExportEc", f.ec_blob);
  add("GetKeyCharacteristics", "h:ue s:ue", [](Outputs& o) {
    return km.TivasKmGetKeyCharacteristics(Key(f.blob), &client, &client, &o.traits);
  });
  add("UpgradeKey", "",
      [](Outputs& o) { return km.TivasKmUpgradeKey(Key(f.blob), OperationParams(), &o.key); });
  add("Deletekey", "", [](Outputs&) { return km.TivasKmDeletekey(Key(f.blob)); });
  add("AttestKey", "c:ue",
      [](Outputs& o) { return km.TivasKmAttestKey(Key(f.blob), OperationParams(), &o.chain); });
  add("Begin", "p:e", [](Outputs& o) {
    return km.TivasKmBegin(KM_PURPOSE_ENCRYPT, Key(f.blob), OperationParams(), &o.params,
                           &o.number[0]);
  });
  add("Update", kProcessed, [](Outputs& o) {
    const keymaster_blob_t input = Blob(LongInput());
    return km.TivasKmUpdate(7, OperationParams(), &input, &o.number[0], &o.params, &o.data);
  });
  add("UpdateAssociatedData", kProcessed, [](Outputs& o) {
    return km.TivasKmUpdate(7, OperationParams(), nullptr, nullptr, &o.params, &o.data);
  });
  add_finish("FinishNew", f.input.data(), f.input.size());
  add_finish("FinishLarge", LongInput().data(), 4100);
  add("Abort", "", [](Outputs&) { return km.TivasKmAbort(7); });
  for (const auto& [name, wrapped] :
       {std::pair{"ImportWrappedKey", &f.wrapper}, {"ImportWrappedPkcs8", &f.pkcs8_wrapper}}) {
    add(name, kNewKey, [bytes = wrapped](Outputs& o) {
      const keymaster_key_blob_t wrapper = KeyBlob(*bytes), mask = KeyBlob(f.mask);
      return km.TivasKmImportWrappedKeyNew(&wrapper, Key(f.blob), &mask, &g_none, 1, 2, &o.key,
                                           &o.traits);
    });
  }
  add("UnwrappedKey", "d:e", [](Outputs& o) {
    const HeldKey wrapper(f.wrapper);
    keymaster_key_blob_t mask = KeyBlob(f.mask);
    keymaster::AuthorizationSet list;
    keymaster_key_format_t format;
    o.data = {};
    return km.TivasKmUnwrappedKey(&wrapper, Key(f.blob), &g_none, &mask, &list, &format, &o.data);
  });
  add("DecryptTransitKeyMaterial", "d:e", [](Outputs& o) {
    HeldKey transit(Ramp(1, 256));
    o.data = {};
    return km.DecryptTransitKeyMaterial(Key(f.blob), &g_none, &transit, &o.data);
  });
  add("WrappedKeyAesGcmDecrypt", "d:ue", [](Outputs& o) {
    keymaster_blob_t transit = Blob(f.transit);
    HeldBytes iv(Ramp(3, 12)), description(Ramp(4, 20));
    HeldKey payload(Ramp(2, 48));
    return km.WrappedKeyAesGcmDecrypt(&transit, &iv, &description, &payload, &o.data);
  });
  add("VerifyAuthorization", "p:ew", [](Outputs& o) {
    const keymaster_blob_t token = Blob(f.wrapper);
    o.params = {};
    TsVerificationToken out{kUntouched, kUntouched, &o.params, 0, {}};
    const int32_t result = km.TivasVerifyAuthorization(5, OperationParams(), &token, &out);
    if (out.parameters_verified != &o.params) return static_cast<int32_t>(kInputError);
    o.number[0] = out.challenge;
    o.number[1] = out.timestamp;
    const Bytes rest = Cat({Le32(out.security_level), Bytes(out.mac, out.mac + 32)});
    if (rest != Bytes(36)) o.number[2] = Digest(rest);
    return result;
  });
  add("EarlyBootEnded", "", [](Outputs&) { return km.TivasKmEarlyBootEnded(); });
  add("DeviceLocked", "", [](Outputs&) { return km.TivasKmDeviceLocked(true); });
  add("GetHmacSharingParameters", "", [](Outputs& o) {
    Bytes a(32, 0xA5), b(32, 0xA5);
    const int32_t result = km.TivasgetHmacSharingParameters(a.data(), 32, b.data(), 32);
    if (result == 0) o.number[0] = Digest(Cat({a, b}));
    return result;
  });
  add("ComputeSharedHmac", "d:e", [](Outputs& o) {
    uint8_t in[9] = {};
    return km.TivascomputeSharedHmac(in, sizeof(in), &o.data);
  });
  add("DestroyAttestationIds", "",
      [](Outputs&) { return static_cast<int32_t>(TeeDestroyAttestationIds()); });
  return all;
}

}  // namespace

const std::vector<Request>& Requests() {
  static const std::vector<Request> requests = MakeRequests();
  return requests;
}

}  // namespace test
