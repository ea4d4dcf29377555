// What each request documents of its failures: failures.txt, read and compared with what is seen.
#ifndef TESTS_SWEEP_FAILURES_H
#define TESTS_SWEEP_FAILURES_H

#include <set>
#include <string>

#include "tests/platform/keymaster_test.h"

namespace test {

using Kinds = std::set<std::string>;
constexpr char kDiagnostics[] = "diagnostics";  // the rows that many requests share
constexpr char kArgument[] = "argument";        // the kind that is never shared
constexpr char kSuccess[] = "success";          // whose messages are texts, not formats

// The lines of the log by level, tag and either format or text, as failures.txt has them.
Lines Logged(std::string LogLine::*what);

// Documented tells whether a request may, after a failure of these kinds, return the result and
// say the messages, and takes down that it did. It names what is wrong, or is empty.
std::string Documented(const std::string& request, const Kinds& kinds, int32_t result,
                       const Lines& messages);
// NeverSeen is the request's rows, by kind, that Documented was never asked for.
Lines NeverSeen(const std::string& request);

}  // namespace test

#endif  // TESTS_SWEEP_FAILURES_H
