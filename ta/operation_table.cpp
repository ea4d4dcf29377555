#include "ta/operation_table.h"

namespace ta {

OperationTable& OperationTable::Instance() {
  // Never destroyed: commands may come while the process ends.
  static auto& table = *new OperationTable();
  return table;
}

bool OperationTable::Add(const RunningOperationPtr& operation, uint64_t* handle) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (operations_.size() >= kCapacity) return false;
  uint64_t candidate = 0;
  do {
    FillRandom(&candidate, sizeof(candidate));
  } while (candidate == 0 || operations_.count(candidate) != 0);
  operations_.emplace(candidate, operation);
  *handle = candidate;
  return true;
}

RunningOperationPtr OperationTable::Find(uint64_t handle) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = operations_.find(handle);
  return found == operations_.end() ? nullptr : found->second;
}

bool OperationTable::Remove(uint64_t handle) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return operations_.erase(handle) != 0;
}

}  // namespace ta
