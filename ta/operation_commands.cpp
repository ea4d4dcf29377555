#include <string.h>

#include "ta/commands.h"
#include "ta/key_records.h"
#include "ta/operation_policy.h"
#include "ta/operation_table.h"

namespace ta {
namespace {

constexpr uint8_t kInputMarker = 0;
constexpr uint8_t kSignatureMarker = 1;
// How much output may wait before more input is refused.
constexpr size_t kMaxPending = size_t{1} << 20;

using Maker = OperationPtr (*)(const OperationRequest& request);

Maker MakerOf(uint32_t algorithm, uint32_t purpose) {
  switch (algorithm) {
    case KM_ALGORITHM_RSA:
      return purpose == KM_PURPOSE_SIGN || purpose == KM_PURPOSE_VERIFY ? MakeSignatureOperation
                                                                        : MakeRsaCipherOperation;
    case KM_ALGORITHM_EC:
      return MakeSignatureOperation;
    case KM_ALGORITHM_HMAC:
      return MakeHmacOperation;
    default:
      return MakeCipherOperation;
  }
}

// Input and signature of a finish: an item each, with marker and length; no input is none of both.
void SplitFinishInput(ByteView packed, ByteView* input, ByteView* signature) {
  ByteReader reader(packed);
  const auto take_item = [&reader](uint8_t expected, ByteView* out) {
    uint8_t marker = 0;
    uint32_t size = 0;
    return reader.TakeU8(&marker) && marker == expected && reader.TakeU32(&size) &&
           reader.TakeBytes(size, out);
  };
  const bool split = take_item(kInputMarker, input) && take_item(kSignatureMarker, signature);
  FailIf(packed.size != 0 && (!split || reader.remaining() != 0), KM_ERROR_INVALID_ARGUMENT);
}

// Ends an operation when it goes out of scope, unless it is to go on.
class OperationEnder {
 public:
  OperationEnder(uint64_t handle, RunningOperation* running) : handle_(handle), running_(running) {}
  ~OperationEnder() {
    if (goes_on_) {
      return;
    }
    running_->operation.reset();
    OperationTable::Instance().Remove(handle_);
  }
  OperationEnder(const OperationEnder&) = delete;
  OperationEnder& operator=(const OperationEnder&) = delete;
  void GoOn() { goes_on_ = true; }

 private:
  const uint64_t handle_;
  RunningOperation* const running_;
  bool goes_on_ = false;
};

// An operation as its commands get hold of it: nobody else works with it meanwhile, and it ends
// with them unless it is to go on.
struct HeldOperation {
  explicit HeldOperation(ByteView handle_bytes) {
    FailIf(!ByteReader(handle_bytes).TakeU64(&handle), TEEC_ERROR_BAD_PARAMETERS);
    running = OperationTable::Instance().Find(handle);
    FailIf(running == nullptr, KM_ERROR_INVALID_OPERATION_HANDLE);
    guard = std::unique_lock<std::mutex>(running->mutex);
    FailIf(running->operation == nullptr, KM_ERROR_INVALID_OPERATION_HANDLE);
    ender.emplace(handle, running.get());
  }

  uint64_t handle = 0;
  RunningOperationPtr running;
  std::unique_lock<std::mutex> guard;
  std::optional<OperationEnder> ender;
};

// What update and finish have in common: the user, associated data, input.
void Feed(const HeldOperation& held, const ParamSet& params, ByteView input) {
  RunningOperation* const running = held.running.get();
  if (running->needs_token) {
    AuthorizeContinuation(held.handle, running->demands, params);
  }
  const uint32_t tag = static_cast<uint32_t>(KM_TAG_ASSOCIATED_DATA);
  if (params.Contains(tag)) {
    running->operation->AddAssociatedData(params.BytesOf(tag));
  }
  if (input.size == 0) {
    return;
  }
  FailIf(running->pending.size() > kMaxPending, KM_ERROR_INSUFFICIENT_BUFFER_SPACE);
  running->operation->Update(input, &running->pending);
}

// Gives the caller as much of the output as there is room for; the rest waits.
void DeliverPending(RunningOperation* running, TaParam* output) {
  SecureBytes& pending = running->pending;
  const size_t size = std::min<size_t>(pending.size(), output->size);
  Reply(ByteView(pending.data(), size), output);
  // Its memory serves the next piece.
  pending.erase(pending.begin(), pending.begin() + static_cast<ptrdiff_t>(size));
}

}  // namespace

void BeginOperation(uint32_t types, TaParam params[4]) {
  const uint32_t purpose = params[3].a;
  const ParamSet request = RequestOf(types, params, 1);
  Key key = OpenCurrentKey(InputOf(params[0]), request);
  AuthorizeBegin(purpose, key, request);
  const auto running = std::make_shared<RunningOperation>();
  running->needs_token = NeedsTokenPerOperation(purpose, key);
  if (running->needs_token) {
    running->demands = key.hw_enforced;
  }
  ParamSet out_params;
  running->operation = MakerOf(key.algorithm, purpose)({purpose, request, &key, &out_params});
  Reply(out_params.empty() ? Bytes() : Serialize({&out_params}), &params[2]);
  uint64_t handle = 0;
  FailIf(!OperationTable::Instance().Add(running, &handle), KM_ERROR_TOO_MANY_OPERATIONS);
  OperationEnder ender(handle, running.get());
  if (!UsesPublicKey(purpose, key)) {
    CountUse(key);
  }
  ender.GoOn();
  params[3].a = static_cast<uint32_t>(handle);
  params[3].b = static_cast<uint32_t>(handle >> 32);
}

// The handle of an update and a finish stands where the output parameters will.
void UpdateOperation(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 0);
  HeldOperation held(InputOf(params[2]));
  Feed(held, request, InputOf(params[1]));
  params[2].size = 0;
  DeliverPending(held.running.get(), &params[3]);
  held.ender->GoOn();
}

void FinishOperation(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 0);
  const HeldOperation held(InputOf(params[2]));
  ByteView input;
  ByteView signature;
  SplitFinishInput(InputOf(params[1]), &input, &signature);
  Feed(held, request, input);
  held.running->operation->Finish(signature, &held.running->pending);
  params[2].size = 0;
  Reply(held.running->pending, &params[3]);
}

void AbortOperation(uint32_t, TaParam params[4]) {
  FailIf(params[0].size != sizeof(uint64_t), TEEC_ERROR_BAD_PARAMETERS);
  const HeldOperation held(InputOf(params[0]));
}

}  // namespace ta
