// The options that name a key and those that describe a new one.
#ifndef KEYMASTERCTL_KEY_OPTIONS_H
#define KEYMASTERCTL_KEY_OPTIONS_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "params.h"
#include "session.h"

// What a key is bound to, and must be shown again with every use.
struct BindingArgs {
  std::optional<std::string> app_id;
  std::optional<std::string> app_data;
};

struct KeyArgs {
  std::string path;
  BindingArgs binding;
};

void AddBindingOptions(const Command& command, BindingArgs* args);
// AddKeyOptions adds --key with --app-id and --app-data, for a command that uses a key.
void AddKeyOptions(const Command& command, KeyArgs* args);

// Binding is what a key is bound to, read once: an option may name a stream.
struct Binding {
  explicit Binding(const BindingArgs& args);
  // Adds both to the parameters of a request, which carries them there.
  void AddTo(ParamList* params) const;

  std::optional<Bytes> app_id;
  std::optional<Bytes> app_data;
};

// Key is a key file's content as the library takes it.
class Key {
 public:
  explicit Key(const KeyArgs& args);

  const std::string& path() const { return path_; }
  const keymaster_key_blob_t* blob() const { return &blob_; }
  // Null where the user gave none.
  const keymaster_blob_t* app_id() const { return binding_.app_id ? &app_id_view_ : nullptr; }
  const keymaster_blob_t* app_data() const { return binding_.app_data ? &app_data_view_ : nullptr; }
  const Binding& binding() const { return binding_; }

 private:
  std::string path_;
  Bytes material_;
  Binding binding_;
  keymaster_key_blob_t blob_;
  keymaster_blob_t app_id_view_ = {};
  keymaster_blob_t app_data_view_ = {};
};

struct NewKeyArgs {
  std::string path;
  BindingArgs binding;
  std::optional<uint32_t> algorithm;
  std::optional<uint32_t> size;
  std::optional<uint32_t> curve;
  std::optional<uint64_t> exponent;
  std::optional<uint32_t> min_mac;
  std::vector<uint32_t> purposes;
  std::vector<uint32_t> digests;
  std::vector<uint32_t> paddings;
  std::vector<uint32_t> modes;
  std::vector<uint64_t> auth_sids;
  std::optional<uint32_t> auth_type;
  std::optional<uint32_t> auth_timeout;
  bool no_auth = false;
  bool caller_nonce = false;
  bool unlocked_device = false;
  bool early_boot = false;
  bool rollback_resistant = false;
  std::optional<std::string> valid_from;
  std::optional<std::string> valid_until;
  std::optional<std::string> use_until;
  std::optional<uint32_t> max_uses;
  std::optional<uint32_t> min_seconds;
  std::vector<std::string> extra;
};

// AddNewKeyOptions returns the option of the algorithm, which only some commands require.
Option AddNewKeyOptions(const Command& command, NewKeyArgs* args);
// FillNewKeyParams turns the options into the new key's parameters, with defaults for its
// algorithm where nothing was said. Throws a Failure without an algorithm.
void FillNewKeyParams(NewKeyArgs args, ParamList* params);
// CharacteristicsToTell returns the place for a new key's characteristics; null when only its file
// is told of.
std::unique_ptr<OwnedCharacteristics> CharacteristicsToTell();
// WriteKey writes a new key's file, mode 0600, and tells of it; with --json also what is enforced
// for the key, where that is given.
void WriteKey(const std::string& path, const keymaster_key_blob_t& blob,
              const keymaster_key_characteristics_t* characteristics);

#endif  // KEYMASTERCTL_KEY_OPTIONS_H
