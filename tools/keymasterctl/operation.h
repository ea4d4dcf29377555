// One keymaster operation: begin, update in pieces, finish.
#ifndef KEYMASTERCTL_OPERATION_H
#define KEYMASTERCTL_OPERATION_H

#include <optional>

#include "key_options.h"
#include "params.h"
#include "session.h"

// What the user chose for an operation; what is not chosen is read from the key.
struct OperationChoice {
  std::optional<uint32_t> digest;
  std::optional<uint32_t> padding;
  std::optional<uint32_t> mode;
  std::optional<uint32_t> mac_length;  // bits
};

// What the key's characteristics and the choice come to.
struct OperationPlan {
  uint32_t algorithm = 0;
  uint32_t mode = 0;        // 0 unless a block cipher
  size_t nonce_length = 0;  // bytes; 0 where the mode has none
};

// PlanOperation reads the key's characteristics, settles what the choice leaves open, and adds
// the parameters of begin, the key's binding included.
OperationPlan PlanOperation(Session& session, const Key& key, keymaster_purpose_t purpose,
                            const OperationChoice& choice, ParamList* params);

// Operation is a running operation. It is aborted when it goes away unfinished.
class Operation {
 public:
  Operation(Session& session, keymaster_purpose_t purpose, const Key& key, ParamList* params);
  ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  uint64_t handle() const { return handle_; }
  // The nonce that the TA chose; empty when it chose none.
  const Bytes& nonce() const { return nonce_; }
  // Has the token go with every further request.
  void SetAuthToken(const Bytes& token);
  // Sends associated data; before any input.
  void AddAssociatedData(const Bytes& data);
  // Sends input; what comes out goes to output, which is empty.
  void Update(const Bytes& piece, OwnedBlob* output);
  // Sends the last input, of any size, and for a verification the signature.
  void Finish(const Bytes& rest, const Bytes* signature, OwnedBlob* output);

 private:
  // Throws for a failed request; the TA has ended the operation then.
  void CheckRequest(const char* what, int32_t result);

  Session& session_;
  std::string key_path_;
  unsigned long handle_ = 0;
  bool running_ = false;
  Bytes nonce_;
  ParamList token_;
};

#endif  // KEYMASTERCTL_OPERATION_H
