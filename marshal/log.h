// The log of the requests and of the marshalling. Macros keep each format a literal, so that the
// compiler checks its arguments.
#ifndef MARSHAL_LOG_H
#define MARSHAL_LOG_H

#include <android/log.h>

#define KM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "KeyMaster_Ts", __VA_ARGS__)
#define KM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "KeyMaster_Ts", __VA_ARGS__)

// What a failure message's leading "%s" is filled with.
constexpr const char* kLogFailure = "[error]";

#endif  // MARSHAL_LOG_H
