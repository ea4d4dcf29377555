#include "platform/tee_client/command_parameters.h"

#include <algorithm>
#include <cstring>

namespace {

// Both families of types carry their direction in the two low bits.
constexpr uint32_t kIn = 1;
constexpr uint32_t kOut = 2;
constexpr uint32_t kReference = 4;

bool IsKnown(uint32_t type) { return type <= TEEC_MEMREF_TEMP_INOUT && type != kReference; }

}  // namespace

bool IsMemoryReference(uint32_t type) { return (type & kReference) != 0; }
bool IsInput(uint32_t type) { return (type & kIn) != 0; }
bool IsOutput(uint32_t type) { return (type & kOut) != 0; }

ReferenceLayout::ReferenceLayout(uint32_t types,
                                 const TEEC_Parameter params[CommandParameters::kCount]) {
  constexpr uint64_t kAlignment = 16;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    offset[i] = total;
    if (IsMemoryReference(TEEC_PARAM_TYPE_GET(types, i))) {
      total += (params[i].tmpref.size + kAlignment - 1) / kAlignment * kAlignment;
    }
  }
}

void PointReferences(uint32_t types, uint8_t* memory, TEEC_Parameter params[]) {
  const ReferenceLayout layout(types, params);
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    TEEC_TempMemoryReference& reference = params[i].tmpref;
    if (!IsMemoryReference(TEEC_PARAM_TYPE_GET(types, i))) continue;
    reference.buffer =
        memory == nullptr || reference.size == 0 ? nullptr : memory + layout.offset[i];
  }
}

TEEC_Result CommandParameters::Read(const TEEC_Operation* operation) {
  if (operation == nullptr) return TEEC_SUCCESS;
  types_ = operation->paramTypes;
  if (operation->started == 0 || (types_ >> (4 * kCount)) != 0) return TEEC_ERROR_BAD_PARAMETERS;
  std::memcpy(caller_, operation->params, sizeof(caller_));
  for (uint32_t index = 0; index < kCount; ++index) {
    const uint32_t type = TypeOf(index);
    const TEEC_TempMemoryReference& reference = caller_[index].tmpref;
    const bool is_missing =
        IsMemoryReference(type) && reference.size != 0 && reference.buffer == nullptr;
    if (!IsKnown(type) || is_missing) return TEEC_ERROR_BAD_PARAMETERS;
  }
  return TEEC_SUCCESS;
}

void CommandParameters::CopyIn(uint8_t* memory) {
  const ReferenceLayout layout(*this);
  memory_ = memory;
  for (uint32_t index = 0; index < kCount; ++index) {
    const bool is_input = IsInput(TypeOf(index));
    TaParam& ta = ta_[index];
    if (!IsMemoryReference(TypeOf(index))) {
      ta.a = is_input ? caller_[index].value.a : 0;
      ta.b = is_input ? caller_[index].value.b : 0;
    } else if (CapacityOf(index) != 0) {
      ta.buffer = memory_ + layout.offset[index];
      ta.size = CapacityOf(index);
      if (is_input) std::memcpy(ta.buffer, caller_[index].tmpref.buffer, ta.size);
    }
  }
}

Reply CommandParameters::CopyOut(Reply ta, TEEC_Operation* operation) const {
  if (ta.result != TEEC_SUCCESS && ta.result != TEEC_ERROR_SHORT_BUFFER) return ta;
  bool overflow = false;
  for (uint32_t index = 0; index < kCount; ++index) {
    if (!IsMemoryReference(TypeOf(index)) || !IsOutput(TypeOf(index))) continue;
    operation->params[index].tmpref.size = ta_[index].size;
    overflow = overflow || ta_[index].size > CapacityOf(index);
  }
  if (ta.result != TEEC_SUCCESS) return ta;
  if (overflow && !believes_sizes_) return {TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TEE};
  const ReferenceLayout layout(*this);
  for (uint32_t index = 0; index < kCount; ++index) {
    if (!IsOutput(TypeOf(index))) continue;
    if (!IsMemoryReference(TypeOf(index))) {
      operation->params[index].value = {ta_[index].a, ta_[index].b};
      continue;
    }
    const uint32_t fits = std::min(ta_[index].size, CapacityOf(index));
    if (fits != 0) std::memcpy(caller_[index].tmpref.buffer, memory_ + layout.offset[index], fits);
  }
  return ta;
}
