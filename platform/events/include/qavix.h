// The platform's event-reporting library. On the host a sent event is one line of JSON, appended to
// the file that the environment variable QAVIX_EVENTS names ("-" for standard error); without it
// events are accepted and dropped.
#ifndef QAVIX_H
#define QAVIX_H

#ifdef __cplusplus
extern "C" {
#endif

// Creates an event object for an event id; null on failure.
void* qavix_create_eventobj(unsigned id);
// Sends the event; negative on failure. The object stays the caller's.
int qavix_send_event(void* event);
void qavix_destroy_eventobj(void* event);
// Sets a named parameter; the text is copied. 0 on success.
int qavix_set_param_integer_v2(void* event, const char* name, long value);
int qavix_set_param_string_v2(void* event, const char* name, const char* value);
// Sets a text parameter by its number; the text is copied. 0 on success.
int qavix_set_param(void* event, unsigned short index, const void* value);

#ifdef __cplusplus
}
#endif

#endif  // QAVIX_H
