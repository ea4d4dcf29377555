// A key's characteristics as text.
#ifndef KEYMASTERCTL_DESCRIBE_H
#define KEYMASTERCTL_DESCRIBE_H

#include <hardware/keymaster_defs.h>

#include <string>

// DescribeText returns both lists as lines for people to read.
std::string DescribeText(const keymaster_key_characteristics_t& characteristics);
// DescribeJson returns {"hardware_enforced": {...}, "software_enforced": {...}}; repeatable
// parameters are arrays, byte values hexadecimal, dates milliseconds since 1970.
std::string DescribeJson(const keymaster_key_characteristics_t& characteristics, size_t indent = 0);
// SetJson returns one list as such an object, indented so deep.
std::string SetJson(const keymaster_key_param_set_t& set, size_t indent);
// DescribeSet returns the lines of one list, indented.
std::string DescribeSet(const keymaster_key_param_set_t& set);

#endif  // KEYMASTERCTL_DESCRIBE_H
