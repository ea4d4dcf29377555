// Parameter sets in the platform's form.
#ifndef MARSHAL_PARAM_SET_H
#define MARSHAL_PARAM_SET_H

#include <hardware/keymaster_defs.h>

namespace km41 {

// FindParam returns the first parameter of that tag, null when there is none. The set's array is
// not null unless its length is 0.
keymaster_key_param_t* FindParam(const keymaster_key_param_set_t& set, keymaster_tag_t tag);

// BytesParam is a byte-valued parameter; the bytes stay their owner's.
inline keymaster_key_param_t BytesParam(keymaster_tag_t tag, const keymaster_blob_t& value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.blob = value;
  return param;
}

// HasEnumParam returns whether any parameter has that tag and that value. A null array has none.
bool HasEnumParam(const keymaster_key_param_set_t& set, keymaster_tag_t tag, uint32_t value);

// ReleaseParamSet frees each byte value's data and the array, and leaves the set null with
// length 0.
void ReleaseParamSet(keymaster_key_param_set_t* set);

// ReleaseCharacteristics does so with both lists.
void ReleaseCharacteristics(keymaster_key_characteristics_t* characteristics);

}  // namespace km41

#endif  // MARSHAL_PARAM_SET_H
