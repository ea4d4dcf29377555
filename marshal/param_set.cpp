#include "marshal/param_set.h"

#include <stdlib.h>

#include "marshal/param_entry.h"

namespace km41 {

keymaster_key_param_t* FindParam(const keymaster_key_param_set_t& set, keymaster_tag_t tag) {
  for (size_t i = 0; i < set.length; ++i) {
    if (set.params[i].tag == tag) return &set.params[i];
  }
  return nullptr;
}

bool HasEnumParam(const keymaster_key_param_set_t& set, keymaster_tag_t tag, uint32_t value) {
  for (size_t i = 0; set.params != nullptr && i < set.length; ++i) {
    if (set.params[i].tag == tag && set.params[i].enumerated == value) return true;
  }
  return false;
}

void ReleaseParamSet(keymaster_key_param_set_t* set) {
  for (size_t i = 0; set->params != nullptr && i < set->length; ++i) {
    if (IsByteValued(set->params[i].tag)) free(const_cast<uint8_t*>(set->params[i].blob.data));
  }
  free(set->params);
  set->params = nullptr;
  set->length = 0;
}

void ReleaseCharacteristics(keymaster_key_characteristics_t* characteristics) {
  ReleaseParamSet(&characteristics->hw_enforced);
  ReleaseParamSet(&characteristics->sw_enforced);
}

}  // namespace km41
