// What the trace shows by name: the keymaster TA's commands, key parameters, and what may be shown.
#ifndef PLATFORM_TEE_CLIENT_TRACE_TEXT_H
#define PLATFORM_TEE_CLIENT_TRACE_TEXT_H

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

// Hex returns all bytes in hexadecimal.
std::string Hex(const uint8_t* data, uint32_t size);
// FirstBytes returns up to 16 bytes in hexadecimal, with ".." when there are more.
std::string FirstBytes(const uint8_t* data, uint32_t size);

// DecodeKeyParams returns one line, begun with label, for each parameter of a buffer of one or two
// lists, and one that says so when the buffer is not of that form. Secret values appear only
// with_secrets.
std::string DecodeKeyParams(const std::string& label, const uint8_t* data, uint32_t size,
                            uint32_t lists, bool with_secrets);

#endif  // PLATFORM_TEE_CLIENT_TRACE_TEXT_H
