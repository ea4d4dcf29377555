// A keymaster HAL service in small: connects to the TA, makes an EC key, signs and verifies with
// it, meets both kinds of error, and releases everything that it was given.
#include <keymaster_tivas_context.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

namespace {

// ---- Ownership. What a method writes to an output is malloc memory and the caller's from then
// on; what a method takes as input stays the caller's. So each output gets an owner right away.

void Release(const keymaster_key_blob_t& blob) { free(const_cast<uint8_t*>(blob.key_material)); }
void Release(const keymaster_blob_t& blob) { free(const_cast<uint8_t*>(blob.data)); }

// Of a parameter set the bytes of each byte value first, then the array.
void Release(const keymaster_key_param_set_t& set) {
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_tag_type_t type = keymaster_tag_get_type(set.params[i].tag);
    if (type == KM_BYTES || type == KM_BIGNUM) Release(set.params[i].blob);
  }
  free(set.params);
}

void Release(const keymaster_key_characteristics_t& characteristics) {
  Release(characteristics.hw_enforced);
  Release(characteristics.sw_enforced);
}

template <typename Output>
struct Owned : Output {
  Owned() : Output{} {}
  Owned(const Owned&) = delete;
  ~Owned() { Release(*this); }
};

// ---- Errors. A result is 0, a keymaster error (of the library or of the TA), or the TEE's own
// code, 0xFFFF0000 to 0xFFFFEFFF, which a keystore does not know: that one becomes a keymaster
// error here. The TEE's codes are in the log, where they help.

keymaster_error_t ToKeystore(const char* what, int32_t result) {
  if (result == 0) return KM_ERROR_OK;
  const uint32_t code = static_cast<uint32_t>(result);
  const bool from_tee = code >= 0xFFFF0000u && code < 0xFFFFF000u;
  printf("%s failed: %s 0x%08x\n", what, from_tee ? "TEE result" : "keymaster error", code);
  if (!from_tee) return static_cast<keymaster_error_t>(result);
  return code == 0xFFFF000Cu ? KM_ERROR_MEMORY_ALLOCATION_FAILED
                             : KM_ERROR_SECURE_HW_COMMUNICATION_FAILED;
}

// ---- Requests.

keymaster_key_param_t Number(keymaster_tag_t tag, uint32_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.integer = value;
  return param;
}

keymaster_error_t MakeKey(keymaster::KeymasterTivasContext* context, keymaster_key_blob_t* key) {
  std::vector<keymaster_key_param_t> params = {
      Number(KM_TAG_ALGORITHM, KM_ALGORITHM_EC),  Number(KM_TAG_KEY_SIZE, 256),
      Number(KM_TAG_PURPOSE, KM_PURPOSE_SIGN),    Number(KM_TAG_PURPOSE, KM_PURPOSE_VERIFY),
      Number(KM_TAG_DIGEST, KM_DIGEST_SHA_2_256), Number(KM_TAG_NO_AUTH_REQUIRED, 0),
  };
  params.back().boolean = true;
  const keymaster_key_param_set_t description = {params.data(), params.size()};
  Owned<keymaster_key_characteristics_t> characteristics;
  const int32_t result = context->TivasKmGenerateKey(&description, key, &characteristics);
  if (result != 0) return ToKeystore("generate", result);
  printf("key of %zu bytes, %zu characteristics\n", key->key_material_size,
         characteristics.hw_enforced.length + characteristics.sw_enforced.length);
  return KM_ERROR_OK;
}

// Sign and verify are the same operation but for the signature, which goes out or in.
keymaster_error_t Operate(keymaster::KeymasterTivasContext* context, keymaster_purpose_t purpose,
                          const keymaster_key_blob_t& key, const keymaster_blob_t& message,
                          const keymaster_blob_t* signature_in, keymaster_blob_t* signature_out) {
  keymaster_key_param_t digest = Number(KM_TAG_DIGEST, KM_DIGEST_SHA_2_256);
  const keymaster_key_param_set_t params = {&digest, 1};
  unsigned long operation = 0;
  int32_t result = context->TivasKmBegin(purpose, &key, &params, nullptr, &operation);
  if (result != 0) return ToKeystore("begin", result);
  unsigned long consumed = 0;
  result = context->TivasKmUpdate(operation, nullptr, &message, &consumed, nullptr, nullptr);
  if (result == 0) {
    result =
        context->TivasKmFinish(operation, nullptr, nullptr, signature_in, nullptr, signature_out);
  }
  if (result != 0) {
    // The TA may have ended the operation itself, so what abort says does not matter.
    (void)context->TivasKmAbort(operation);
  }
  return ToKeystore("update or finish", result);
}

bool Serve(keymaster::KeymasterTivasContext* context) {
  Owned<keymaster_key_blob_t> key;
  if (MakeKey(context, &key) != KM_ERROR_OK) return false;

  const uint8_t text[] = {'o', 'f', ' ', 'a', ' ', 'c', 'l', 'i', 'e', 'n', 't'};
  const keymaster_blob_t message = {text, sizeof(text)};
  Owned<keymaster_blob_t> signature;
  if (Operate(context, KM_PURPOSE_SIGN, key, message, nullptr, &signature) != KM_ERROR_OK) {
    return false;
  }
  printf("signature ");
  for (size_t i = 0; i < signature.data_length; ++i) {
    printf("%02x", signature.data[i]);
  }
  printf("\n");

  const keymaster_blob_t other = {text, sizeof(text) - 1};
  Owned<keymaster_blob_t> nothing;
  return Operate(context, KM_PURPOSE_VERIFY, key, message, &signature, &nothing) == KM_ERROR_OK &&
         Operate(context, KM_PURPOSE_VERIFY, key, other, &signature, &nothing) ==
             KM_ERROR_VERIFICATION_FAILED;
}

}  // namespace

int main() {
  // One object for the process. Its methods may run on several threads; making and finalising the
  // TEE context may not meet them.
  keymaster::KeymasterTivasContext context;
  const int32_t started = context.Initialize(keymaster::KmVersion::KEYMASTER_4_1);
  const bool served = ToKeystore("start", started) == KM_ERROR_OK && Serve(&context);
  // The destructor does not do this, and a start that failed late leaves the TEE context up.
  (void)context.FinishTeeContext();

  // Without the TEE context every command fails, with the TEE's code for it.
  const bool down = ToKeystore("early boot ended", context.TivasKmEarlyBootEnded()) ==
                    KM_ERROR_SECURE_HW_COMMUNICATION_FAILED;
  printf(served && down ? "done\n" : "failed\n");
  return served && down ? 0 : 1;
}
