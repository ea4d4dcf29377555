// What the TA remembers about single keys: that they were deleted, and how they were used.
#include <string.h>
#include <unistd.h>

#include "ta/device_state.h"
#include "ta/key.h"
#include "ta/state.h"

namespace ta {
namespace {

// How often and when last a key was used since the device booted, as the key's file says it.
struct Usage {
  uint64_t count = 0;
  uint64_t last_use = 0;                                // milliseconds since boot
  uint8_t boot[sizeof(BootState::sharing_nonce)] = {};  // which stands for the boot
};

}  // namespace

void RecordDeletion(const Bytes& key_id) {
  CreateStateFile("deleted_" + Hex(key_id), ByteView());
  unlink(StateFile("usage_" + Hex(key_id)).c_str());
}

bool IsKeyDeleted(const Bytes& key_id) { return HasStateFile("deleted_" + Hex(key_id)); }

void CountUse(const Key& key) {
  const Param* max_uses = key.Find(KM_TAG_MAX_USES_PER_BOOT);
  const Param* min_seconds = key.Find(KM_TAG_MIN_SECONDS_BETWEEN_OPS);
  if (max_uses == nullptr && min_seconds == nullptr) return;
  const BootState boot = UpdateBootState();
  const StateLock lock;
  const std::string name = "usage_" + Hex(key.id);
  const uint64_t now = MillisSinceBoot();
  Usage usage;
  if (!ReadRecord(name, &usage) ||
      memcmp(usage.boot, boot.sharing_nonce, sizeof(usage.boot)) != 0) {
    usage = Usage();
    memcpy(usage.boot, boot.sharing_nonce, sizeof(usage.boot));
  }
  FailIf(min_seconds != nullptr && usage.count != 0 &&
             now - usage.last_use < min_seconds->value * 1000,
         KM_ERROR_KEY_RATE_LIMIT_EXCEEDED);
  FailIf(max_uses != nullptr && usage.count >= max_uses->value, KM_ERROR_KEY_MAX_OPS_EXCEEDED);
  ++usage.count;
  usage.last_use = now;
  ReplaceRecord(name, usage);
}

}  // namespace ta
