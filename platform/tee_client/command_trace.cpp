#include "platform/tee_client/command_trace.h"

#include <constant_names.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "platform/tee_client/environment.h"
#include "wire/ta_protocol.h"

namespace {

using namespace km41;  // the protocol's constants

// What a memory reference holds: a secret, anything else, or that many lists of key parameters.
enum Content { kHidden = -1, kPlain, kOne, kTwo };

struct CommandName {
  uint32_t id;
  const char* name;
  Content content[4];
};

constexpr CommandName kCommands[] = {
    {kCmdConfigure, "Configure", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGenerateKey, "GenerateKey", {kTwo, kPlain, kPlain, kTwo}},
    {kCmdGetKeyCharacteristics, "GetKeyCharacteristics", {kPlain, kTwo, kTwo, kPlain}},
    {kCmdImportKey, "ImportKey", {kTwo, kHidden, kPlain, kTwo}},
    {kCmdExportKey, "ExportKey", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdAttestKey, "AttestKey", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdUpgrade, "Upgrade", {kPlain, kTwo, kPlain, kPlain}},
    {kCmdBegin, "Begin", {kPlain, kTwo, kOne, kPlain}},
    {kCmdUpdate, "Update", {kTwo, kHidden, kOne, kHidden}},
    {kCmdFinish, "Finish", {kTwo, kHidden, kOne, kHidden}},
    {kCmdAbort, "Abort", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdDeleteKey, "DeleteKey", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdVerifyAuthorization, "VerifyAuthorization", {kTwo, kHidden, kOne, kHidden}},
    {kCmdEarlyBootEnded, "EarlyBootEnded", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdDeviceLocked, "DeviceLocked", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGetHmacSharingParameters, "GetHmacSharingParameters", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdComputeSharedHmac, "ComputeSharedHmac", {kPlain, kPlain, kPlain, kPlain}},
    {kCmdGetErrorRecord, "GetErrorRecord", {kPlain, kPlain, kPlain, kPlain}},
};
constexpr CommandName kUnknown = {0, "?", {kHidden, kHidden, kHidden, kHidden}};

// NameOfTag returns a tag's name, "?" when there is none, and its number.
std::string NameOfTag(uint32_t tag) {
  const char* const name = FindConstantName("KM_TAG_", tag);
  char text[16];
  (void)snprintf(text, sizeof(text), " (0x%08x)", tag);
  return (name != nullptr ? name : "?") + std::string(text);
}

// "?", with secret parameters, for a command that is not known.
const CommandName& NameOfCommand(uint32_t id) {
  const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                         [id](const CommandName& name) { return name.id == id; });
  return found == std::end(kCommands) ? kUnknown : *found;
}

std::string Hex(const uint8_t* data, uint32_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint32_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xF];
  }
  return text;
}

std::string FirstBytes(const uint8_t* data, uint32_t size) {
  constexpr uint32_t kShown = 16;
  return Hex(data, std::min(size, kShown)) + (size > kShown ? ".." : "");
}

constexpr uint64_t kCountSize = 4;
constexpr uint64_t kEntrySize = 16;

uint64_t ReadLe(const uint8_t* at, uint32_t width) {
  uint64_t value = 0;
  std::memcpy(&value, at, width);
  return value;
}

struct Blobs {
  const uint8_t* data;
  uint64_t size;
  bool with_secrets;
};

std::string BytesText(uint32_t tag, uint64_t offset, uint64_t length, const Blobs& blobs) {
  // Whoever knows their values may use the key that they are for.
  constexpr keymaster_tag_t kSecret[] = {KM_TAG_APPLICATION_ID, KM_TAG_APPLICATION_DATA,
                                         KM_TAG_ASSOCIATED_DATA, KM_TAG_AUTH_TOKEN};
  const bool is_secret =
      std::count(std::begin(kSecret), std::end(kSecret), static_cast<keymaster_tag_t>(tag)) != 0;
  std::string text = std::to_string(length) + " bytes";
  if (length == 0) return text;
  if (offset > blobs.size || length > blobs.size - offset) return text + " outside the buffer";
  if (is_secret && !blobs.with_secrets) return text;
  return text + " " + FirstBytes(blobs.data + offset, static_cast<uint32_t>(length));
}

