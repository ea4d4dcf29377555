#include <algorithm>
#include <cstring>

#include "ta/attest_chain.h"
#include "ta/attest_extension.h"
#include "ta/commands.h"
#include "ta/key.h"
#include "ta/state.h"

namespace ta {
namespace {

constexpr size_t kMaxChallengeSize = 128;
constexpr size_t kMaxApplicationIdSize = 1024;

// What this device can attest about itself. A tag with a null text is one it has no value for.
struct DeviceId {
  keymaster_tag_t tag;
  const char* text;
};
constexpr DeviceId kDeviceIds[] = {
    {KM_TAG_ATTESTATION_ID_BRAND, "host"},
    {KM_TAG_ATTESTATION_ID_DEVICE, "keymaster_host"},
    {KM_TAG_ATTESTATION_ID_PRODUCT, "keymaster_host"},
    {KM_TAG_ATTESTATION_ID_SERIAL, nullptr},
    {KM_TAG_ATTESTATION_ID_IMEI, nullptr},
    {KM_TAG_ATTESTATION_ID_MEID, nullptr},
    {KM_TAG_ATTESTATION_ID_MANUFACTURER, "host"},
    {KM_TAG_ATTESTATION_ID_MODEL, "Keymaster Host"},
};

// A key's own list without what only an attestation may add, and without the secure ids, which say
// nothing to a relying party.
ParamSet Attestable(ParamSet params) {
  for (const DeviceId& id : kDeviceIds) {
    params.Remove(id.tag);
  }
  params.Remove(KM_TAG_ATTESTATION_APPLICATION_ID);
  params.Remove(KM_TAG_ROOT_OF_TRUST);
  params.Remove(KM_TAG_USER_SECURE_ID);
  return params;
}

// False if an id is asked for that is not this device's.
bool AddDeviceIds(const ParamSet& request, ParamSet* tee_enforced) {
  for (const DeviceId& id : kDeviceIds) {
    const Param* const asked = request.Find(id.tag);
    if (asked == nullptr) continue;
    if (id.text == nullptr || asked->bytes.size() != strlen(id.text) ||
        !std::equal(asked->bytes.begin(), asked->bytes.end(), id.text)) {
      return false;
    }
    tee_enforced->Add(*asked);
  }
  return true;
}

// An id of this device for an application, other ones every 30 days and after the user's reset.
// Empty for a key that is not to have it.
Bytes UniqueId(const Key& key, const ParamSet& request) {
  constexpr uint64_t kSlotMillis = uint64_t{30} * 24 * 60 * 60 * 1000;
  constexpr size_t kUniqueIdSize = 16;
  const Param* const created = key.Find(KM_TAG_CREATION_DATETIME);
  if (!key.hw_enforced.IsTrue(KM_TAG_INCLUDE_UNIQUE_ID) || created == nullptr) return {};
  Bytes message;
  AppendU64(&message, created->value / kSlotMillis);
  AppendBytes(&message, request.BytesOf(KM_TAG_APPLICATION_ID));
  message.push_back(request.IsTrue(KM_TAG_RESET_SINCE_ID_ROTATION) ? 1 : 0);
  const SecureBytes mac = HmacSha256(DeviceKey("unique id"), message);
  return Bytes(mac.begin(), mac.begin() + kUniqueIdSize);
}

Bytes DescribeKey(const Key& key, const ParamSet& request) {
  const Param* const challenge = request.Find(KM_TAG_ATTESTATION_CHALLENGE);
  const Param* const application = request.Find(KM_TAG_ATTESTATION_APPLICATION_ID);
  FailIf(challenge == nullptr, KM_ERROR_ATTESTATION_CHALLENGE_MISSING);
  FailIf(application == nullptr, KM_ERROR_ATTESTATION_APPLICATION_ID_MISSING);
  FailIf(challenge->bytes.size() > kMaxChallengeSize ||
             application->bytes.size() > kMaxApplicationIdSize,
         KM_ERROR_INVALID_INPUT_LENGTH);

  ParamSet software_enforced = Attestable(key.sw_enforced);
  software_enforced.Add(*application);
  ParamSet tee_enforced = Attestable(key.hw_enforced);
  tee_enforced.AddBytes(KM_TAG_ROOT_OF_TRUST, HostRootOfTrust());
  FailIf(!AddDeviceIds(request, &tee_enforced), KM_ERROR_CANNOT_ATTEST_IDS);
  return EncodeKeyDescription(challenge->bytes, UniqueId(key, request), software_enforced,
                              tee_enforced);
}

}  // namespace

// Replies with leaf, intermediate, root: a 32-bit count, then of each certificate a 32-bit length
// and its DER.
void AttestKey(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 1);
  const Key key = OpenCurrentKey(InputOf(params[0]), request);
  FailIf(!key.pkey, KM_ERROR_INCOMPATIBLE_ALGORITHM);
  const Bytes key_description = DescribeKey(key, request);

  const AttestationAuthority authority = LoadOrCreateAuthority();
  const X509Ptr leaf = BuildLeaf(authority, key, key_description);
  X509* const certificates[] = {leaf.get(), authority.intermediate.get(), authority.root.get()};
  Bytes chain;
  AppendU32(&chain, static_cast<uint32_t>(std::size(certificates)));
  for (X509* certificate : certificates) {
    const Bytes der = ToDer(certificate, i2d_X509);
    AppendU32(&chain, static_cast<uint32_t>(der.size()));
    AppendBytes(&chain, der);
  }
  Reply(chain, &params[2]);
}

}  // namespace ta
