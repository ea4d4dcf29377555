// The operations that are running, by handle.
#ifndef TA_OPERATION_TABLE_H
#define TA_OPERATION_TABLE_H

#include <mutex>
#include <unordered_map>

#include "ta/operation.h"

namespace ta {

// One running operation. Whoever works with it holds its mutex.
struct RunningOperation {
  std::mutex mutex;
  OperationPtr operation;  // null once it has ended
  bool needs_token = false;
  ParamSet demands;     // the key's hardware-enforced parameters, when it needs a token
  SecureBytes pending;  // output that the caller's buffers had no room for
};

using RunningOperationPtr = std::shared_ptr<RunningOperation>;

// OperationTable outlives the sessions that begin operations: the library opens one for each
// command. All of it may be used from several threads.
class OperationTable {
 public:
  static constexpr size_t kCapacity = 16;

  // Instance returns the one table of the process.
  static OperationTable& Instance();

  // Add gives an operation a random handle other than 0; false when the table is full.
  bool Add(const RunningOperationPtr& operation, uint64_t* handle);
  // Find returns null for a handle that stands for no operation.
  RunningOperationPtr Find(uint64_t handle);
  // Remove forgets an operation; false for a handle that stands for none.
  bool Remove(uint64_t handle);

 private:
  std::mutex mutex_;
  std::unordered_map<uint64_t, RunningOperationPtr> operations_;
};

}  // namespace ta

#endif  // TA_OPERATION_TABLE_H
