// A request's parameters as the TA reads them.
#ifndef CONTEXT_SERIALIZED_PARAMS_H
#define CONTEXT_SERIALIZED_PARAMS_H

#include <openssl/crypto.h>

#include "keymaster_ts.h"
#include "wire/little_endian.h"
#include "wire/malloc_buffer.h"
#include "wire/ta_protocol.h"

namespace km41 {

// SerializedParams owns the serialised parameters of a request, and wipes their byte values: these
// may be auth tokens or application data. Until it is built it stands for no parameter buffer at
// all.
class SerializedParams {
 public:
  SerializedParams() = default;
  ~SerializedParams() {
    if (bytes_ != nullptr) OPENSSL_cleanse(bytes_.get() + AreaOffset(), length_ - AreaOffset());
  }
  SerializedParams(const SerializedParams&) = delete;
  SerializedParams& operator=(const SerializedParams&) = delete;

  // Build serialises a whole set. False on any failure.
  [[nodiscard]] bool Build(const keymaster_key_param_set_t* params) {
    uint8_t* bytes = nullptr;
    const bool built = BuildKmParams(params, &bytes, &length_) == 0;
    bytes_.reset(bytes);
    return built;
  }
  // BuildIfGiven is Build, and does nothing for a null set.
  [[nodiscard]] bool BuildIfGiven(const keymaster_key_param_set_t* params) {
    return params == nullptr || Build(params);
  }
  // BuildClient serialises the client id and the application data of a key, each only if it is not
  // null; with neither there is no buffer. False on any failure.
  [[nodiscard]] bool BuildClient(const keymaster_blob_t* client_id,
                                 const keymaster_blob_t* app_data);

  const uint8_t* data() const { return bytes_.get(); }
  uint32_t length() const { return length_; }

 private:
  // Where the byte values stand: behind both lists.
  uint32_t AreaOffset() const {
    const uint32_t second_at = 4 + GetU32(data()) * kParamEntrySize;
    return second_at + 4 + GetU32(data() + second_at) * kParamEntrySize;
  }

  MallocBuffer bytes_;
  uint32_t length_ = 0;
};

}  // namespace km41

#endif  // CONTEXT_SERIALIZED_PARAMS_H
