// The TA's state folder on this host: whether it can be used, and copies of it to try things on.
#ifndef KEYMASTERCTL_STATE_H
#define KEYMASTERCTL_STATE_H

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/session.h"

// What a folder of the TA's has at least one of.
constexpr const char* kStateFiles[] = {"device_key", "system_version", "boot_state",
                                       "hmac_sharing_seed", "attestation.pem"};

// Variable returns a variable of the environment; empty where it is not set.
std::string Variable(const char* name);
// StateFolder returns the folder that the TA will use; empty where none is named.
std::string StateFolder();
// StateTrouble says why that folder cannot be used, with its path; empty where it can.
std::string StateTrouble();
constexpr const char* kStateAdvice =
    "name a new or empty folder of your own with --state DIR or KEYMASTER_TA_STATE";

// QuietEnvironment restores what it changed of the environment when it goes.
class QuietEnvironment : NotCopied {
 public:
  // Without what watches or disturbs the TA's commands.
  QuietEnvironment();
  ~QuietEnvironment();

  void Set(const char* name, const char* value);  // null unsets it

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

// Scratch is a copy of the state folder, without the files that skips names, in which the TA works
// while it lives. Nothing of it stays, and the folder itself is not changed.
class Scratch : NotCopied {
 public:
  enum class Host { kThisProcess, kAsSet };
  explicit Scratch(Host host, const std::function<bool(const std::string&)>& skips);
  ~Scratch();

 private:
  QuietEnvironment environment_;
  std::string folder_;
};

// KeepWitness leaves a sealed key in the state folder unless there is one: it opens as long as the
// folder's secrets are those that keys are made with.
void KeepWitness(Session* session);
// WitnessOpens tells whether the witness, if there is one, can still be opened. The TA must be
// configured with the latest version.
bool WitnessOpens(Session* session);
// ConfigureLatest has the TA take every version for an older one than its own.
void ConfigureLatest(Session* session);

// DiagnoseKey finds out on copies of the state why the TA does not open a key, and says so.
std::string DiagnoseKey(const Bytes& blob, const ParamList& binding);

#endif  // KEYMASTERCTL_STATE_H
