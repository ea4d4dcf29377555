// Text of any bytes as a JSON string.
#ifndef PLATFORM_EVENTS_JSON_TEXT_H
#define PLATFORM_EVENTS_JSON_TEXT_H

#include <string>
#include <string_view>

// JsonString returns text quoted and escaped for JSON. Control bytes, and bytes that are no part of
// well-formed UTF-8, become \u00XX; all else stays as it is.
std::string JsonString(std::string_view text);

#endif  // PLATFORM_EVENTS_JSON_TEXT_H
