#include <cstring>

#include "platform/tee_client/sessions.h"

const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid) {
  const bool is_found = std::memcmp(&kKeymasterTrustedApp.uuid, &uuid, sizeof(uuid)) == 0;
  return is_found ? &kKeymasterTrustedApp : nullptr;
}
