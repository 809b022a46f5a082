#ifndef TANSY_HOST_FIRST_PARTS_H
#define TANSY_HOST_FIRST_PARTS_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Tansy::Host {

// Where multipart uploads keep the first part that arrives, below the data folder.
inline constexpr const char* kFirstPartFolder = "localstoragetmp";

struct DeadFirstPart {
  std::string name;  // of the file
  std::uint64_t size = 0;
};

// Finds the first-part files whose upload task is none of those that `get_tasks` gives; it is asked after the folder,
// because a task is there before its first file is. Files that are not called as such files are stay unseen. False when
// the folder cannot be read or `get_tasks` fails.
bool FindDeadFirstParts(const std::function<bool(std::set<std::string>& ids)>& get_tasks,
                        std::vector<DeadFirstPart>& dead);
// False when the file cannot be removed. Either way the log tells.
bool RemoveFirstPart(const std::string& name);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FIRST_PARTS_H
