#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>

namespace keymaster {
namespace {

bool HoldsBytes(const keymaster_key_param_t& param) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(param.tag);
  return type == KM_BYTES || type == KM_BIGNUM;
}

}  // namespace

uint8_t* dup_buffer(const void* buf, size_t size) {
  if (buf == nullptr) return nullptr;
  auto* copy = static_cast<uint8_t*>(malloc(size == 0 ? 1 : size));
  if (copy != nullptr) memcpy(copy, buf, size);
  return copy;
}

AuthorizationSet::AuthorizationSet() : elements_(nullptr), size_(0), capacity_(0) {}

AuthorizationSet::~AuthorizationSet() { Clear(); }

bool AuthorizationSet::push_back(const keymaster_key_param_t& param) {
  // Copied first: param may be an element of this very set, which growing would move.
  keymaster_key_param_t added = param;
  if (size_ == capacity_) {
    const size_t wanted = capacity_ == 0 ? 16 : capacity_ * 2;
    void* grown = reallocarray(elements_, wanted, sizeof(*elements_));
    if (grown == nullptr) return false;
    elements_ = static_cast<keymaster_key_param_t*>(grown);
    capacity_ = wanted;
  }
  if (HoldsBytes(added) && (added.blob.data != nullptr || added.blob.data_length != 0)) {
    added.blob.data = dup_buffer(added.blob.data, added.blob.data_length);
    if (added.blob.data == nullptr) return false;
  }
  elements_[size_++] = added;
  return true;
}

void AuthorizationSet::Clear() {
  for (size_t i = 0; i < size_; ++i) {
    if (!HoldsBytes(elements_[i])) continue;
    auto* bytes = const_cast<uint8_t*>(elements_[i].blob.data);
    if (bytes != nullptr) explicit_bzero(bytes, elements_[i].blob.data_length);
    free(bytes);
  }
  free(elements_);
  elements_ = nullptr;
  size_ = capacity_ = 0;
}

}  // namespace keymaster
