// What the TA keeps between commands and runs: the state folder and the configured system version.
#ifndef TA_STATE_H
#define TA_STATE_H

#include <string.h>

#include <string>

#include "ta/bytes.h"

namespace ta {

// Every function here may be called from several threads and processes at once. What cannot be
// done for want of a usable folder, or with a file that is damaged or cannot be read, throws
// std::runtime_error, which ends the command.

// RequireState throws, which ends the command, when what the state needs did not succeed.
void RequireState(bool success, const char* failure);
// StateFile returns the path of a file of that name in the state folder: $KEYMASTER_TA_STATE, else
// $XDG_STATE_HOME/keymaster-ta, else $HOME/.local/state/keymaster-ta. The folder is made, for its
// owner alone, when it is missing.
std::string StateFile(const std::string& name);
// ReadStateFile reads a whole file; false when there is none.
bool ReadStateFile(const std::string& name, SecureBytes* out);
// HasStateFile tells whether there is a file of that name.
bool HasStateFile(const std::string& name);
// ReplaceStateFile writes a file, for its owner alone; readers see the old or the new content.
void ReplaceStateFile(const std::string& name, ByteView content);
// CreateStateFile writes a file that does not exist yet; false, with nothing changed, if it does.
bool CreateStateFile(const std::string& name, ByteView content);
// LoadOrCreate returns the content of a file, made the first time it is asked for: two processes
// that ask at once get the same one.
SecureBytes LoadOrCreate(const std::string& name, SecureBytes (*make)());
// LoadOrCreateSecret does so with 32 random bytes.
SecureBytes LoadOrCreateSecret(const std::string& name);

// ReadRecord reads a file that holds the bytes of a T and nothing else; false when there is none.
template <typename T>
bool ReadRecord(const std::string& name, T* record) {
  SecureBytes content;
  if (!ReadStateFile(name, &content)) return false;
  RequireState(content.size() == sizeof(T), "a record is damaged");
  memcpy(static_cast<void*>(record), content.data(), sizeof(T));
  return true;
}
// ReplaceRecord writes one.
template <typename T>
void ReplaceRecord(const std::string& name, const T& record) {
  ReplaceStateFile(name, ByteView(reinterpret_cast<const uint8_t*>(&record), sizeof(T)));
}

// OpenFile owns a descriptor; -1 for none.
struct OpenFile {
  explicit OpenFile(int opened) : fd(opened) {}
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  const int fd;
};
// StateLock holds an exclusive lock of the state folder, across processes, while it lives.
struct StateLock : OpenFile {
  StateLock();
};

// DeviceKey returns 32 bytes that only this device has, others for each label.
SecureBytes DeviceKey(const std::string& label);

// The OS version (MMmmss in decimal) and patch level (YYYYMM) that keys are bound to.
struct SystemVersion {
  uint32_t os_version = 0;
  uint32_t os_patchlevel = 0;
};
// SetSystemVersion configures the TA, and a TA that is started later.
void SetSystemVersion(const SystemVersion& version);
// GetSystemVersion returns false while the TA was never configured.
bool GetSystemVersion(SystemVersion* version);

}  // namespace ta

#endif  // TA_STATE_H
