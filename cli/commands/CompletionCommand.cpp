#include "Commands.h"
#include "Completion.h"
#include "HelpText.h"
#include "Output.h"

namespace Tansy::Cli {
namespace details {
namespace {

int RunCompletion(const CommandCall& call) {
  const std::string shell = call.Argument("SHELL");
  const std::string text = shell == "man"    ? ManualPage()
                           : shell == "bash" ? BashCompletion()
                           : shell == "zsh"  ? ZshCompletion()
                                             : FishCompletion();
  PrintBytes(text.data(), text.size());
  return 0;
}

}  // namespace
}  // namespace details

CommandSpec CompletionCommand() {
  return {"",
          "completion",
          "print a shell's completion script, or the manual page",
          "Prints a script that makes a shell complete this program's commands and options. \"man\" prints the manual "
          "page instead, made from the same texts.",
          {{.name = "SHELL", .help = "which one", .choices = {"bash", "zsh", "fish", "man"}}},
          {},
          {{"source <(tansy completion bash)", "complete in this shell"},
           {"tansy completion fish > ~/.config/fish/completions/tansy.fish", "complete in every fish"},
           {"tansy completion zsh > ~/.zfunc/_tansy", "complete in every zsh, with ~/.zfunc in fpath"},
           {"tansy completion man | man -l -", "read the manual page"}},
          details::RunCompletion};
}

}  // namespace Tansy::Cli
