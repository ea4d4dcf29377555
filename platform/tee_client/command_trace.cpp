#include "command_trace.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char* const kTypeNames[16] = {"NONE",
                                    "VALUE_INPUT",
                                    "VALUE_OUTPUT",
                                    "VALUE_INOUT",
                                    "?",
                                    "MEMREF_TEMP_INPUT",
                                    "MEMREF_TEMP_OUTPUT",
                                    "MEMREF_TEMP_INOUT",
                                    "?",
                                    "?",
                                    "?",
                                    "?",
                                    "?",
                                    "?",
                                    "?",
                                    "?"};

std::string Describe(const CommandParameters& parameters, uint32_t index) {
  const uint32_t type = parameters.TypeOf(index);
  std::string text = kTypeNames[type];
  if (!IsMemoryReference(type)) return text;
  text += " " + std::to_string(parameters.CapacityOf(index));
  if (type != TEEC_MEMREF_TEMP_INPUT) {
    text += "->" + std::to_string(parameters.ta_params()[index].size);
  }
  return text;
}

const char* OriginName(uint32_t origin) {
  switch (origin) {
    case TEEC_ORIGIN_API:
      return "API";
    case TEEC_ORIGIN_COMMS:
      return "COMMS";
    case TEEC_ORIGIN_TEE:
      return "TEE";
    default:
      return "TA";
  }
}

}  // namespace

bool IsTracing() {
  const char* value = getenv("TEE_TRACE");
  return value != nullptr && value[0] == '1' && value[1] == '\0';
}

void TraceCommand(uint32_t command, const CommandParameters& parameters, Reply reply,
                  std::chrono::microseconds duration) {
  std::string types;
  for (uint32_t index = 0; index < CommandParameters::kCount; ++index) {
    types += (index == 0 ? "" : ", ") + Describe(parameters, index);
  }
  (void)fprintf(stderr, "tee: command %u (%s) result 0x%08x from %s, %lld us\n", command,
                types.c_str(), reply.result, OriginName(reply.origin),
                static_cast<long long>(duration.count()));
}
