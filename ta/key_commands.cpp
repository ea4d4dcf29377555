#include <openssl/rand.h>

#include "commands.h"
#include "device_state.h"
#include "key.h"
#include "key_description.h"
#include "key_material.h"
#include "key_records.h"
#include "state.h"

namespace ta {
namespace {

// What the first byte of an import's last parameter says of where the key comes from.
TEEC_Result OriginOfImport(const TaParam& param, uint32_t* origin) {
  constexpr uint32_t kOrigins[] = {KM_ORIGIN_GENERATED, KM_ORIGIN_IMPORTED,
                                   KM_ORIGIN_SECURELY_IMPORTED};
  const size_t type = param.size == 0 ? 1 : param.buffer[0];
  if (type >= std::size(kOrigins)) return Fail(KM_ERROR_INVALID_ARGUMENT);
  *origin = kOrigins[type];
  return TEEC_SUCCESS;
}

TEEC_Result ParseRequest(const TaParam& param, ParamSet* request) {
  return ParseTwoLists(InputOf(param), request) ? TEEC_SUCCESS : Fail(KM_ERROR_INVALID_ARGUMENT);
}

// The parameters of a request that may come without any.
TEEC_Result ParseOptionalRequest(uint32_t types, const TaParam& param, ParamSet* request) {
  return TEEC_PARAM_TYPE_GET(types, 1) == TEEC_NONE ? TEEC_SUCCESS : ParseRequest(param, request);
}

TEEC_Result CheckNewKey(const ParamSet& description) {
  if (const TEEC_Result result = CheckKeyDescription(description); result != 0) return result;
  return description.IsTrue(KM_TAG_EARLY_BOOT_ONLY) && EarlyBootHasEnded()
             ? Fail(KM_ERROR_EARLY_BOOT_ENDED)
             : TEEC_SUCCESS;
}

TEEC_Result ReplyCharacteristics(const Key& key, TaParam* output) {
  return Reply(SerializeTwoLists(key.hw_enforced, key.sw_enforced), output);
}

// Describes and seals a key just made, and answers with its blob and characteristics.
TEEC_Result ReplyNewKey(const ParamSet& description, Key* key, TaParam* blob_out,
                        TaParam* characteristics_out) {
  key->id.resize(kKeyIdSize);
  RequireCrypto(RAND_bytes(key->id.data(), kKeyIdSize) == 1);
  DescribeKey(description, key);
  Bytes blob;
  TEEC_Result result = SealKeyBlob(*key, description, &blob);
  if (result == 0) result = Reply(blob, blob_out);
  // A reference without capacity asks for no characteristics.
  if (result == 0 && characteristics_out->size != 0) {
    result = ReplyCharacteristics(*key, characteristics_out);
  }
  return result;
}

}  // namespace

TEEC_Result Configure(uint32_t, TaParam params[4]) {
  SetSystemVersion({params[0].a, params[0].b});
  return TEEC_SUCCESS;
}

TEEC_Result GenerateKey(uint32_t, TaParam params[4]) {
  ParamSet description;
  Key key;
  TEEC_Result result = ParseRequest(params[0], &description);
  if (result == 0) result = CheckNewKey(description);
  if (result == 0) result = GenerateMaterial(description, &key);
  if (result != 0) return result;
  key.origin = KM_ORIGIN_GENERATED;
  return ReplyNewKey(description, &key, &params[2], &params[3]);
}

TEEC_Result ImportKey(uint32_t, TaParam params[4]) {
  ParamSet description;
  Key key;
  TEEC_Result result = ParseRequest(params[0], &description);
  if (result == 0) result = OriginOfImport(params[3], &key.origin);
  if (result == 0) result = CheckNewKey(description);
  if (result == 0) result = ImportMaterial(InputOf(params[1]), &description, &key);
  if (result != 0) return result;
  return ReplyNewKey(description, &key, &params[2], &params[3]);
}

TEEC_Result GetKeyCharacteristics(uint32_t types, TaParam params[4]) {
  ParamSet request;
  Key key;
  TEEC_Result result = ParseOptionalRequest(types, params[1], &request);
  if (result == 0) result = OpenCurrentKey(InputOf(params[0]), request, &key);
  if (result != 0) return result;
  return ReplyCharacteristics(key, &params[2]);
}

TEEC_Result ExportKey(uint32_t types, TaParam params[4]) {
  ParamSet request;
  Key key;
  Bytes public_key;
  TEEC_Result result = ParseOptionalRequest(types, params[1], &request);
  if (result == 0) result = OpenKeyBlob(InputOf(params[0]), request, &key);
  if (result == 0) result = ExportPublicKey(key, &public_key);
  if (result != 0) return result;
  return Reply(public_key, &params[2]);
}

TEEC_Result UpgradeKey(uint32_t, TaParam params[4]) {
  ParamSet request;
  Key key;
  TEEC_Result result = ParseRequest(params[1], &request);
  if (result == 0) result = OpenKeyBlob(InputOf(params[0]), request, &key);
  if (result != 0) return result;
  SystemVersion now;
  GetSystemVersion(&now);
  const uint64_t os_version = key.hw_enforced.Value(KM_TAG_OS_VERSION).value_or(0);
  const uint64_t os_patchlevel = key.hw_enforced.Value(KM_TAG_OS_PATCHLEVEL).value_or(0);
  if (os_version > now.os_version || os_patchlevel > now.os_patchlevel) {
    return Fail(KM_ERROR_INVALID_ARGUMENT);
  }
  if (os_version == now.os_version && os_patchlevel == now.os_patchlevel) {
    return Reply(ByteView(), &params[2]);
  }
  SetKeySystemVersion(&key);
  Bytes blob;
  result = SealKeyBlob(key, request, &blob);
  return result == 0 ? Reply(blob, &params[2]) : result;
}

TEEC_Result DeleteKey(uint32_t, TaParam params[4]) {
  Bytes key_id;
  const TEEC_Result result = IdentifyKeyBlob(InputOf(params[0]), &key_id);
  if (result == 0) RecordDeletion(key_id);
  return result;
}

}  // namespace ta
