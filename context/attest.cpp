// Key attestation: the TA's chain buffer split into certificates.

#include <securec.h>

#include "context/owned_buffer.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "marshal/reply_reader.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kMinCertificates = 2;
// What the shortest certificate takes in the reply: its length field and one byte.
constexpr uint32_t kMinEntrySize = sizeof(uint32_t) + 1;

void FreeAttestChain(keymaster_cert_chain_t* chain) {
  if (chain == nullptr) {
    return;
  }
  for (size_t i = 0; chain->entries != nullptr && i < chain->entry_count; ++i) {
    free(const_cast<uint8_t*>(chain->entries[i].data));
    chain->entries[i] = keymaster_blob_t{};
  }
  free(chain->entries);
  *chain = keymaster_cert_chain_t{};
}

// Takes one certificate and copies it into entry.
int32_t TakeCertificate(ReplyReader* reader, uint32_t reply_len, keymaster_blob_t* entry) {
  uint32_t length = 0;
  if (!reader->TakeU32(&length)) {
    KM_LOGE("1 invalid out chain size(%u-%u)", reader->position(), reply_len);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  entry->data_length = length;
  if (length == 0) {
    return KM_ERROR_UNKNOWN_ERROR;
  }
  const uint8_t* bytes = nullptr;
  if (!reader->TakeBytes(length, &bytes)) {
    KM_LOGE("1 invalid out chain size(%u-%u)", reader->position(), reply_len);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  MallocBuffer copy = AllocateBytes(length);
  if (copy == nullptr) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (memcpy_s(copy.get(), length, bytes, length) != 0) {
    KM_LOGE("memcpy_s chain failed");
    return KM_ERROR_UNKNOWN_ERROR;
  }
  entry->data = copy.release();
  return KM_ERROR_OK;
}

// Makes the chain's array, zero-filled. A count that the reply cannot hold gets one entry more
// than it can, which is where reading it ends: a lying count does not size an allocation.
int32_t MakeEntries(uint32_t count, uint32_t room, keymaster_cert_chain_t* chain) {
  const uint32_t readable = room / kMinEntrySize + 1;
  const size_t entry_count = count < readable ? count : readable;
  const size_t size = entry_count * sizeof(keymaster_blob_t);
  auto* entries = static_cast<keymaster_blob_t*>(malloc(size));
  if (entries == nullptr) {
    KM_LOGE("%s : malloc chain entries failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (memset_s(entries, size, 0, size) != 0) {
    free(entries);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  chain->entries = entries;
  chain->entry_count = entry_count;
  return KM_ERROR_OK;
}

// Fills a cleared chain. After a failure the chain may hold some entries; its owner frees them.
int32_t TakeChain(const ReplyBuffer& reply, const uint8_t* bytes, keymaster_cert_chain_t* chain) {
  if (!reply.fits()) {
    KM_LOGE("1 invalid out chain size(%u-%u)", reply.capacity(), reply.length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  ReplyReader reader(bytes, reply.length());
  uint32_t count = 0;
  if (!reader.TakeU32(&count)) {
    KM_LOGE("%s : chain_buf_len too small(%u)", kLogFailure, reply.length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (count < kMinCertificates) {
    KM_LOGE("%s : out_chain entry_count err", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  int32_t result = MakeEntries(count, reader.remaining(), chain);
  for (size_t i = 0; result == KM_ERROR_OK && i < chain->entry_count; ++i) {
    result = TakeCertificate(&reader, reply.length(), &chain->entries[i]);
  }
  return result;
}

int32_t ExtractAttestChain(ReplyBuffer* reply, keymaster_cert_chain_t* chain) {
  int32_t result = KM_ERROR_UNKNOWN_ERROR;
  if (memset_s(chain, sizeof(*chain), 0, sizeof(*chain)) == 0) {
    result = TakeChain(*reply, reply->data(), chain);
    if (result != KM_ERROR_OK) {
      FreeAttestChain(chain);
    }
  }
  if (result != KM_ERROR_OK) {
    KM_LOGE("%s : ExtractAttestChain out error.\n", kLogFailure);
    return result;
  }
  KM_LOGI("extract attest cert chain success, entry_count=%zu.\n", chain->entry_count);
  return KM_ERROR_OK;
}

}  // namespace

namespace keymaster {

int32_t KeymasterTivasContext::TivasKmAttestKey(const keymaster_key_blob_t* key,
                                                const keymaster_key_param_set_t* attest_params,
                                                keymaster_cert_chain_t* chain) {
  KM_LOGI("KmAttestKey start");
  if (key == nullptr || attest_params == nullptr || chain == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (attest_params->length != 0 && attest_params->params == nullptr) {
    return KM_ERROR_UNEXPECTED_NULL_POINTER;
  }
  if (FindParam(*attest_params, KM_TAG_DEVICE_UNIQUE_ATTESTATION) != nullptr) {
    KM_LOGI("NonStrongBox must return KM_ERROR_UNIMPLEMENTED");
    return KM_ERROR_UNIMPLEMENTED;
  }
  SerializedParams params;
  if (!params.Build(attest_params)) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  ReplyBuffer reply(kChainCapacity);
  if (!reply.allocated()) {
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  const uint32_t tee_result =
      TeeAttestKey(key->key_material, static_cast<uint32_t>(key->key_material_size), params.data(),
                   params.length(), reply.data(), reply.length_in_out());
  if (tee_result != 0) {
    KM_LOGE("%s : TeeAttestKey failed, ret=0x%x", kLogFailure, tee_result);
    return static_cast<int32_t>(tee_result);
  }
  const int32_t result = ExtractAttestChain(&reply, chain);
  if (result != KM_ERROR_OK) {
    return result;
  }
  KM_LOGI("KmAttestKey success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
