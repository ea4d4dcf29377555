#include "platform/tee_client/fault_plan.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <random>
#include <sstream>
#include <string>

#include "platform/tee_client/environment.h"

namespace {

struct FaultPlan {
  std::string text;
  uint32_t command = 0;
  PlannedFault fault;
  uint32_t nth = 1;
  uint32_t times = 1;
  uint32_t seen = 0;
  bool is_active = false;
};

bool ReadNumber(const std::string& text, uint32_t* value) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  char* end = nullptr;
  const unsigned long long number = strtoull(text.c_str(), &end, 0);
  *value = static_cast<uint32_t>(number);
  return *end == '\0' && number <= UINT32_MAX;
}

bool ReadField(const std::string& name, uint32_t value, FaultPlan* plan) {
  const std::pair<const char*, uint32_t*> kFields[] = {
      {"code", &plan->fault.code},   {"garbage", &plan->fault.garbage},
      {"crash", &plan->fault.crash}, {"delay", &plan->fault.delay_ms},
      {"lie", &plan->fault.lie},     {"length", &plan->fault.length},
      {"nth", &plan->nth},           {"times", &plan->times},
  };
  plan->fault.has_length = plan->fault.has_length || name == "length";
  for (const auto& [known, field] : kFields) {
    if (name == known) return *field = value, true;
  }
  return false;
}

constexpr char kKnown[] =
    "cmd=ID, then code= crash= garbage= delay= length= lie= nth= times= with a number";

FaultPlan ReadPlan(const std::string& text) {
  FaultPlan plan;
  plan.text = text;
  std::istringstream fields(text);
  for (std::string field; std::getline(fields, field, ',');) {
    const std::string name = field.substr(0, field.find('='));
    const bool is_first = !plan.is_active;
    uint32_t value = 0;
    if (name.size() == field.size() || !ReadNumber(field.substr(name.size() + 1), &value) ||
        !(is_first ? name == "cmd" : ReadField(name, value, &plan))) {
      RejectWord("TEE_FAULT", field, kKnown);
    }
    plan.command = is_first ? value : plan.command;
    plan.is_active = true;
  }
  const PlannedFault& fault = plan.fault;
  const bool has_effect = (fault.code | fault.garbage | fault.crash | fault.delay_ms) != 0;
  if (plan.is_active && !has_effect && !fault.has_length) RejectWord("TEE_FAULT", text, kKnown);
  return plan;
}

}  // namespace

bool TakePlannedFault(uint32_t command, PlannedFault* fault) {
  static std::mutex mutex;
  static auto* const plan = new FaultPlan;  // outlives callers in destructors at exit
  const std::string text = VariableText("TEE_FAULT");
  const std::lock_guard<std::mutex> lock(mutex);
  if (plan->text != text) *plan = ReadPlan(text);
  if (!plan->is_active || plan->command != command) return false;
  ++plan->seen;
  if (plan->seen < plan->nth || plan->seen - plan->nth >= plan->times) return false;
  *fault = plan->fault;
  return true;
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
