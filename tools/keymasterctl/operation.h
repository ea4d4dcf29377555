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

// Operation is one operation with the key and the input that the options name. Files are opened
// before the TEE is reached; an operation that has begun is aborted when it goes away unfinished.
class Operation : NotCopied {
 public:
  Operation(const Args& args, keymaster_purpose_t purpose);
  ~Operation();

  // Connects, reads from the key what the options leave open, and adds the parameters of begin.
  void Plan();
  // Begins, with the user's token and the associated data.
  void Begin();
  // Runs the input through, the last piece with finish; for a verification with the signature and
  // without an output.
  void Run(const Bytes* signature, Output* output);

  Input& input() { return input_; }
  ParamList& params() { return params_; }
  uint32_t mode() const { return mode_; }                // 0 unless a block cipher
  size_t nonce_length() const { return nonce_length_; }  // bytes; 0 where the mode has none
  const Bytes& nonce() const { return nonce_; }          // the TA's; empty when it chose none

 private:
  using Chosen = std::optional<uint32_t>;
  std::vector<uint64_t> Allowed(keymaster_tag_t tag) const;
  Chosen Choose(const char* option, keymaster_tag_t tag, const char* preferred) const;
  void RejectUnused(const std::string& subject, const char* used) const;
  void PlanRsa(bool signs);
  void PlanHmac();
  void PlanCipher();
  Bytes Token(uint64_t challenge);
  std::string UserHint(const Bytes& token) const;
  // Throws for a failed request; the TA has ended the operation then.
  void CheckRequest(const char* what, int32_t result);
  void Update(const Bytes& piece, OwnedBlob* output);
  void Finish(const Bytes& rest, const Bytes* signature, OwnedBlob* output);

  const Args& args_;
  keymaster_purpose_t purpose_;
  Key key_;
  Bytes token_bytes_;  // read once, since it may be a stream
  Input input_;
  std::optional<Session> session_;
  OwnedCharacteristics characteristics_;
  ParamList params_;
  ParamList token_;  // of every request after begin
  std::string user_hint_;
  uint32_t algorithm_ = 0;
  uint32_t mode_ = 0;
  size_t nonce_length_ = 0;
  unsigned long handle_ = 0;
  bool running_ = false;
  Bytes nonce_;
};

// Progress tells on standard error how far work is once it has taken half a second, only on a
// terminal, and clears that line at its end.
class Progress : NotCopied {
 public:
  // total is in bytes; without it the bytes done are counted alone.
  explicit Progress(std::optional<uint64_t> total);
  ~Progress();

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
