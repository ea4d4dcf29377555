#include "platform/tee_client/fault_plan.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <random>
#include <sstream>
#include <string>

#include "platform/tee_client/environment.h"

namespace {

// ReadField reads a "name=number".
bool ReadField(const std::string& field, PlannedFault* fault) {
  const std::pair<const char*, uint32_t*> kFields[] = {
      {"cmd", &fault->command},   {"code", &fault->code},      {"garbage", &fault->garbage},
      {"crash", &fault->crash},   {"delay", &fault->delay_ms}, {"lie", &fault->lie},
      {"length", &fault->length}, {"nth", &fault->nth},        {"times", &fault->times},
  };
  const std::string name = field.substr(0, field.find('='));
  const std::string number = field.substr(std::min(name.size() + 1, field.size()));
  for (const auto& [known, value] : kFields) {
    if (name != known || number.empty() || number[0] < '0' || number[0] > '9') continue;
    char* end = nullptr;
    const unsigned long long parsed = strtoull(number.c_str(), &end, 0);
    *value = static_cast<uint32_t>(parsed);
    return *end == '\0' && parsed <= UINT32_MAX;
  }
  return false;
}

PlannedFault ReadPlan(const std::string& text) {
  constexpr char kKnown[] =
      "cmd=ID, then code= crash= garbage= delay= length= lie= nth= times= with a number";
  PlannedFault fault;
  std::istringstream fields(text);
  bool is_first = true;
  for (std::string field; std::getline(fields, field, ','); is_first = false) {
    const bool is_command = field.rfind("cmd=", 0) == 0;
    if (is_command != is_first || !ReadField(field, &fault)) {
      RejectWord("TEE_FAULT", field, kKnown);
    }
    fault.has_length = fault.has_length || field.rfind("length=", 0) == 0;
  }
  const bool has_effect = (fault.code | fault.garbage | fault.crash | fault.delay_ms) != 0;
  if (!text.empty() && !has_effect && !fault.has_length) RejectWord("TEE_FAULT", text, kKnown);
  return fault;
}

}  // namespace

bool TakePlannedFault(uint32_t command, PlannedFault* fault) {
  struct Plan {
    std::string text;
    PlannedFault fault;
    uint32_t seen = 0;
  };
  static std::mutex mutex;
  static auto* const plan = new Plan;  // outlives callers in destructors at exit
  const std::string text = VariableText("TEE_FAULT");
  const std::lock_guard<std::mutex> lock(mutex);
  if (plan->text != text) *plan = {text, ReadPlan(text), 0};
  *fault = plan->fault;
  if (text.empty() || fault->command != command) return false;
  ++plan->seen;
  return plan->seen >= fault->nth && plan->seen - fault->nth < fault->times;
}

bool AnswerInstead(const PlannedFault& fault, CommandParameters* parameters, Reply* reply) {
  *reply = {fault.code, TEEC_ORIGIN_TRUSTED_APP};
  if (fault.code != TEEC_SUCCESS || fault.garbage == 0) return fault.code != TEEC_SUCCESS;
  std::random_device random;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    if (!IsOutput(parameters->TypeOf(i))) continue;
    TaParam& param = parameters->ta_params()[i];
    param.a = random();
    param.b = random();
    std::generate_n(param.buffer, param.size, [&] { return static_cast<uint8_t>(random()); });
  }
  return true;
}

void BendLength(const PlannedFault& fault, Reply reply, CommandParameters* parameters) {
  if (!fault.has_length || reply.result != TEEC_SUCCESS) return;
  for (uint32_t i = 0; i < CommandParameters::kCount; ++i) {
    const uint32_t type = parameters->TypeOf(i);
    if (!IsMemoryReference(type) || !IsOutput(type)) continue;
    parameters->ta_params()[i].size = fault.length;
    if (fault.lie != 0) parameters->BelieveSizes();
    return;
  }
}