std::string ParamText(uint32_t tag, const uint8_t* value, const Blobs& blobs) {
  const auto type = static_cast<keymaster_tag_type_t>(tag & 0xF0000000);
  if (type == KM_BYTES || type == KM_BIGNUM) {
    return BytesText(tag, ReadLe(value, 4), ReadLe(value + 4, 4), blobs);
  }
  if (type == KM_BOOL) return value[0] != 0 ? "true" : "false";
  const bool is_long = type == KM_ULONG || type == KM_ULONG_REP || type == KM_DATE;
  return std::to_string(ReadLe(value, is_long ? 8 : 4));
}

// One line, begun with label, for each parameter of a buffer of one or two lists, and one that says
// so when the buffer is not of that form. Secret values appear only with_secrets.
std::string DecodeKeyParams(const std::string& label, const uint8_t* data, uint32_t size, int lists,
                            bool with_secrets) {
  std::vector<std::pair<int, const uint8_t*>> entries;  // and the list that each is in
  uint64_t position = 0;
  for (int list = 1; list <= lists; ++list) {
    const uint64_t left = size - position;
    const uint64_t count = left < kCountSize ? 0 : ReadLe(data + position, kCountSize);
    if (left < kCountSize || count > (left - kCountSize) / kEntrySize) {
      return label + " is no list of parameters\n";
    }
    position += kCountSize;
    for (uint64_t i = 0; i < count; ++i, position += kEntrySize) {
      entries.emplace_back(list, data + position);
    }
  }
  const Blobs blobs = {data + position, size - position, with_secrets};
  std::string text;
  for (const auto& [list, entry] : entries) {
    const auto tag = static_cast<uint32_t>(ReadLe(entry, 4));
    text += label + " list " + std::to_string(list) + ": " + NameOfTag(tag) + " = " +
            ParamText(tag, entry + 8, blobs) + "\n";
  }
  return text;
}

constexpr const char* kTypeNames[] = {
    "NONE",         "VALUE_INPUT",       "VALUE_OUTPUT",       "VALUE_INOUT",
    "not possible", "MEMREF_TEMP_INPUT", "MEMREF_TEMP_OUTPUT", "MEMREF_TEMP_INOUT"};
constexpr const char* kOriginNames[] = {"?", "API", "COMMS", "TEE", "TA"};

std::string ValueText(uint32_t a, uint32_t b) {
  char text[32];
  (void)snprintf(text, sizeof(text), "0x%x,0x%x", a, b);
  return text;
}

// How much of the TA's copy means something: an input's bytes, or what a success produced.
uint32_t LengthOf(const CommandParameters& parameters, uint32_t index, Reply reply) {
  const bool is_output = IsOutput(parameters.TypeOf(index));
  if (is_output && reply.result != TEEC_SUCCESS) return 0;
  const uint32_t capacity = parameters.CapacityOf(index);
  return is_output ? std::min(parameters.ta_params()[index].size, capacity) : capacity;
}

std::string Describe(const CommandParameters& parameters, uint32_t index, Reply reply,
                     Content content) {
  const uint32_t type = parameters.TypeOf(index);
  const TaParam& ta = parameters.ta_params()[index];
  std::string text = kTypeNames[type];
  if (type == TEEC_NONE) return text;
  if (!IsMemoryReference(type)) {
    const TEEC_Value& given = parameters.Given(index).value;
    if (IsInput(type)) text += " " + ValueText(given.a, given.b);
    if (IsOutput(type)) text += "->" + ValueText(ta.a, ta.b);
    return text;
  }
  text += " " + std::to_string(parameters.CapacityOf(index));
  if (IsOutput(type)) text += "->" + std::to_string(ta.size);
  const uint32_t length = LengthOf(parameters, index, reply);
  return content == kHidden || length == 0 ? text : text + " " + FirstBytes(ta.buffer, length);
}

