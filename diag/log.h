// The log of the fault events. A report has no tag; the watchdog's callback logs as the TEE
// transport does. Macros keep each format a literal, so that the compiler checks its arguments.
#ifndef DIAG_LOG_H
#define DIAG_LOG_H

#include <android/log.h>

#define EVENT_LOGI(...) __android_log_print(ANDROID_LOG_INFO, nullptr, __VA_ARGS__)
#define EVENT_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)
#define ARCHIVE_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "KeyMaster", __VA_ARGS__)

#endif  // DIAG_LOG_H
