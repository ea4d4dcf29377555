#include "platform/tee_client/environment.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

std::string VariableText(const char* variable) {
  const char* const value = getenv(variable);
  return value == nullptr ? "" : value;
}

void RejectWord(const char* variable, const std::string& word, const char* known) {
  (void)fprintf(stderr, "tee: %s: \"%s\" is not understood; known: %s\n", variable, word.c_str(),
                known);
  // Other threads may be at work: nothing of theirs is torn down under them.
  _exit(2);
}
