#include "bench/null_platform.h"

#include <android/log.h>
#include <securec.h>
#include <string.h>
#include <zubrel.h>

#include <algorithm>

namespace bench {
namespace {

const Script* g_script = nullptr;
size_t g_next = 0;
Script* g_recorded = nullptr;

bool IsReference(uint32_t types, unsigned index) {
  return TEEC_PARAM_TYPE_GET(types, index) >= TEEC_MEMREF_TEMP_INPUT;
}
bool IsReply(uint32_t types, unsigned index) {
  return TEEC_PARAM_TYPE_GET(types, index) >= TEEC_MEMREF_TEMP_OUTPUT;
}

Exchange Answered(uint32_t command, const TEEC_Operation& operation) {
  test::Reply answer = test::AnswerTo(command, operation);
  if (answer.result != TEEC_SUCCESS) abort();
  Exchange exchange = {command, operation.paramTypes, {}, {}, answer.values[3]};
  for (unsigned i = 0; i < 4; ++i) {
    if (IsReference(exchange.types, i)) {
      exchange.sizes[i] = operation.params[i].tmpref.size;
      exchange.replies[i] = answer.outputs[i];
    }
  }
  return exchange;
}

void Reply(const Exchange& exchange, TEEC_Operation* operation) {
  for (unsigned i = 0; i < 4; ++i) {
    TEEC_TempMemoryReference& reference = operation->params[i].tmpref;
    const test::Bytes& reply = exchange.replies[i];
    if (IsReply(exchange.types, i)) {
      reference.size = static_cast<uint32_t>(reply.size());
      if (!reply.empty()) memcpy(reference.buffer, reply.data(), reply.size());
    } else if (TEEC_PARAM_TYPE_GET(exchange.types, i) == TEEC_VALUE_INOUT) {
      operation->params[i].value = exchange.value;
    }
  }
}

void Free(const test::Outputs& outputs) {
  free(const_cast<uint8_t*>(outputs.key_blob.key_material));
  free(const_cast<uint8_t*>(outputs.data.data));
  for (keymaster_key_param_set_t set :
       {outputs.params, outputs.characteristics.hw_enforced, outputs.characteristics.sw_enforced}) {
    test::FreeSet(&set);
  }
  for (size_t i = 0; i < outputs.chain.entry_count; ++i) {
    free(const_cast<uint8_t*>(outputs.chain.entries[i].data));
  }
  free(outputs.chain.entries);
}

void Clear(test::Outputs* outputs) {
  outputs->params = {};
  outputs->characteristics = {};
  outputs->key_blob = {};
  outputs->data = {};
  outputs->chain = {};
}

// The platform calls of a script, with a buffer for each reply.
int32_t RawCommands(const Script& script) {
  static uint8_t input[1];  // which this TEE does not read
  int32_t result = 0;
  for (const Exchange& exchange : script) {
    TEEC_Operation operation = {};
    void* replies[4] = {};
    operation.started = 1;
    operation.paramTypes = exchange.types;
    for (unsigned i = 0; i < 4; ++i) {
      if (IsReply(exchange.types, i)) replies[i] = malloc(exchange.sizes[i]);
      if (IsReference(exchange.types, i)) {
        void* buffer = replies[i] != nullptr ? replies[i] : input;
        operation.params[i].tmpref = {buffer, exchange.sizes[i]};
      }
    }
    result |= RawCommand(exchange.command, &operation);
    for (void* reply : replies) {
      free(reply);
    }
  }
  return result;
}

}  // namespace

Script Record(const test::Request& request) {
  Script script;
  g_recorded = &script;
  if (RepeatedRequest(request).Run(nullptr) != 0) abort();
  g_recorded = nullptr;
  return script;
}

void Play(const Script* script) {
  g_script = script;
  g_next = 0;
}

int32_t RawCommand(uint32_t command, TEEC_Operation* operation) {
  TEEC_Context context = {};
  TEEC_Session session = {};
  const TEEC_UUID uuid = {};
  TEEC_Operation open = {};
  uint32_t origin = 0;
  TEEC_Result result = TEEC_SUCCESS;
  const auto guarded = [](const char* label, auto call) {
    const int id = __zubrel_start_ex(label, 32, nullptr, nullptr, 3);
    call();
    zubrel_end(id);
  };
  zubrel_init();
  guarded("open", [&] {
    result = TEEC_OpenSession(&context, &session, &uuid, 7, nullptr, &open, &origin);
  });
  guarded("invoke", [&] { result |= TEEC_InvokeCommand(&session, command, operation, &origin); });
  guarded("close", [&] { TEEC_CloseSession(&session); });
  return static_cast<int32_t>(result);
}

RepeatedRequest::RepeatedRequest(const test::Request& request) : call_(request.call) {
  Clear(&outputs_);
  request.Prepare(&args_);
}

int32_t RepeatedRequest::Run(const Script* raw) {
  const int32_t result = raw == nullptr ? call_(args_) : RawCommands(*raw);
  Free(outputs_);
  Clear(&outputs_);
  return result;
}

std::vector<test::Request> MeasuredRequests() {
  std::vector<test::Request> measured;
  for (const test::Request& request : test::Requests()) {
    const std::string name = request.name;
    if (strncmp(request.method, "Tivas", 5) == 0 && name != "GenerateRsa") {
      measured.push_back(request);
      measured.back().set = name == "Update" ? nullptr : request.set;
    }
  }
  return measured;
}

}  // namespace bench

extern "C" {

TEEC_Result TEEC_InitializeContext(const char*, TEEC_Context*) { return TEEC_SUCCESS; }
void TEEC_FinalizeContext(TEEC_Context*) {}
TEEC_Result TEEC_OpenSession(TEEC_Context*, TEEC_Session*, const TEEC_UUID*, uint32_t, const void*,
                             TEEC_Operation*, uint32_t*) {
  return TEEC_SUCCESS;
}
void TEEC_CloseSession(TEEC_Session*) {}
TEEC_Result TEEC_InvokeCommand(TEEC_Session*, uint32_t command, TEEC_Operation* operation,
                               uint32_t*) {
  using namespace bench;
  if (g_recorded != nullptr) {
    g_recorded->push_back(Answered(command, *operation));
    Reply(g_recorded->back(), operation);
    return TEEC_SUCCESS;
  }
  if (g_script == nullptr) {
    const TEEC_TempMemoryReference& input = operation->params[1].tmpref;
    operation->params[2].tmpref.size = 0;
    operation->params[3].tmpref.size = input.size;
    memcpy(operation->params[3].tmpref.buffer, input.buffer, input.size);
    return TEEC_SUCCESS;
  }
  const Exchange& exchange = (*g_script)[g_next];
  g_next = g_next + 1 < g_script->size() ? g_next + 1 : 0;
  Reply(exchange, operation);
  return exchange.command == command ? TEEC_SUCCESS : TEEC_ERROR_GENERIC;
}

int __android_log_print(int, const char*, const char*, ...) { return 0; }

int zubrel_init(void) { return 0; }
int __zubrel_start_ex(const char*, unsigned, void (*)(void*), void*, unsigned) { return 1; }
int zubrel_end(int) { return 0; }

}  // extern "C"
