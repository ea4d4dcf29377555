#include "tools/keymasterctl/errors.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

std::string HintFor(int32_t result, const std::string& key) {
  const std::string hint = Texts().at("hints").value(ResultName(result), "");
  return Typed(ReplaceAll(hint, "--key FILE", "--key " + Quoted(key)));
}

// The name of a result with its number: "KM_ERROR_INVALID_KEY_BLOB (-33)".
std::string ResultText(int32_t result) {
  char number[16];
  snprintf(number, sizeof(number), IsTeeResult(result) ? "0x%08X" : "%d",
           static_cast<unsigned>(result));
  const std::string name = ResultName(result);
  return name.empty() ? std::string("result ") + number : name + " (" + number + ")";
}

void TellJson(const Failure& failure) {
  Report report;
  report.Member("error", failure.what()).Member("status", failure.status);
  if (failure.result) {
    report.Member("result", *failure.result).Member("name", ResultName(*failure.result));
  }
  if (!failure.hint.empty()) report.Member("hint", failure.hint);
  report.Print();
}

}  // namespace

Failure UsageFailure(const std::string& text, const std::string& hint) {
  return Failure(text, hint, kExitUsage);
}

Failure SystemFailure(const std::string& what, const std::string& path) {
  return Failure(what + " " + path + ": " + strerror(errno));
}

void Require(bool holds, const std::string& text) {
  if (!holds) throw Failure(text);
}

void RequireUsage(bool holds, const std::string& text) {
  if (!holds) throw UsageFailure(text);
}

Failure ResultFailure(const char* what, int32_t result, const std::string& key) {
  const std::string name = ResultName(result);
  const bool lost = name == "TEEC_ERROR_ITEM_NOT_FOUND" || name == "TEEC_ERROR_COMMUNICATION" ||
                    name == "TEEC_ERROR_TARGET_DEAD";
  Failure failure(std::string(what) + " failed: " + ResultText(result), HintFor(result, key),
                  lost ? kExitNoTa : kExitFailed);
  failure.result = result;
  return failure;
}

void Check(const char* what, int32_t result, const std::string& key) {
  if (result != 0) throw ResultFailure(what, result, key);
}

std::string Typed(std::string text) {
  const std::string& state = Style().state;
  const std::string tool = "keymasterctl --state " + Quoted(state);
  return state.empty() ? text : ReplaceAll(std::move(text), "keymasterctl", tool);
}

std::string Quoted(const std::string& text) {
  const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || strchr("/._-+,:=@%", c) != nullptr;
  });
  return plain ? text : "'" + ReplaceAll(text, "'", "'\\''") + "'";
}

void Tell(const Failure& failure) {
  if (*failure.what() == '\0') return;
  if (Style().json) {
    TellJson(failure);
    return;
  }
  fprintf(stderr, "%s %s\n", Paint(stderr, Color::kRed, "keymasterctl:").c_str(), failure.what());
  if (!failure.hint.empty()) fprintf(stderr, "  %s\n", failure.hint.c_str());
}
