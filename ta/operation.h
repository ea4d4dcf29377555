// One running operation: what each kind of key does with the data it is fed.
#ifndef TA_OPERATION_H
#define TA_OPERATION_H

#include <memory>

#include "key.h"

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
  virtual TEEC_Result AddAssociatedData(ByteView data);
  // Update appends what the input yields to output, and may hold some of it back.
  virtual TEEC_Result Update(ByteView input, SecureBytes* output) = 0;
  // Finish appends the rest to output, or checks a signature, which all others ignore.
  virtual TEEC_Result Finish(ByteView signature, SecureBytes* output) = 0;
};

// What an operation is begun with. The makers below take the key's secret out of key, check the
// parameters against what the key allows, and leave *operation unset when they fail.
struct OperationRequest {
  uint32_t purpose;        // keymaster_purpose_t
  const ParamSet& params;  // of the begin command
  Key* key;
  ParamSet* out_params;  // receives parameters that the caller must know: the nonce
};

using OperationPtr = std::unique_ptr<Operation>;

TEEC_Result MakeSignatureOperation(const OperationRequest& request, OperationPtr* operation);
TEEC_Result MakeRsaCipherOperation(const OperationRequest& request, OperationPtr* operation);
TEEC_Result MakeHmacOperation(const OperationRequest& request, OperationPtr* operation);
TEEC_Result MakeCipherOperation(const OperationRequest& request, OperationPtr* operation);
TEEC_Result MakeGcmOperation(const OperationRequest& request, OperationPtr* operation);

// ChooseDigest, ChoosePadding and ChooseBlockMode read the one value that a begin names, which the
// key must authorize.
TEEC_Result ChooseDigest(const OperationRequest& request, uint32_t* digest);
TEEC_Result ChoosePadding(const OperationRequest& request, uint32_t* padding);
TEEC_Result ChooseBlockMode(const OperationRequest& request, uint32_t* mode);
// ChooseNonce takes the caller's nonce of that size, or makes one for an encryption and adds it to
// the output parameters.
TEEC_Result ChooseNonce(const OperationRequest& request, size_t size, Bytes* nonce);

// DigestAlgorithm returns null for KM_DIGEST_NONE.
const EVP_MD* DigestAlgorithm(uint32_t digest);

}  // namespace ta

#endif  // TA_OPERATION_H
