// Key files, those that are used and new ones; and keys and certificates between PEM and DER.
#ifndef KEYMASTERCTL_KEY_H
#define KEYMASTERCTL_KEY_H

#include <memory>
#include <optional>
#include <string>

#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/session.h"

// Key is a key file's content, with what the key is bound to, as the library takes them.
class Key {
 public:
  // The file is the value of --key, or of another option.
  explicit Key(const Args& args, const char* option = "key");

  const Bytes& content() const { return material_; }
  const keymaster_key_blob_t* blob() const { return &blob_; }
  // Null where the user gave none.
  const keymaster_blob_t* app_id() const { return binding_->BytesOf(KM_TAG_APPLICATION_ID); }
  const keymaster_blob_t* app_data() const { return binding_->BytesOf(KM_TAG_APPLICATION_DATA); }
  // Adds both to the parameters of a request, which carries them there.
  void AddBindingTo(ParamList* params) const;
  // Throws a Failure that knows this key unless the result is 0; hint, if any, goes before its own.
  void Check(const char* what, int32_t result, const std::string& hint = "") const;
  // Reads what is enforced for the key. Throws a Failure.
  void ReadCharacteristics(Session* session, OwnedCharacteristics* out) const;

 private:
  std::string path_;
  Bytes material_;
  std::shared_ptr<ParamList> binding_;  // a Failure shares it
  keymaster_key_blob_t blob_;
};

// What the material of an imported key says about it.
struct KeyFacts {
  uint32_t algorithm = 0;
  uint64_t size = 0;      // bits
  uint64_t exponent = 0;  // 0 where the algorithm has none
};

// FillNewKeyParams turns the options into the new key's parameters, with defaults for its
// algorithm where nothing was said. Throws a Failure for what does not fit the algorithm; what
// --param says is left to the TA. facts may be null.
void FillNewKeyParams(const Args& args, const KeyFacts* facts, ParamList* params);
// UsesHint says what keys for an algorithm can be used for.
std::string UsesHint(uint32_t algorithm);
// AlgorithmOf returns the value of --algorithm.
std::optional<uint32_t> AlgorithmOf(const Args& args);

// NewKey receives a key from a request and writes its file, mode 0600, which must not exist unless
// --force is given.
class NewKey {
 public:
  NewKey(const std::string& path, Output::Existing existing);
  explicit NewKey(const Args& args, const char* option = "key");

  keymaster_key_blob_t* blob() { return &blob_; }
  // The place for what is enforced for the key; null when only its file is told of.
  keymaster_key_characteristics_t* characteristics();
  // Writes the file and tells of it.
  void Write(Session* session);

 private:
  std::string path_;
  Output output_;
  OwnedKeyBlob blob_;
  OwnedCharacteristics characteristics_;
};

// ToPem returns DER bytes as PEM under that label.
Bytes ToPem(const char* label, const keymaster_blob_t& der);

// A key to import and what is known of it.
struct PrivateKey {
  Bytes bytes;  // in PKCS#8, or raw
  KeyFacts facts;
};

// ReadPrivateKey decodes an unencrypted RSA or EC key in PEM or DER, PKCS#8 or the older forms.
// Throws a Failure for anything else.
PrivateKey ReadPrivateKey(const Bytes& bytes);

#endif  // KEYMASTERCTL_KEY_H
