#ifndef TANSY_CLI_FAILURE_H
#define TANSY_CLI_FAILURE_H

#include <stdexcept>
#include <string>
#include <utility>

namespace Tansy::Cli {

// The exit codes of the program. They are part of its interface.
enum EExitCode : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitNotFound = 3,
  kExitDenied = 4,
  kExitNoSpace = 5,
  kExitUnreachable = 6,
  kExitInterrupted = 130,
};

// Says why a command could not do its work: what happened, to what, and what to try. Commands and their helpers throw
// it, and it is caught where the line for standard error is written.
class CFailure : public std::runtime_error {
 public:
  // `advice` may be empty. When `what_happened` is empty, nothing is printed, because nobody is there to read it.
  CFailure(EExitCode exit_code, const std::string& what_happened, std::string advice)
      : std::runtime_error(what_happened), exit_code_(exit_code), advice_(std::move(advice)) {}

  EExitCode GetExitCode() const { return exit_code_; }
  const std::string& GetAdvice() const { return advice_; }
  // Gives the same failure with its subject: "photo.jpg: ...".
  CFailure About(const std::string& subject) const {
    return IsSilent() ? *this : CFailure(exit_code_, subject + ": " + what(), advice_);
  }
  bool IsSilent() const { return *what() == '\0'; }

 private:
  EExitCode exit_code_;
  std::string advice_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_FAILURE_H
