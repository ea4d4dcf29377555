// What the benchmarks feed the library with: parameter sets whose content does not vary.
#ifndef BENCH_CONTENT_H
#define BENCH_CONTENT_H

#include <hardware/keymaster_defs.h>
#include <keymaster_ts.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

inline keymaster_blob_t View(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }
inline keymaster_key_blob_t KeyView(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

inline keymaster_key_param_t Number(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.long_integer = value;
  return param;
}
// The bytes stay the caller's.
inline keymaster_key_param_t Blob(keymaster_tag_t tag, const Bytes& bytes) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.blob = View(bytes);
  return param;
}
inline bool IsBlob(const keymaster_key_param_t& param) {
  return static_cast<uint32_t>(param.tag) >> 28 == 9;
}

using Params = std::vector<keymaster_key_param_t>;
inline keymaster_key_param_set_t SetOf(const Params& params) {
  return {const_cast<keymaster_key_param_t*>(params.data()), params.size()};
}

// MakeParams returns count parameters of a TA's reply, integers of each width and flags; every
// blob_every-th (0: none) is a value of blob's bytes instead.
inline Params MakeParams(size_t count, size_t blob_every, const Bytes& blob) {
  constexpr keymaster_tag_t kTags[] = {KM_TAG_USER_ID, KM_TAG_USER_SECURE_ID,
                                       KM_TAG_ACTIVE_DATETIME, KM_TAG_NO_AUTH_REQUIRED,
                                       KM_TAG_USER_AUTH_TYPE};
  Params params;
  for (size_t i = 0; i < count; ++i) {
    const keymaster_tag_t tag = kTags[i % 5];
    params.push_back(blob_every != 0 && i % blob_every == 0
                         ? Blob(KM_TAG_APPLICATION_ID, blob)
                         : Number(tag, tag == KM_TAG_NO_AUTH_REQUIRED ? 1 : 1000 + i));
  }
  return params;
}

// Wire serialises a set: the two-list form, which is a characteristics reply too.
inline Bytes Wire(const Params& params) {
  const keymaster_key_param_set_t set = SetOf(params);
  uint8_t* out = nullptr;
  uint32_t length = 0;
  if (BuildKmParams(&set, &out, &length) != 0) abort();
  Bytes wire(out, out + length);
  free(out);
  return wire;
}
// OneList is a reply of one list: MakeParams' tags all stand in the second list of the wire form.
inline Bytes OneList(const Params& params) {
  const Bytes wire = Wire(params);
  return Bytes(wire.begin() + 4, wire.end());
}

inline void Release(keymaster_key_param_set_t* set) {
  for (size_t i = 0; i < set->length; ++i) {
    if (IsBlob(set->params[i])) free(const_cast<uint8_t*>(set->params[i].blob.data));
  }
  free(set->params);
  *set = {};
}
inline void Release(keymaster_blob_t* blob) {
  free(const_cast<uint8_t*>(blob->data));
  *blob = {};
}
inline void Release(keymaster_key_blob_t* blob) {
  free(const_cast<uint8_t*>(blob->key_material));
  *blob = {};
}

}  // namespace bench

#endif  // BENCH_CONTENT_H
