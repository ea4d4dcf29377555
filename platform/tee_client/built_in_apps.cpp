#include "platform/tee_client/built_in_apps.h"

#include <cstring>

const TrustedApp* FindBuiltInApp(const TEEC_UUID& uuid) {
  static const TrustedApp* const kApps[] = {&kKeymasterTrustedApp};
  for (const TrustedApp* app : kApps) {
    if (std::memcmp(&app->uuid, &uuid, sizeof(uuid)) == 0) return app;
  }
  return nullptr;
}
