#include "ta/auth.h"
#include "ta/commands.h"
#include "ta/key.h"
#include "ta/key_description.h"
#include "ta/state.h"

namespace ta {
namespace {

// What the first byte of an import's last parameter says of where the key comes from.
uint32_t OriginOfImport(const TaParam& param) {
  constexpr uint32_t kOrigins[] = {KM_ORIGIN_GENERATED, KM_ORIGIN_IMPORTED,
                                   KM_ORIGIN_SECURELY_IMPORTED};
  const size_t type = param.size == 0 ? 1 : param.buffer[0];
  FailIf(type >= std::size(kOrigins), KM_ERROR_INVALID_ARGUMENT);
  return kOrigins[type];
}

void CheckNewKey(const ParamSet& description) {
  CheckKeyDescription(description);
  FailIf(description.IsTrue(KM_TAG_EARLY_BOOT_ONLY) && EarlyBootHasEnded(),
         KM_ERROR_EARLY_BOOT_ENDED);
}

void ReplyCharacteristics(const Key& key, TaParam* output) {
  Reply(Serialize({&key.hw_enforced, &key.sw_enforced}), output);
}

// Describes and seals a key just made, and answers with its blob and characteristics.
void ReplyNewKey(const ParamSet& description, uint32_t origin, Key* key, TaParam* blob,
                 TaParam* characteristics) {
  key->id.resize(kKeyIdSize);
  FillRandom(key->id.data(), kKeyIdSize);
  DescribeKey(description, origin, key);
  Reply(SealKeyBlob(*key, description), blob);
  // A reference without capacity asks for no characteristics.
  if (characteristics->size != 0) ReplyCharacteristics(*key, characteristics);
}

}  // namespace

void Configure(uint32_t, TaParam params[4]) { SetSystemVersion({params[0].a, params[0].b}); }

void GenerateKey(uint32_t types, TaParam params[4]) {
  const ParamSet description = RequestOf(types, params, 0);
  CheckNewKey(description);
  Key key = GenerateMaterial(description);
  ReplyNewKey(description, KM_ORIGIN_GENERATED, &key, &params[2], &params[3]);
}

void ImportKey(uint32_t types, TaParam params[4]) {
  ParamSet description = RequestOf(types, params, 0);
  const uint32_t origin = OriginOfImport(params[3]);
  CheckNewKey(description);
  Key key = ImportMaterial(InputOf(params[1]), &description);
  // Only RSA keys are generated outside; of others nobody may claim that the TA made them.
  FailIf(origin == KM_ORIGIN_GENERATED && key.algorithm != KM_ALGORITHM_RSA,
         KM_ERROR_INVALID_ARGUMENT);
  ReplyNewKey(description, origin, &key, &params[2], &params[3]);
}

void GetKeyCharacteristics(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 1);
  ReplyCharacteristics(OpenCurrentKey(InputOf(params[0]), request), &params[2]);
}

void ExportKey(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 1);
  Reply(ExportPublicKey(OpenKeyBlob(InputOf(params[0]), request)), &params[2]);
}

void UpgradeKey(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 1);
  Key key = OpenKeyBlob(InputOf(params[0]), request);
  const int order = VersionOrder(key);
  FailIf(order > 0, KM_ERROR_INVALID_ARGUMENT);
  if (order == 0) return Reply(ByteView(), &params[2]);
  SetKeySystemVersion(&key);
  Reply(SealKeyBlob(key, request), &params[2]);
}

void DeleteKey(uint32_t, TaParam params[4]) { RecordDeletion(IdentifyKeyBlob(InputOf(params[0]))); }

}  // namespace ta
