#ifndef TANSY_CLI_FAILURE_H
#define TANSY_CLI_FAILURE_H

#include <stdexcept>
#include <string>
#include <utility>

namespace Tansy::Cli {

// The program's exit codes; part of its interface.
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

// Why a command could not do its work: what happened, to what, and what to try. Thrown by commands and their helpers,
// caught where the line for standard error is written.
class CFailure : public std::runtime_error {
 public:
  // `advice` may be empty. Without words nothing is printed: there is nobody to read them.
  CFailure(EExitCode exit_code, const std::string& what_happened, std::string advice)
      : std::runtime_error(what_happened), exit_code_(exit_code), advice_(std::move(advice)) {}

  EExitCode GetExitCode() const { return exit_code_; }
  const std::string& GetAdvice() const { return advice_; }
  // The same about something in particular: "photo.jpg: ...".
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
