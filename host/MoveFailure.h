#ifndef TANSY_HOST_MOVE_FAILURE_H
#define TANSY_HOST_MOVE_FAILURE_H

#include <stdexcept>
#include <string>

namespace Tansy::Host {

// Says in one line, without secrets, why a move cannot go on. What has been copied stays, and the next try goes on
// there.
class CMoveFailure : public std::runtime_error {
 public:
  explicit CMoveFailure(const std::string& line) : std::runtime_error(line) {}
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_FAILURE_H
