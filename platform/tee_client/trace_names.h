// The names of the keymaster TA's commands and of key parameter tags, and what may be shown.
#ifndef PLATFORM_TEE_CLIENT_TRACE_NAMES_H
#define PLATFORM_TEE_CLIENT_TRACE_NAMES_H

#include <cstdint>
#include <string>

// What a memory reference holds: the lists are serialised key parameters.
enum class Content { kSecret, kPlain, kOneList, kTwoLists };

struct CommandName {
  uint32_t id;
  const char* name;
  Content content[4];
};

// NameOfCommand returns "?", with secret parameters, for a command that is not known.
const CommandName& NameOfCommand(uint32_t id);
// NameOfTag returns a tag's name, "?" when there is none, and its number.
std::string NameOfTag(uint32_t tag);
// IsSecretTag tells whether whoever knows the value may use the key it is for.
bool IsSecretTag(uint32_t tag);

#endif  // PLATFORM_TEE_CLIENT_TRACE_NAMES_H
