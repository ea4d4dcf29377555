// The library's log lines, by tag. Macros keep each format a literal, so that the compiler checks
// its arguments. The texts, their misspellings and their levels are read by those who collect logs:
// they are part of the contract and stay as they are.
#ifndef WIRE_LOG_H
#define WIRE_LOG_H

#include <android/log.h>

// Requests and marshalling.
#define KM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "KeyMaster_Ts", __VA_ARGS__)
#define KM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "KeyMaster_Ts", __VA_ARGS__)

// The TEE transport, and the archive event of a TEE call that overran.
#define TEE_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "KeyMaster", __VA_ARGS__)
#define TEE_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "KeyMaster", __VA_ARGS__)

// Reports of fault events have no tag.
#define EVENT_LOGI(...) __android_log_print(ANDROID_LOG_INFO, nullptr, __VA_ARGS__)
#define EVENT_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)

namespace km41 {

// What a failure message's leading "%s" is filled with.
constexpr const char* kLogFailure = "[error]";

}  // namespace km41

#endif  // WIRE_LOG_H
