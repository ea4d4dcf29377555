// The names that a user writes and reads for keymaster tags and their values.
#ifndef KEYMASTERCTL_NAMES_H
#define KEYMASTERCTL_NAMES_H

#include <hardware/keymaster_defs.h>

#include <optional>
#include <string>

// "pkcs1" as a padding: the signing or the encryption one, as the use says.
constexpr uint32_t kPadPkcs1ByUse = 0x10000;

// TagName returns the tag's name, such as "key-size".
std::string TagName(keymaster_tag_t tag);
// TagByName finds a tag by its name; throws a Failure for an unknown one.
keymaster_tag_t TagByName(const std::string& name);

// ValueName returns the name of an enumerated value, or its number when it has none.
std::string ValueName(keymaster_tag_t tag, uint32_t value);
// ValueByName finds an enumerated value; letter case and hyphens do not count.
std::optional<uint32_t> ValueByName(keymaster_tag_t tag, const std::string& name);
// ValueNames returns the first names of a tag's values as "a|b|c".
std::string ValueNames(keymaster_tag_t tag);

#endif  // KEYMASTERCTL_NAMES_H
