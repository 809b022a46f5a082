#ifndef TANSY_HOST_FIRST_PARTS_H
#define TANSY_HOST_FIRST_PARTS_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

namespace Tansy::Host {

// Where multipart uploads keep the first part that arrives, below the data folder.
inline constexpr const char* kFirstPartFolder = "localstoragetmp";

struct DeadFirstPart {
  std::string name;  // of the file
  std::uint64_t size = 0;
};

// Shows the first-part files whose upload task no catalogue row knows any more and which were last written at `time` or
// before; with `remove` they are removed as well. Files that are not called as such files are stay untouched. False
// when the folder or the catalogue cannot be read, or a file not be removed.
bool VisitDeadFirstParts(std::time_t time, bool remove, const std::function<void(const DeadFirstPart&)>& visitor);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FIRST_PARTS_H
