// The log of the TEE transport. Macros keep each format a literal, so that the compiler checks
// its arguments.
#ifndef TEE_LOG_H
#define TEE_LOG_H

#include <android/log.h>

#define TEE_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "KeyMaster", __VA_ARGS__)
#define TEE_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "KeyMaster", __VA_ARGS__)

// What a failure message's leading "%s" is filled with.
constexpr const char* kTeeLogFailure = "[error]";

#endif  // TEE_LOG_H
