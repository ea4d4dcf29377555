// The names that a user writes and reads for keymaster tags, their values, and results.
#ifndef KEYMASTERCTL_NAMES_H
#define KEYMASTERCTL_NAMES_H

#include <hardware/keymaster_defs.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

// "pkcs1" as a padding: the signing or the encryption one, as the use says.
constexpr uint32_t kPadPkcs1ByUse = 0x10000;

// TagName returns the tag's name, such as "key-size".
std::string TagName(keymaster_tag_t tag);
// TagByName finds a tag by its name; throws a Failure for an unknown one.
keymaster_tag_t TagByName(const std::string& name);
bool IsRepeatable(keymaster_tag_t tag);
bool IsEnumerated(keymaster_tag_t tag);
bool IsBytes(keymaster_tag_t tag);

// ValueName returns the name of an enumerated value, or its number when it has none.
std::string ValueName(keymaster_tag_t tag, uint32_t value);
// ValueByName finds an enumerated value; letter case and hyphens do not count.
std::optional<uint32_t> ValueByName(keymaster_tag_t tag, const std::string& name);
// ValueNames returns the first names of a tag's values as "a|b|c".
std::string ValueNames(keymaster_tag_t tag);

// ResultName returns the name of a keymaster or TEE result; empty for an unknown one.
std::string ResultName(int32_t result);
bool IsTeeResult(int32_t result);

// Nearest returns the candidate that is most like a word; empty where none is.
std::string Nearest(const std::string& word, const std::vector<std::string>& candidates);
std::vector<std::string> Split(const std::string& text, char between);
std::string Joined(const std::vector<std::string>& words, const char* between);
std::string ReplaceAll(std::string text, const std::string& from, const std::string& to);

template <typename Values, typename Value>
bool Contains(const Values& values, const Value& value) {
  return std::find(std::begin(values), std::end(values), value) != std::end(values);
}

#endif  // KEYMASTERCTL_NAMES_H
