#include <string.h>

#include "commands.h"
#include "key_records.h"
#include "operation_policy.h"
#include "operation_table.h"

namespace ta {
namespace {

constexpr uint8_t kInputMarker = 0;
constexpr uint8_t kSignatureMarker = 1;

using Maker = TEEC_Result (*)(const OperationRequest& request, OperationPtr* operation);

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

TEEC_Result ParseOptional(uint32_t type, const TaParam& param, ParamSet* out) {
  if (type == TEEC_NONE || ParseTwoLists(InputOf(param), out)) return TEEC_SUCCESS;
  return Fail(KM_ERROR_INVALID_ARGUMENT);
}

// An update's or finish's request, taken apart.
struct Continuation {
  uint64_t handle = 0;
  ParamSet params;
  ByteView input;
};

TEEC_Result ReadContinuation(uint32_t types, const TaParam params[4], Continuation* out) {
  // The handle stands where the output parameters will.
  if (!ByteReader(InputOf(params[2])).TakeU64(&out->handle)) return Fail(TEEC_ERROR_BAD_PARAMETERS);
  if (TEEC_PARAM_TYPE_GET(types, 1) != TEEC_NONE) out->input = InputOf(params[1]);
  return ParseOptional(TEEC_PARAM_TYPE_GET(types, 0), params[0], &out->params);
}

// Input and signature of a finish: an item each, with marker and length; no input is none of both.
TEEC_Result SplitFinishInput(ByteView packed, ByteView* input, ByteView* signature) {
  if (packed.size == 0) return TEEC_SUCCESS;
  ByteReader reader(packed);
  const auto take_item = [&reader](uint8_t expected, ByteView* out) {
    uint8_t marker = 0;
    uint32_t size = 0;
    return reader.TakeU8(&marker) && marker == expected && reader.TakeU32(&size) &&
           reader.TakeBytes(size, out);
  };
  return take_item(kInputMarker, input) && take_item(kSignatureMarker, signature) &&
                 reader.remaining() == 0
             ? TEEC_SUCCESS
             : Fail(KM_ERROR_INVALID_ARGUMENT);
}

// Ends an operation when it goes out of scope, unless it is to go on.
class OperationEnder {
 public:
  OperationEnder(uint64_t handle, RunningOperation* running) : handle_(handle), running_(running) {}
  ~OperationEnder() {
    if (goes_on_) return;
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

// What update and finish have in common: the user, associated data, input.
TEEC_Result Feed(const Continuation& request, RunningOperation* running) {
  if (running->needs_token) {
    const TEEC_Result result =
        AuthorizeContinuation(request.handle, running->demands, request.params);
    if (result != 0) return result;
  }
  const uint32_t tag = static_cast<uint32_t>(KM_TAG_ASSOCIATED_DATA);
  if (request.params.Contains(tag)) {
    const TEEC_Result result = running->operation->AddAssociatedData(request.params.BytesOf(tag));
    if (result != 0) return result;
  }
  return request.input.size == 0 ? TEEC_SUCCESS
                                 : running->operation->Update(request.input, &running->pending);
}

// Gives the caller as much of the output as there is room for; the rest waits.
TEEC_Result DeliverPending(RunningOperation* running, TaParam* output) {
  SecureBytes& pending = running->pending;
  const size_t size = std::min<size_t>(pending.size(), output->size);
  const TEEC_Result result = Reply(ByteView(pending.data(), size), output);
  pending = SecureBytes(pending.begin() + static_cast<ptrdiff_t>(size), pending.end());
  return result;
}

}  // namespace

TEEC_Result BeginOperation(uint32_t types, TaParam params[4]) {
  const uint32_t purpose = params[3].a;
  ParamSet request;
  ParamSet out_params;
  Key key;
  TEEC_Result result = ParseOptional(TEEC_PARAM_TYPE_GET(types, 1), params[1], &request);
  if (result == 0) result = OpenCurrentKey(InputOf(params[0]), request, &key);
  if (result == 0) result = AuthorizeBegin(purpose, key, request);
  if (result != 0) return result;
  const auto running = std::make_shared<RunningOperation>();
  running->needs_token = NeedsTokenPerOperation(purpose, key);
  if (running->needs_token) running->demands = key.hw_enforced;
  result =
      MakerOf(key.algorithm, purpose)({purpose, request, &key, &out_params}, &running->operation);
  if (result != 0) return result;
  result = Reply(out_params.empty() ? Bytes() : SerializeOneList(out_params), &params[2]);
  if (result != 0) return result;
  uint64_t handle = 0;
  if (!OperationTable::Instance().Add(running, &handle)) return Fail(KM_ERROR_TOO_MANY_OPERATIONS);
  OperationEnder ender(handle, running.get());
  if (!UsesPublicKey(purpose, key)) result = CountUse(key);
  if (result != 0) return result;
  ender.GoOn();
  params[3].a = static_cast<uint32_t>(handle);
  params[3].b = static_cast<uint32_t>(handle >> 32);
  return TEEC_SUCCESS;
}

TEEC_Result UpdateOperation(uint32_t types, TaParam params[4]) {
  Continuation request;
  if (const TEEC_Result result = ReadContinuation(types, params, &request); result != 0) {
    return result;
  }
  const RunningOperationPtr running = OperationTable::Instance().Find(request.handle);
  if (running == nullptr) return Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
  const std::lock_guard<std::mutex> guard(running->mutex);
  if (running->operation == nullptr) return Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
  OperationEnder ender(request.handle, running.get());
  if (const TEEC_Result result = Feed(request, running.get()); result != 0) return result;
  params[2].size = 0;
  const TEEC_Result result = DeliverPending(running.get(), &params[3]);
  if (result == 0) ender.GoOn();
  return result;
}

TEEC_Result FinishOperation(uint32_t types, TaParam params[4]) {
  Continuation request;
  if (const TEEC_Result result = ReadContinuation(types, params, &request); result != 0) {
    return result;
  }
  const RunningOperationPtr running = OperationTable::Instance().Find(request.handle);
  if (running == nullptr) return Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
  const std::lock_guard<std::mutex> guard(running->mutex);
  if (running->operation == nullptr) return Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
  const OperationEnder ender(request.handle, running.get());
  ByteView input;
  ByteView signature;
  TEEC_Result result = SplitFinishInput(request.input, &input, &signature);
  request.input = input;
  if (result == 0) result = Feed(request, running.get());
  if (result == 0) result = running->operation->Finish(signature, &running->pending);
  if (result != 0) return result;
  params[2].size = 0;
  return Reply(running->pending, &params[3]);
}

TEEC_Result AbortOperation(uint32_t, TaParam params[4]) {
  uint64_t handle = 0;
  ByteReader reader(InputOf(params[0]));
  if (!reader.TakeU64(&handle) || reader.remaining() != 0) return Fail(TEEC_ERROR_BAD_PARAMETERS);
  const RunningOperationPtr running = OperationTable::Instance().Find(handle);
  if (running == nullptr) return Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
  const std::lock_guard<std::mutex> guard(running->mutex);
  const OperationEnder ender(handle, running.get());
  return running->operation != nullptr ? TEEC_SUCCESS : Fail(KM_ERROR_INVALID_OPERATION_HANDLE);
}

}  // namespace ta
