#include "command_parameters.h"

#include <algorithm>
#include <cstdlib>
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

SecretBytes::~SecretBytes() {
  if (data_ != nullptr) explicit_bzero(data_, size_);
  free(data_);
}

bool SecretBytes::Allocate(size_t size) {
  data_ = static_cast<uint8_t*>(calloc(size, 1));
  size_ = size;
  return data_ != nullptr;
}

TEEC_Result CommandParameters::CopyReferenceIn(uint32_t index) {
  const TEEC_TempMemoryReference& reference = caller_[index].tmpref;
  if (reference.size == 0) return TEEC_SUCCESS;
  if (reference.buffer == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  if (!copies_[index].Allocate(reference.size)) return TEEC_ERROR_OUT_OF_MEMORY;
  ta_[index].buffer = copies_[index].data();
  ta_[index].size = reference.size;
  if (IsInput(TypeOf(index))) std::memcpy(ta_[index].buffer, reference.buffer, reference.size);
  return TEEC_SUCCESS;
}

TEEC_Result CommandParameters::CopyIn(const TEEC_Operation* operation) {
  if (operation == nullptr) return TEEC_SUCCESS;
  types_ = operation->paramTypes;
  if (operation->started == 0 || (types_ >> (4 * kCount)) != 0) return TEEC_ERROR_BAD_PARAMETERS;
  std::memcpy(caller_, operation->params, sizeof(caller_));
  for (uint32_t index = 0; index < kCount; ++index) {
    const uint32_t type = TypeOf(index);
    if (!IsKnown(type)) return TEEC_ERROR_BAD_PARAMETERS;
    if (IsMemoryReference(type)) {
      const TEEC_Result result = CopyReferenceIn(index);
      if (result != TEEC_SUCCESS) return result;
    } else if (IsInput(type)) {
      ta_[index].a = caller_[index].value.a;
      ta_[index].b = caller_[index].value.b;
    }
  }
  return TEEC_SUCCESS;
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
  for (uint32_t index = 0; index < kCount; ++index) {
    const uint32_t type = TypeOf(index);
    if (!IsOutput(type)) continue;
    if (!IsMemoryReference(type)) {
      operation->params[index].value = {ta_[index].a, ta_[index].b};
    } else {
      const uint32_t fits = std::min(ta_[index].size, CapacityOf(index));
      if (fits != 0) std::memcpy(caller_[index].tmpref.buffer, copies_[index].data(), fits);
    }
  }
  return ta;
}
