// Planned failures, for testing what stands above the TEE.
//
// The plan is the environment variable TEE_FAULT: "cmd=ID" and then, each after a comma, at least
// one effect and what else is wanted:
//   code=C     that result, from the TA, which never sees the command
//   garbage=1  success with random bytes in all of every output, without the TA
//   crash=1    the TA dies instead of answering
//   delay=MS   the answer comes so much later
//   length=L   a success reports L as the length of the first output reference
//   lie=1      with length: also beyond the capacity, which is a short buffer otherwise
//   nth=N      beginning with the N-th such command, not with the first
//   times=T    so many in a row, not one
// A plan that is changed starts anew; one that is not understood ends the process.
#ifndef PLATFORM_TEE_CLIENT_FAULT_PLAN_H
#define PLATFORM_TEE_CLIENT_FAULT_PLAN_H

#include "platform/tee_client/command_parameters.h"

struct PlannedFault {
  uint32_t command = 0, nth = 1, times = 1;
  TEEC_Result code = TEEC_SUCCESS;
  uint32_t garbage = 0, crash = 0, delay_ms = 0, length = 0, lie = 0;
  bool has_length = false;
};

// TakePlannedFault says whether a fault is planned for this command, and which.
bool TakePlannedFault(uint32_t command, PlannedFault* fault);
// AnswerInstead answers a command for the TA; false when the fault leaves that to the TA.
bool AnswerInstead(const PlannedFault& fault, CommandParameters* parameters, Reply* reply);
// BendLength reports the planned length in place of the TA's.
void BendLength(const PlannedFault& fault, Reply reply, CommandParameters* parameters);

#endif  // PLATFORM_TEE_CLIENT_FAULT_PLAN_H
