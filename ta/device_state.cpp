#include "ta/device_state.h"

#include <time.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "ta/commands.h"
#include "ta/evp.h"
#include "ta/state.h"

namespace ta {
namespace {

constexpr char kFileName[] = "boot_state";
constexpr size_t kKeySize = 32;
enum Flag : uint8_t { kEarlyBootEnded = 1, kLocked = 2, kLockNeedsPassword = 4, kKeyShared = 8 };

// Layout: boot id, flags (1 byte), time of the lock (8), nonce (32), shared key (32).
SecureBytes Serialize(const std::string& boot_id, const BootState& state) {
  SecureBytes record(boot_id.begin(), boot_id.end());
  const bool shared = !state.shared_hmac_key.empty();
  record.push_back(static_cast<uint8_t>(
      (state.early_boot_ended ? kEarlyBootEnded : 0) | (state.locked ? kLocked : 0) |
      (state.lock_needs_password ? kLockNeedsPassword : 0) | (shared ? kKeyShared : 0)));
  AppendU64(&record, state.locked_at);
  AppendBytes(&record, state.sharing_nonce);
  AppendBytes(&record, shared ? state.shared_hmac_key : SecureBytes(kKeySize));
  return record;
}

// False for the record of another boot.
bool Parse(ByteView record, const std::string& boot_id, BootState* state) {
  ByteReader reader(record);
  ByteView id, nonce, key;
  uint8_t flags = 0;
  RequireState(reader.TakeBytes(boot_id.size(), &id) && reader.TakeU8(&flags) &&
                   reader.TakeU64(&state->locked_at) &&
                   reader.TakeBytes(state->sharing_nonce.size(), &nonce) &&
                   reader.TakeBytes(kKeySize, &key) && reader.remaining() == 0,
               "the boot state is damaged");
  if (!std::equal(id.begin(), id.end(), boot_id.begin())) return false;
  state->sharing_nonce.assign(nonce.begin(), nonce.end());
  if ((flags & kKeyShared) != 0) state->shared_hmac_key.assign(key.begin(), key.end());
  state->early_boot_ended = (flags & kEarlyBootEnded) != 0;
  state->locked = (flags & kLocked) != 0;
  state->lock_needs_password = (flags & kLockNeedsPassword) != 0;
  return true;
}

bool Load(const std::string& boot_id, BootState* state) {
  SecureBytes record;
  return ReadStateFile(kFileName, &record) && Parse(record, boot_id, state);
}

// The system's name for this boot; the same for all processes that run during it.
std::string BootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  RequireState(std::getline(file, id) && !id.empty(), "no boot id");
  return id;
}

}  // namespace

uint64_t MillisSinceBoot() {
  timespec now{};
  RequireState(clock_gettime(CLOCK_BOOTTIME, &now) == 0, "no clock");
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

BootState UpdateBootState(const std::function<void(BootState*)>& change) {
  const std::string boot_id = BootId();
  BootState state;
  if (!change && Load(boot_id, &state)) return state;

  const StateLock lock;
  state = BootState();
  if (!Load(boot_id, &state)) {
    state = BootState();
    FillRandom(state.sharing_nonce.data(), state.sharing_nonce.size());
  }
  if (change) change(&state);
  ReplaceStateFile(kFileName, Serialize(boot_id, state));
  return state;
}

bool EarlyBootHasEnded() { return UpdateBootState().early_boot_ended; }

bool DeviceUnlockedFor(const AuthToken* token) {
  const auto still_locked = [token](const BootState& state) {
    return state.locked &&
           (token == nullptr || token->timestamp <= state.locked_at ||
            (state.lock_needs_password && (token->authenticator_type & HW_AUTH_PASSWORD) == 0));
  };
  const BootState now = UpdateBootState();
  if (!now.locked || still_locked(now)) return !now.locked;
  // Another process may have locked the device again since.
  return !UpdateBootState([&](BootState* state) { state->locked = still_locked(*state); }).locked;
}

void EarlyBootEnded(uint32_t, TaParam*) {
  UpdateBootState([](BootState* state) { state->early_boot_ended = true; });
}

void DeviceLocked(uint32_t, TaParam params[4]) {
  const bool needs_password = params[0].a != 0;
  UpdateBootState([needs_password](BootState* state) {
    state->locked = true;
    state->lock_needs_password = needs_password;
    state->locked_at = MillisSinceBoot();
  });
}

}  // namespace ta
