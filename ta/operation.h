// One running operation: what each kind of key does with the data it is fed.
#ifndef TA_OPERATION_H
#define TA_OPERATION_H

#include <memory>

#include "ta/key.h"

namespace ta {

// An Operation consumes all input it is given. After a failure it is good for nothing more. Not
// thread-safe.
class Operation {
 public:
  Operation() = default;
  virtual ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // AddAssociatedData takes data to authenticate with the input; only AES-GCM has such.
  virtual void AddAssociatedData(ByteView data);
  // Update appends what the input yields to output, and may hold some of it back.
  virtual void Update(ByteView input, SecureBytes* output) = 0;
  // Finish appends the rest to output, or checks a signature, which all others ignore.
  virtual void Finish(ByteView signature, SecureBytes* output) = 0;
};

// What an operation is begun with. The makers below take the key's secret out of key, and check the
// parameters against what the key allows.
struct OperationRequest {
  uint32_t purpose;        // keymaster_purpose_t
  const ParamSet& params;  // of the begin command
  Key* key;
  ParamSet* out_params;  // receives parameters that the caller must know: the nonce
};

using OperationPtr = std::unique_ptr<Operation>;

OperationPtr MakeSignatureOperation(const OperationRequest& request);
OperationPtr MakeRsaCipherOperation(const OperationRequest& request);
OperationPtr MakeHmacOperation(const OperationRequest& request);
OperationPtr MakeCipherOperation(const OperationRequest& request);

// Choose reads the one digest, padding or block mode that a begin names, which the key must
// authorize.
uint32_t Choose(const OperationRequest& request, keymaster_tag_t tag);
// ChooseNonce takes the caller's nonce of that size, or makes one for an encryption and adds it to
// the output parameters.
Bytes ChooseNonce(const OperationRequest& request, size_t size);
// ChooseMacSize returns the MAC length that a begin asks for, in bytes: as the key and the bounds
// (in bits) allow.
size_t ChooseMacSize(const OperationRequest& request, uint64_t least, uint64_t most);

// CipherOf returns the cipher of a key's algorithm and size in that mode, or null.
const EVP_CIPHER* CipherOf(const Key& key, uint32_t mode);
// DigestAlgorithm returns null for KM_DIGEST_NONE.
const EVP_MD* DigestAlgorithm(uint32_t digest);

// ---- Who may use a key, for what and when.

// AuthorizeBegin checks what a key demands of an operation's beginning: its purpose, its dates, the
// device's state, and a recent auth token when the key's authentication lasts for a time. Using a
// public key takes no more than the purpose.
void AuthorizeBegin(uint32_t purpose, const Key& key, const ParamSet& params);

// NeedsTokenPerOperation tells whether each update and finish must bring an auth token made for
// this very operation.
bool NeedsTokenPerOperation(uint32_t purpose, const Key& key);
// AuthorizeContinuation checks that token: its challenge is the operation's handle. demands holds
// the key's hardware-enforced parameters.
void AuthorizeContinuation(uint64_t handle, const ParamSet& demands, const ParamSet& params);

// UsesPublicKey tells whether the purpose needs only a key's public half.
bool UsesPublicKey(uint32_t purpose, const Key& key);

}  // namespace ta

#endif  // TA_OPERATION_H
