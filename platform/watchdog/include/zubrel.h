// The platform's watchdog: guards a call that may hang in the secure world. On the host the
// environment variable ZUBREL_UNIT_MS sets how many milliseconds pass for a second.
#ifndef ZUBREL_H
#define ZUBREL_H

#ifdef __cplusplus
extern "C" {
#endif

// Readies the watchdog for the calling process. May be called any number of times. 0 on success.
int zubrel_init(void);
// Opens a bracket. If zubrel_end is not called within timeout seconds, callback(arg) runs once on
// the watchdog's thread. label is copied. Returns the bracket's id, negative on failure.
int __zubrel_start_ex(const char* label, unsigned timeout, void (*callback)(void*), void* arg,
                      unsigned flags);
// Closes the bracket of that id, once its callback has returned if it is running. 0 on success,
// negative for an id that is not open.
int zubrel_end(int id);

#ifdef __cplusplus
}
#endif

#endif  // ZUBREL_H
