#include "fault_plan.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

struct FaultPlan {
  std::string text;
  uint32_t command = 0;
  TEEC_Result code = TEEC_SUCCESS;
  uint32_t times = 0;
};

// ReadField takes "name=number" off *text.
bool ReadField(const char** text, const std::string& name, uint32_t* value) {
  const std::string prefix = name + "=";
  if (std::string(*text).compare(0, prefix.size(), prefix) != 0) return false;
  char* end = nullptr;
  const unsigned long long number = strtoull(*text + prefix.size(), &end, 0);
  if (end == *text + prefix.size() || number > UINT32_MAX) return false;
  *value = static_cast<uint32_t>(number);
  *text = end;
  return true;
}

FaultPlan ReadPlan(const char* text) {
  FaultPlan plan;
  plan.text = text;
  if (*text == '\0') return plan;
  plan.times = 1;
  const bool valid = ReadField(&text, "cmd", &plan.command) &&
                     ReadField(&text, ",code", &plan.code) &&
                     (*text == '\0' || ReadField(&text, ",times", &plan.times)) && *text == '\0' &&
                     plan.code != TEEC_SUCCESS;
  if (!valid) {
    (void)fprintf(stderr, "tee: TEE_FAULT=\"%s\" is not understood and ignored\n",
                  plan.text.c_str());
    plan.times = 0;
  }
  return plan;
}

}  // namespace

bool TakePlannedFault(uint32_t command, TEEC_Result* code) {
  static std::mutex mutex;
  static auto* const plan = new FaultPlan;  // outlives callers in destructors at exit
  const char* text = getenv("TEE_FAULT");
  const std::lock_guard<std::mutex> lock(mutex);
  if (plan->text != (text == nullptr ? "" : text)) *plan = ReadPlan(text == nullptr ? "" : text);
  if (plan->times == 0 || plan->command != command) return false;
  --plan->times;
  *code = plan->code;
  return true;
}