std::string DescribeKeyParams(const CommandParameters& parameters, Reply reply,
                              const CommandName& command, bool with_secrets) {
  std::string text;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (command.content[i] < kOne || !IsMemoryReference(parameters.TypeOf(i))) continue;
    const uint32_t length = LengthOf(parameters, i, reply);
    if (length == 0) continue;
    const std::string label = "tee:   params[" + std::to_string(i) + "]";
    text += DecodeKeyParams(label, parameters.ta_params()[i].buffer, length, command.content[i],
                            with_secrets);
  }
  return text;
}

// The whole of every input, or of every output, in lines of 32 bytes.
std::string DumpBuffers(const CommandParameters& parameters, bool inputs, Reply reply) {
  constexpr uint32_t kLine = 32;
  std::string text;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    const uint32_t type = parameters.TypeOf(i);
    if (!IsMemoryReference(type) || !(inputs ? IsInput(type) : IsOutput(type))) continue;
    const uint32_t size = inputs ? parameters.CapacityOf(i) : LengthOf(parameters, i, reply);
    for (uint32_t at = 0; at < size; at += kLine) {
      char label[48];
      (void)snprintf(label, sizeof(label), "tee:   params[%u] %s %04x: ", i, inputs ? "in" : "out",
                     at);
      text += label + Hex(parameters.ta_params()[i].buffer + at, std::min(kLine, size - at)) + "\n";
    }
  }
  return text;
}

enum class TraceLevel { kOff, kCommand, kParams, kSecrets, kFull };

TraceLevel TraceLevelNow() {
  constexpr std::pair<const char*, TraceLevel> kLevels[] = {{"", TraceLevel::kOff},
                                                            {"0", TraceLevel::kOff},
                                                            {"1", TraceLevel::kCommand},
                                                            {"params", TraceLevel::kParams},
                                                            {"secrets", TraceLevel::kSecrets},
                                                            {"full", TraceLevel::kFull}};
  const std::string text = VariableText("TEE_TRACE");
  for (const auto& [word, level] : kLevels) {
    if (text == word) return level;
  }
  RejectWord("TEE_TRACE", text, "0, 1, params, secrets, full");
}

}  // namespace

void TraceInputs(uint32_t command, const CommandParameters& parameters) {
  if (TraceLevelNow() == TraceLevel::kFull) {
    const std::string buffers = DumpBuffers(parameters, true, {});
    (void)fprintf(stderr, "tee: command %u %s\n%s", command, NameOfCommand(command).name,
                  buffers.c_str());
  }
}

void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::steady_clock::time_point start) {
  const TraceLevel level = TraceLevelNow();
  if (level == TraceLevel::kOff) return;
  const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  const CommandName& name = NameOfCommand(command);
  std::string types;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    types += (i == 0 ? "" : ", ") + Describe(parameters, i, reply, name.content[i]);
  }
  std::string params;
  if (level >= TraceLevel::kParams) {
    params = DescribeKeyParams(parameters, reply, name, level >= TraceLevel::kSecrets);
  }
  if (level == TraceLevel::kFull) params += DumpBuffers(parameters, false, reply);
  // In one call: the lines of a command stay together.
  (void)fprintf(stderr, "tee: command %u %s (%s) result 0x%08x from %s, %lld us\n%s", command,
                name.name, types.c_str(), reply.result, kOriginNames[reply.origin],
                static_cast<long long>(duration.count()), params.c_str());
}

void TraceEvent(const std::string& text) {
  if (TraceLevelNow() != TraceLevel::kOff) (void)fprintf(stderr, "tee: %s\n", text.c_str());
}
