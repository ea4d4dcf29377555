// The outputs that the steps of an operation share.
#ifndef CONTEXT_OPERATION_OUTPUTS_H
#define CONTEXT_OPERATION_OUTPUTS_H

#include "context/owned_buffer.h"

namespace km41 {

// ClearOutputs leaves both outputs null with length 0; each may be null.
inline void ClearOutputs(keymaster_key_param_set_t* out_params, keymaster_blob_t* output) {
  if (out_params != nullptr) {
    *out_params = keymaster_key_param_set_t{};
  }
  if (output != nullptr) {
    *output = keymaster_blob_t{};
  }
}

// DecodeOutParams decodes a reply into the caller's cleared set. An empty reply, or no set, is
// nothing to decode.
inline bool DecodeOutParams(ReplyBuffer* reply, keymaster_key_param_set_t* out_params) {
  if (out_params == nullptr || reply->length() == 0) {
    return true;
  }
  return reply->fits() && BuildKeyParamSet(out_params, reply->data(), reply->length()) == 0;
}

}  // namespace km41

#endif  // CONTEXT_OPERATION_OUTPUTS_H
