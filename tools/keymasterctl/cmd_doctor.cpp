// doctor

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "commands.h"
#include "doctor.h"
#include "errors.h"
#include "report.h"
#include "terminal.h"

namespace {

using Grade = Finding::Grade;

struct Look {
  const char* word;
  Color color;
};

Look LookOf(Grade grade) {
  if (grade == Grade::kGood) return {"ok", Color::kGreen};
  return grade == Grade::kNote ? Look{"note", Color::kYellow} : Look{"broken", Color::kRed};
}

std::vector<Finding> Examine() {
  std::vector<Finding> findings = CheckLibraries();
  for (Finding (*check)() : {CheckCrypto, CheckSystem, CheckState, CheckWorker, CheckEvents}) {
    findings.push_back(check());
  }
  for (const Finding& finding : CheckTa()) findings.push_back(finding);
  return findings;
}

void PrintJson(const std::vector<Finding>& findings, bool healthy) {
  std::vector<std::string> checks;
  for (const Finding& finding : findings) {
    checks.push_back(JsonObject({{"subject", JsonText(finding.subject)},
                                 {"grade", JsonText(LookOf(finding.grade).word)},
                                 {"found", JsonText(finding.found)},
                                 {"advice", JsonText(finding.advice)}},
                                4));
  }
  Report()
      .Member("healthy", healthy ? "true" : "false")
      .Member("checks", JsonList(checks, 2))
      .Print();
}

void PrintText(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    const Look look = LookOf(finding.grade);
    const std::string word = std::string(look.word) + std::string(8 - strlen(look.word), ' ');
    std::string subject = finding.subject;
    subject.resize(std::max<size_t>(subject.size(), 22), ' ');
    printf("%s%s  %s\n", Paint(stdout, look.color, word).c_str(), subject.c_str(),
           finding.found.c_str());
    if (!finding.advice.empty()) printf("%*s-> %s\n", 8, "", finding.advice.c_str());
  }
}

void RunDoctor(const NoArgs&) {
  const std::vector<Finding> findings = Examine();
  const auto broken = std::count_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.grade == Grade::kBroken;
  });
  if (Style().json) {
    PrintJson(findings, broken == 0);
  } else {
    PrintText(findings);
    printf("%s\n", broken == 0 ? "all is well" : "something is broken");
  }
  if (broken != 0) throw ToldFailure();
}

}  // namespace

void AddDoctorCommand(CommandLine* line) { line->AddCommand<NoArgs>("doctor", RunDoctor); }
