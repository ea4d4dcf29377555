// The keymaster object of one command, and owners of what its methods hand out.
#ifndef KEYMASTERCTL_SESSION_H
#define KEYMASTERCTL_SESSION_H

#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>

#include <string>

#include "files.h"

// The log filter while the tool connects: the library tells of its start-up at error level under
// a tag of its own. Once connected, the tool shows all errors.
constexpr const char* kConnectingLogTags = "KeyMaster:E *:S";
constexpr const char* kConnectedLogTags = "*:E";

// Session connects to the keymaster TA for one command and disconnects at its end.
class Session {
 public:
  enum class Start {
    kConfigured,  // the TA is configured with the platform's system version
    kBare,        // the command configures the TA itself, or needs no configuration
  };
  explicit Session(Start start = Start::kConfigured);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  keymaster::KeymasterTivasContext* operator->() { return &context_; }

 private:
  keymaster::KeymasterTivasContext context_;
};

using OwnedBlob = keymaster::TKeymasterBlob<keymaster_blob_t>;
using OwnedKeyBlob = keymaster::TKeymasterBlob<keymaster_key_blob_t>;

struct OwnedParamSet : keymaster_key_param_set_t {
  OwnedParamSet() : keymaster_key_param_set_t{} {}
  ~OwnedParamSet();
  OwnedParamSet(const OwnedParamSet&) = delete;
  OwnedParamSet& operator=(const OwnedParamSet&) = delete;
};

struct OwnedCharacteristics : keymaster_key_characteristics_t {
  OwnedCharacteristics() : keymaster_key_characteristics_t{} {}
  ~OwnedCharacteristics();
  OwnedCharacteristics(const OwnedCharacteristics&) = delete;
  OwnedCharacteristics& operator=(const OwnedCharacteristics&) = delete;
};

struct OwnedChain : keymaster_cert_chain_t {
  OwnedChain() : keymaster_cert_chain_t{} {}
  ~OwnedChain();
  OwnedChain(const OwnedChain&) = delete;
  OwnedChain& operator=(const OwnedChain&) = delete;
};

// Views and copies between the library's structures and byte vectors. A view lives as long as the
// vector.
keymaster_blob_t View(const Bytes& bytes);
keymaster_key_blob_t KeyView(const Bytes& bytes);
Bytes Copy(const keymaster_blob_t& blob);
Bytes Copy(const keymaster_key_blob_t& blob);

#endif  // KEYMASTERCTL_SESSION_H
