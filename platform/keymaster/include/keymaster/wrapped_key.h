// The wrapper of a securely imported key.
#ifndef KEYMASTER_WRAPPED_KEY_H
#define KEYMASTER_WRAPPED_KEY_H

#include <hardware/keymaster_defs.h>
#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>

namespace keymaster {

// Takes a DER SecureKeyWrapper apart. The five blobs receive malloc copies; the key description's
// bytes are those of the wrapper. Returns KM_ERROR_OK, KM_ERROR_UNEXPECTED_NULL_POINTER,
// KM_ERROR_INVALID_ARGUMENT for what does not decode (for want of memory too, which libcrypto does
// not tell apart), or KM_ERROR_MEMORY_ALLOCATION_FAILED; on failure every output is empty.
__attribute__((visibility("default"))) keymaster_error_t parse_wrapped_key(
    const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key, TKeymasterBlob<keymaster_blob_t>* iv,
    TKeymasterBlob<keymaster_key_blob_t>* transit_key,
    TKeymasterBlob<keymaster_key_blob_t>* secure_key, TKeymasterBlob<keymaster_blob_t>* tag,
    AuthorizationSet* auth_list, keymaster_key_format_t* key_format,
    TKeymasterBlob<keymaster_blob_t>* wrapped_key_description);

}  // namespace keymaster

#endif  // KEYMASTER_WRAPPED_KEY_H
