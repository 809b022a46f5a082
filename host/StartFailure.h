#ifndef TANSY_HOST_START_FAILURE_H
#define TANSY_HOST_START_FAILURE_H

#include <stdexcept>
#include <string>

namespace Tansy::Host {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;    // a port, folder, database, settings file or certificate cannot be used
inline constexpr int kExitUsage = 2;     // an option or a value is wrong
inline constexpr int kExitFindings = 3;  // --check found something that it has not mended

// Says why tansyd ends before it has begun: an exit code, and one line without line ends and secrets. It may be thrown
// anywhere on the way to the listeners and is caught in Run.
class CStartFailure : public std::runtime_error {
 public:
  CStartFailure(int exit_code, const std::string& line) : std::runtime_error(line), exit_code_(exit_code) {}
  int GetExitCode() const { return exit_code_; }

 private:
  int exit_code_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_START_FAILURE_H
