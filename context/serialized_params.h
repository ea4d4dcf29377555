// A request's parameters as the TA reads them.
#ifndef CONTEXT_SERIALIZED_PARAMS_H
#define CONTEXT_SERIALIZED_PARAMS_H

#include "keymaster_ts.h"
#include "marshal/secret_blob.h"

namespace km41 {

// SerializedParams owns the serialised parameters of a request, and wipes them: they may carry
// auth tokens and application data. Until it is built it stands for no parameter buffer at all.
class SerializedParams {
 public:
  // Build serialises a whole set. False on any failure.
  [[nodiscard]] bool Build(const keymaster_key_param_set_t* params) {
    uint8_t* bytes = nullptr;
    uint32_t length = 0;
    const bool built = BuildKmParams(params, &bytes, &length) == 0;
    *bytes_.blob() = {bytes, length};
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

  const uint8_t* data() const { return bytes_.bytes(); }
  uint32_t length() const { return static_cast<uint32_t>(bytes_.size()); }

 private:
  SecretBlob bytes_;
};

}  // namespace km41

#endif  // CONTEXT_SERIALIZED_PARAMS_H
