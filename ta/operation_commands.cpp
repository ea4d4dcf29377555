#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "ta/commands.h"
#include "ta/operation.h"

namespace ta {
namespace {

constexpr uint8_t kInputMarker = 0;
constexpr uint8_t kSignatureMarker = 1;
// How much output may wait before more input is rejected.
constexpr size_t kMaxPending = size_t{1} << 20;

OperationPtr MakeOperation(const OperationRequest& request) {
  const bool signs = request.purpose == KM_PURPOSE_SIGN || request.purpose == KM_PURPOSE_VERIFY;
  if (request.key->algorithm == KM_ALGORITHM_HMAC) return MakeHmacOperation(request);
  if (request.key->pkey == nullptr) return MakeCipherOperation(request);
  return signs ? MakeSignatureOperation(request) : MakeRsaCipherOperation(request);
}

// Input and signature of a finish: an item each, with marker and length; no input is none of both.
void SplitFinishInput(ByteView packed, ByteView* input, ByteView* signature) {
  ByteReader reader(packed);
  const auto take_item = [&reader](uint8_t expected, ByteView* out) {
    uint8_t marker = 0;
    uint32_t size = 0;
    return reader.TakeInteger(&marker) && marker == expected && reader.TakeInteger(&size) &&
           reader.TakeBytes(size, out);
  };
  const bool split = take_item(kInputMarker, input) && take_item(kSignatureMarker, signature);
  FailIf(packed.size != 0 && (!split || reader.remaining() != 0), KM_ERROR_INVALID_ARGUMENT);
}

// One running operation. Whoever works with it holds its mutex.
struct RunningOperation {
  std::mutex mutex;
  OperationPtr operation;  // null once it has ended
  bool needs_token = false;
  ParamSet demands;     // the key's hardware-enforced parameters, when it needs a token
  SecureBytes pending;  // output that the caller's buffers had no room for
};
using RunningOperationPtr = std::shared_ptr<RunningOperation>;

// The operations that are running, by handle. They outlive the sessions that begin them: the
// library opens one for each command.
struct OperationTable {
  std::mutex mutex;
  std::unordered_map<uint64_t, RunningOperationPtr> operations;
};

OperationTable& Table() {
  // Never destroyed: commands may come while the process ends.
  static auto& table = *new OperationTable();
  return table;
}

// Keeps an operation under a random handle other than 0.
uint64_t AddOperation(const RunningOperationPtr& operation) {
  constexpr size_t kCapacity = 16;
  const std::lock_guard<std::mutex> guard(Table().mutex);
  auto& operations = Table().operations;
  FailIf(operations.size() >= kCapacity, KM_ERROR_TOO_MANY_OPERATIONS);
  uint64_t handle = 0;
  do {
    FillRandom(&handle, sizeof(handle));
  } while (handle == 0 || !operations.emplace(handle, operation).second);
  return handle;
}

RunningOperationPtr FindOperation(uint64_t handle) {
  const std::lock_guard<std::mutex> guard(Table().mutex);
  const auto found = Table().operations.find(handle);
  FailIf(found == Table().operations.end(), KM_ERROR_INVALID_OPERATION_HANDLE);
  return found->second;
}

// An operation as its commands get hold of it: nobody else works with it meanwhile, and it ends
// with them unless it goes on.
struct HeldOperation {
  HeldOperation(uint64_t number, RunningOperationPtr found)
      : handle(number), running(std::move(found)), guard(running->mutex) {
    FailIf(running->operation == nullptr, KM_ERROR_INVALID_OPERATION_HANDLE);
  }
  explicit HeldOperation(uint64_t number) : HeldOperation(number, FindOperation(number)) {}
  ~HeldOperation() {
    if (!goes_on) {
      running->operation.reset();
      const std::lock_guard<std::mutex> table_guard(Table().mutex);
      Table().operations.erase(handle);
    }
  }
  HeldOperation(const HeldOperation&) = delete;
  HeldOperation& operator=(const HeldOperation&) = delete;

  const uint64_t handle;
  const RunningOperationPtr running;
  const std::unique_lock<std::mutex> guard;
  bool goes_on = false;
};

uint64_t HandleIn(const TaParam& param) {
  uint64_t handle = 0;
  FailIf(!ByteReader(InputOf(param)).TakeInteger(&handle), TEEC_ERROR_BAD_PARAMETERS);
  return handle;
}

// What update and finish have in common: the user, associated data, input.
void Feed(const HeldOperation& held, const ParamSet& params, ByteView input) {
  RunningOperation* const running = held.running.get();
  if (running->needs_token) AuthorizeContinuation(held.handle, running->demands, params);
  if (params.Contains(KM_TAG_ASSOCIATED_DATA)) {
    running->operation->AddAssociatedData(params.BytesOf(KM_TAG_ASSOCIATED_DATA));
  }
  if (input.size == 0) return;
  FailIf(running->pending.size() > kMaxPending, KM_ERROR_INSUFFICIENT_BUFFER_SPACE);
  running->operation->Update(input, &running->pending);
}

// Gives the caller as much of the output as there is room for; the rest waits.
void DeliverPending(RunningOperation* running, TaParam* output) {
  SecureBytes& pending = running->pending;
  const size_t size = std::min<size_t>(pending.size(), output->size);
  Reply(ByteView(pending.data(), size), output);
  // Its memory serves the next chunk.
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
  if (running->needs_token) running->demands = key.hw_enforced;
  ParamSet out_params;
  running->operation = MakeOperation({purpose, request, &key, &out_params});
  Reply(out_params.empty() ? Bytes() : Serialize({&out_params}), &params[2]);
  const uint64_t handle = AddOperation(running);
  HeldOperation held(handle, running);
  if (!UsesPublicKey(purpose, key)) CountUse(key);
  held.goes_on = true;
  params[3].a = static_cast<uint32_t>(handle);
  params[3].b = static_cast<uint32_t>(handle >> 32);
}

// The handle of an update and a finish stands where the output parameters will.
void UpdateOperation(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 0);
  HeldOperation held(HandleIn(params[2]));
  Feed(held, request, InputOf(params[1]));
  params[2].size = 0;
  DeliverPending(held.running.get(), &params[3]);
  held.goes_on = true;
}

void FinishOperation(uint32_t types, TaParam params[4]) {
  const ParamSet request = RequestOf(types, params, 0);
  const HeldOperation held(HandleIn(params[2]));
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
  const HeldOperation held(HandleIn(params[0]));
}

}  // namespace ta
