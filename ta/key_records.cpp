#include "ta/key_records.h"

#include <unistd.h>

#include <algorithm>

#include "ta/device_state.h"
#include "ta/state.h"

namespace ta {
namespace {

std::string RecordName(const char* kind, const Bytes& key_id) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string name = kind;
  for (const uint8_t byte : key_id) {
    name += kDigits[byte >> 4];
    name += kDigits[byte & 0xF];
  }
  return name;
}

// How often and when last a key was used since the device booted.
struct Usage {
  uint64_t count = 0;
  uint64_t last_use = 0;  // milliseconds since boot
};

// The nonce that was drawn at boot stands for the boot.
Usage ReadUsage(const std::string& name, ByteView boot) {
  Usage usage;
  SecureBytes content;
  if (!ReadStateFile(name, &content)) return usage;
  ByteReader reader(content);
  ByteView counted;
  RequireState(reader.TakeU64(&usage.count) && reader.TakeU64(&usage.last_use) &&
                   reader.TakeBytes(boot.size, &counted) && reader.remaining() == 0,
               "a usage record is damaged");
  return std::equal(boot.begin(), boot.end(), counted.begin()) ? usage : Usage();
}

void WriteUsage(const std::string& name, ByteView boot, const Usage& usage) {
  Bytes content;
  AppendU64(&content, usage.count);
  AppendU64(&content, usage.last_use);
  AppendBytes(&content, boot);
  ReplaceStateFile(name, content);
}

}  // namespace

void RecordDeletion(const Bytes& key_id) {
  CreateStateFile(RecordName("deleted_", key_id), ByteView());
  unlink(StateFile(RecordName("usage_", key_id)).c_str());
}

bool IsKeyDeleted(const Bytes& key_id) { return HasStateFile(RecordName("deleted_", key_id)); }

void CountUse(const Key& key) {
  const Param* max_uses = key.Find(KM_TAG_MAX_USES_PER_BOOT);
  const Param* min_seconds = key.Find(KM_TAG_MIN_SECONDS_BETWEEN_OPS);
  if (max_uses == nullptr && min_seconds == nullptr) return;
  const Bytes boot = UpdateBootState().sharing_nonce;
  const StateLock lock;
  const std::string name = RecordName("usage_", key.id);
  const uint64_t now = MillisSinceBoot();
  Usage usage = ReadUsage(name, boot);
  FailIf(min_seconds != nullptr && usage.count != 0 &&
             now - usage.last_use < min_seconds->value * 1000,
         KM_ERROR_KEY_RATE_LIMIT_EXCEEDED);
  FailIf(max_uses != nullptr && usage.count >= max_uses->value, KM_ERROR_KEY_MAX_OPS_EXCEEDED);
  ++usage.count;
  usage.last_use = now;
  WriteUsage(name, boot, usage);
}

}  // namespace ta
