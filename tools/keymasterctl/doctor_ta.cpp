// The checks that go through the TEE to the TA.

#include <stdio.h>

#include <chrono>

#include "auth_token.h"
#include "doctor.h"
#include "errors.h"
#include "session.h"

namespace {

using Clock = std::chrono::steady_clock;

Finding Broken(const char* subject, const ResultFailure& failure) {
  // What the doctor finds broken before this is the better advice than to ask the doctor.
  const bool circular = failure.hint().find("doctor") != std::string::npos;
  const bool has_advice = !failure.hint().empty() && !circular;
  return {
      subject, Finding::Grade::kBroken, failure.what(),
      has_advice ? failure.hint() : "mend what else is broken; --verbose shows the library's log"};
}

std::vector<Finding> WithoutTa(const ResultFailure& of_ta) {
  try {
    Session bare(Session::Start::kBare);
  } catch (const ResultFailure& of_tee) {
    return {Broken("TEE", of_tee)};
  }
  return {{"TEE", Finding::Grade::kGood, "takes connections", ""}, Broken("keymaster TA", of_ta)};
}

}  // namespace

std::vector<Finding> CheckTa() {
  try {
    Session session;
    const Clock::time_point start = Clock::now();
    SharingParameters(session);
    const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
    char found[40];
    snprintf(found, sizeof(found), "answers within %.1f ms", taken.count());
    return {{"TEE", Finding::Grade::kGood, "takes connections", ""},
            {"keymaster TA", Finding::Grade::kGood, found, ""}};
  } catch (const ResultFailure& failure) {
    return WithoutTa(failure);
  }
}
