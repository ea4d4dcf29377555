// One keymaster operation: begin, update in pieces, finish; and how far it is.
#ifndef KEYMASTERCTL_OPERATION_H
#define KEYMASTERCTL_OPERATION_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tools/keymasterctl/key.h"
#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/session.h"

// What the key's characteristics and the user's choice come to.
struct OperationPlan {
  uint32_t mode = 0;           // 0 unless a block cipher
  size_t nonce_length = 0;     // bytes; 0 where the mode has none
  std::vector<uint64_t> sids;  // the users that the key is for; none where it is for anybody
};

// PlanOperation reads the key's characteristics, settles what the options leave open, and adds
// the parameters of begin, the key's binding included.
OperationPlan PlanOperation(Session* session, const Key& key, keymaster_purpose_t purpose,
                            const Args& args, ParamList* params);

// Operation is a running operation. It is aborted when it goes away unfinished.
class Operation {
 public:
  // user_hint says what is wrong with the user's token, if the TA does not accept it.
  Operation(Session* session, keymaster_purpose_t purpose, const Key& key, ParamList* params,
            const std::string& user_hint);
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
  const Key& key_;
  std::string user_hint_;
  unsigned long handle_ = 0;
  bool running_ = false;
  Bytes nonce_;
  ParamList token_;
};

// Progress draws a bar on standard error once work has taken half a second, only on a terminal and
// no wider than that, and clears it at its end.
class Progress {
 public:
  // total is in bytes; without it the bytes done are counted alone.
  explicit Progress(std::optional<uint64_t> total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(size_t bytes);

 private:
  using Clock = std::chrono::steady_clock;

  std::optional<uint64_t> total_;
  uint64_t done_ = 0;
  bool terminal_;
  bool drawn_ = false;
  Clock::time_point next_;
};

#endif  // KEYMASTERCTL_OPERATION_H
