#include "platform/tee_client/command_trace.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/tee_client/environment.h"
#include "platform/tee_client/trace_text.h"

namespace {

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
  return content == Content::kSecret || length == 0 ? text
                                                    : text + " " + FirstBytes(ta.buffer, length);
}

std::string DescribeKeyParams(const CommandParameters& parameters, Reply reply,
                              const CommandName& command, bool with_secrets) {
  std::string text;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    const Content content = command.content[i];
    const uint32_t lists = content == Content::kTwoLists ? 2 : content == Content::kOneList ? 1 : 0;
    const uint32_t length =
        IsMemoryReference(parameters.TypeOf(i)) ? LengthOf(parameters, i, reply) : 0;
    if (lists == 0 || length == 0) continue;
    const std::string label = "tee:   params[" + std::to_string(i) + "]";
    text += DecodeKeyParams(label, parameters.ta_params()[i].buffer, length, lists, with_secrets);
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

}  // namespace

TraceLevel TraceLevelNow() {
  constexpr std::pair<const char*, TraceLevel> kLevels[] = {{"", TraceLevel::kOff},
                                                            {"0", TraceLevel::kOff},
                                                            {"1", TraceLevel::kCommands},
                                                            {"params", TraceLevel::kParams},
                                                            {"secrets", TraceLevel::kSecrets},
                                                            {"full", TraceLevel::kFull}};
  const std::string text = VariableText("TEE_TRACE");
  for (const auto& [word, level] : kLevels) {
    if (text == word) return level;
  }
  RejectWord("TEE_TRACE", text, "0, 1, params, secrets, full");
}

void TraceInputs(uint32_t command, const CommandParameters& parameters) {
  if (TraceLevelNow() == TraceLevel::kFull) {
    const std::string buffers = DumpBuffers(parameters, true, {});
    (void)fprintf(stderr, "tee: command %u %s\n%s", command, NameOfCommand(command).name,
                  buffers.c_str());
  }
}

void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::microseconds duration) {
  const TraceLevel level = TraceLevelNow();
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
