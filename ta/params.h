// Key parameters as the TA keeps them, and their wire form.
#ifndef TA_PARAMS_H
#define TA_PARAMS_H

#include <hardware/keymaster_defs.h>

#include <initializer_list>
#include <optional>

#include "ta/bytes.h"

namespace ta {

using Tag = keymaster_tag_t;

// One parameter: value for every tag type but the two byte-valued ones, which use bytes.
struct Param {
  Tag tag = KM_TAG_INVALID;
  uint64_t value = 0;
  Bytes bytes;
};

// IsByteValued tells whether a tag's type carries bytes.
bool IsByteValued(Tag tag);

// ParamSet is an ordered list of parameters; a tag may occur more than once. Not thread-safe.
class ParamSet : public std::vector<Param> {
 public:
  void Add(Tag tag, uint64_t value) { push_back({tag, value, {}}); }
  void AddBytes(Tag tag, ByteView bytes) { push_back({tag, 0, Bytes(bytes.begin(), bytes.end())}); }
  void Add(const Param& param) { push_back(param); }
  // Remove drops every parameter of that tag.
  void Remove(Tag tag);
  // Set leaves exactly one parameter of that tag.
  void Set(Tag tag, uint64_t value);

  // Find returns the first parameter of that tag, or null.
  const Param* Find(Tag tag) const;
  bool Contains(Tag tag) const { return Find(tag) != nullptr; }
  bool Contains(Tag tag, uint64_t value) const;
  // Count returns the number of parameters of that tag.
  size_t Count(Tag tag) const;
  // IsTrue tells whether a boolean tag is there with a value other than false.
  bool IsTrue(Tag tag) const { return Value(tag).value_or(0) != 0; }
  // Value returns the first value of that tag.
  std::optional<uint64_t> Value(Tag tag) const;
  // BytesOf returns the bytes of the first parameter of that tag, an empty view without one. The
  // view lives as long as the set is not changed.
  ByteView BytesOf(Tag tag) const;
};

// ParseTwoLists reads the two-list form that requests travel in; first and second may be one set.
// False for a buffer that ends early or points outside itself; both are then unspecified. Bytes
// after the last byte value are ignored.
bool ParseTwoLists(ByteView wire, ParamSet* first, ParamSet* second);
// Serialize writes lists: one as output parameters travel, two as requests and characteristics do.
Bytes Serialize(std::initializer_list<const ParamSet*> lists);

}  // namespace ta

#endif  // TA_PARAMS_H
