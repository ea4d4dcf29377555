// completion, manual

#include <stdio.h>

#include "commands.h"

namespace {

struct ShellArgs {
  const CommandLine* line = nullptr;
  std::string shell;
};

void RunCompletion(const ShellArgs& args) {
  const auto script = args.shell == "zsh" ? ZshCompletion : BashCompletion;
  fputs(script(args.line->Describe()).c_str(), stdout);
}

void RunManual(const ShellArgs& args) { fputs(Manual(args.line->Describe()).c_str(), stdout); }

}  // namespace

void AddShellCommands(CommandLine* line) {
  const auto [completion, args] = line->AddCommand<ShellArgs>("completion", RunCompletion);
  args->line = line;
  completion.Add("SHELL", &args->shell, "Shell that the script is for")
      .TakesWords({"bash", "zsh"})
      .Required();
  line->AddCommand<ShellArgs>("manual", RunManual).second->line = line;
}
