// Planned failures, for testing what stands above the TEE.
#ifndef PLATFORM_TEE_CLIENT_FAULT_PLAN_H
#define PLATFORM_TEE_CLIENT_FAULT_PLAN_H

#include <tee_client_api.h>

// TakePlannedFault says whether this command is to be answered with *code instead of running. The
// plan is the environment variable TEE_FAULT, "cmd=2,code=0xFFFF000C" for the next command 2 or
// with ",times=3" for the next three; a plan that is changed starts anew.
bool TakePlannedFault(uint32_t command, TEEC_Result* code);

#endif  // PLATFORM_TEE_CLIENT_FAULT_PLAN_H
