// Key attestation: the TA's chain buffer split into certificates.

#include <securec.h>

#include "context/reply.h"
#include "context/serialized_params.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "marshal/param_set.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kMinCertificates = 2;
// What the shortest certificate occupies in the reply: its length and one byte.
constexpr uint32_t kMinCertificateSize = sizeof(uint32_t) + 1;

void FreeAttestChain(keymaster_cert_chain_t* chain) {
  for (size_t i = 0; i < chain->entry_count; ++i) {
    free(const_cast<uint8_t*>(chain->entries[i].data));
  }
  free(chain->entries);
  *chain = keymaster_cert_chain_t{};
}

// Reads one certificate, whose bytes stay the reply's.
int32_t ReadCertificate(ReplyReader* reader, keymaster_blob_t* certificate) {
  uint32_t length = 0;
  const bool has_length = reader->ReadU32(&length);
  if (has_length && length == 0) return KM_ERROR_UNKNOWN_ERROR;
  if (!has_length || !reader->ReadBytes(length, &certificate->data)) {
    KM_LOGE("1 invalid out chain size(%u-%u)", reader->position(), reader->length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  certificate->data_length = length;
  return KM_ERROR_OK;
}

// Reads a reply that holds fewer certificates than it says up to the one that is missing.
int32_t ReadToMissing(ReplyReader reader) {
  keymaster_blob_t certificate;
  int32_t result;
  do {
    result = ReadCertificate(&reader, &certificate);
  } while (result == KM_ERROR_OK);
  return result;
}

int32_t CopyCertificate(const keymaster_blob_t& certificate, keymaster_blob_t* entry) {
  MallocBuffer copy = AllocateBytes(certificate.data_length);
  if (copy == nullptr) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  if (memcpy_s(copy.get(), certificate.data_length, certificate.data, certificate.data_length) !=
      0) {
    KM_LOGE("memcpy_s chain failed");
    return KM_ERROR_UNKNOWN_ERROR;
  }
  *entry = {copy.release(), certificate.data_length};
  return KM_ERROR_OK;
}

// Makes the chain's array of empty entries.
int32_t AllocateEntries(uint32_t count, keymaster_cert_chain_t* chain) {
  const size_t size = size_t{count} * sizeof(keymaster_blob_t);
  MallocPtr<keymaster_blob_t> entries = Allocate<keymaster_blob_t>(count);
  if (entries == nullptr) {
    KM_LOGE("%s : malloc chain entries failed", kLogFailure);
    return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  }
  if (memset_s(entries.get(), size, 0, size) != 0) return KM_ERROR_UNKNOWN_ERROR;
  chain->entries = entries.release();
  chain->entry_count = count;
  return KM_ERROR_OK;
}

// Fills a cleared chain. After a failure the chain may hold some entries; its owner frees them.
int32_t CopyChain(const Reply& reply, keymaster_cert_chain_t* chain) {
  ReplyReader reader;
  if (!reply.Read(&reader)) {
    KM_LOGE("1 invalid out chain size(%u-%u)", reply.capacity(), reply.reported_length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  uint32_t count = 0;
  if (!reader.ReadU32(&count)) {
    KM_LOGE("%s : chain_buf_len too small(%u)", kLogFailure, reader.length());
    return KM_ERROR_UNKNOWN_ERROR;
  }
  if (count < kMinCertificates) {
    KM_LOGE("%s : out_chain entry_count err", kLogFailure);
    return KM_ERROR_UNKNOWN_ERROR;
  }
  // A lying count sizes no allocation.
  if (count > reader.remaining() / kMinCertificateSize) return ReadToMissing(reader);
  int32_t result = AllocateEntries(count, chain);
  for (uint32_t i = 0; result == KM_ERROR_OK && i < count; ++i) {
    keymaster_blob_t certificate;
    result = ReadCertificate(&reader, &certificate);
    if (result == KM_ERROR_OK) result = CopyCertificate(certificate, &chain->entries[i]);
  }
  return result;
}

int32_t ExtractAttestChain(const Reply& reply, keymaster_cert_chain_t* chain) {
  int32_t result = KM_ERROR_UNKNOWN_ERROR;
  if (memset_s(chain, sizeof(*chain), 0, sizeof(*chain)) == 0) {
    result = CopyChain(reply, chain);
    if (result != KM_ERROR_OK) FreeAttestChain(chain);
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
  if (!params.Build(attest_params)) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  Reply reply(kChainCapacity);
  if (!reply.allocated()) return KM_ERROR_MEMORY_ALLOCATION_FAILED;
  const uint32_t tee_result =
      TeeAttestKey(key->key_material, static_cast<uint32_t>(key->key_material_size), params.data(),
                   params.length(), reply.buffer(), reply.length_in_out());
  if (tee_result != 0) return ReportFailure("%s : TeeAttestKey failed, ret=0x%x", tee_result);
  const int32_t result = ExtractAttestChain(reply, chain);
  if (result != KM_ERROR_OK) return result;
  KM_LOGI("KmAttestKey success");
  return KM_ERROR_OK;
}

}  // namespace keymaster
