#include "ta/device_state.h"

#include <time.h>

#include <fstream>
#include <string>

#include "ta/commands.h"
#include "ta/evp.h"
#include "ta/state.h"

namespace ta {
namespace {

constexpr char kFileName[] = "boot_state";

// The system's name for this boot; the same for all processes that run during it.
std::string BootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  RequireState(std::getline(file, id) && id.size() == sizeof(BootState::boot_id), "no boot id");
  return id;
}

// False without a record, and for that of another boot.
bool Load(const std::string& boot_id, BootState* state) {
  return ReadRecord(kFileName, state) &&
         boot_id.compare(0, boot_id.size(), state->boot_id, sizeof(state->boot_id)) == 0;
}

}  // namespace

uint64_t MillisSinceBoot() {
  timespec now{};
  RequireState(clock_gettime(CLOCK_BOOTTIME, &now) == 0, "no clock");
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

BootState UpdateBootState(const std::function<void(BootState*)>& change) {
  const std::string boot_id = BootId();
  BootState state = {};
  if (!change && Load(boot_id, &state)) return state;

  const StateLock lock;
  if (!Load(boot_id, &state)) {
    state = {};
    boot_id.copy(state.boot_id, sizeof(state.boot_id));
    FillRandom(state.sharing_nonce, sizeof(state.sharing_nonce));
  }
  if (change) change(&state);
  ReplaceRecord(kFileName, state);
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
