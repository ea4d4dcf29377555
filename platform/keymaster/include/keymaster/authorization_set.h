// A growable, owning set of key parameters.
#ifndef KEYMASTER_AUTHORIZATION_SET_H
#define KEYMASTER_AUTHORIZATION_SET_H

#include <hardware/keymaster_defs.h>

namespace keymaster {

// AuthorizationSet owns its parameters and a copy of the bytes of each byte-valued one. Not
// thread-safe.
class __attribute__((visibility("default"))) AuthorizationSet {
 public:
  AuthorizationSet();
  ~AuthorizationSet();
  AuthorizationSet(const AuthorizationSet&) = delete;
  AuthorizationSet& operator=(const AuthorizationSet&) = delete;

  // Appends a copy of param, its bytes included. False, with the set unchanged, when memory runs
  // out or a byte value has a length but no bytes.
  bool push_back(const keymaster_key_param_t& param);
  // Releases every parameter; byte values are zeroed first.
  void Clear();

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  keymaster_key_param_t& operator[](size_t index) { return elements_[index]; }
  const keymaster_key_param_t* begin() const { return elements_; }
  const keymaster_key_param_t* end() const { return elements_ + size_; }

 private:
  keymaster_key_param_t* elements_;
  size_t size_;
  size_t capacity_;
};

}  // namespace keymaster

#endif  // KEYMASTER_AUTHORIZATION_SET_H
