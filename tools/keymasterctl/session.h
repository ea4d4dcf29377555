// The keymaster object of one command, and owners of what its methods hand out.
#ifndef KEYMASTERCTL_SESSION_H
#define KEYMASTERCTL_SESSION_H

#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>

#include "tools/keymasterctl/files.h"

// Session connects to the keymaster TA for one command and disconnects at its end. It fails before
// the TEE is reached when the TA's state folder cannot be used.
class Session : NotCopied {
 public:
  enum class Start {
    kConfigured,  // the TA is configured with the platform's system version
    kBare,        // the command configures the TA itself, or needs no configuration
  };
  explicit Session(Start start = Start::kConfigured);
  ~Session();

  // Configures the TA. Throws a Failure.
  void Configure(uint32_t os_version, uint32_t patch_level);

  keymaster::KeymasterTivasContext* operator->() { return &context_; }

 private:
  keymaster::KeymasterTivasContext context_;
};

using OwnedBlob = keymaster::TKeymasterBlob<keymaster_blob_t>;
using OwnedKeyBlob = keymaster::TKeymasterBlob<keymaster_key_blob_t>;

// Frees what a structure holds.
void Release(keymaster_key_param_set_t* set);
void Release(keymaster_key_characteristics_t* characteristics);
void Release(keymaster_cert_chain_t* chain);

template <typename T>
struct Owned : T, NotCopied {
  Owned() : T{} {}
  ~Owned() { Release(this); }
};
using OwnedParamSet = Owned<keymaster_key_param_set_t>;
using OwnedCharacteristics = Owned<keymaster_key_characteristics_t>;
using OwnedChain = Owned<keymaster_cert_chain_t>;

// Views and copies between the library's structures and byte vectors. A view lives as long as the
// vector.
keymaster_blob_t View(const Bytes& bytes);
keymaster_key_blob_t KeyView(const Bytes& bytes);
Bytes Copy(const keymaster_blob_t& blob);
Bytes Copy(const keymaster_key_blob_t& blob);

#endif  // KEYMASTERCTL_SESSION_H
