#ifndef TANSY_HOST_FIRST_PARTS_H
#define TANSY_HOST_FIRST_PARTS_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Tansy::Host {

// The folder, below the data folder, where multipart uploads keep the part that arrives first.
inline constexpr const char* kFirstPartFolder = "localstoragetmp";

struct DeadFirstPart {
  std::string name;  // name of the file
  std::uint64_t size = 0;
};

// Finds the first-part files whose upload task is none of those that `get_tasks` gives. The tasks are read after the
// folder, because a task exists before its first file does. Files with names of another shape are not looked at.
// Returns false when the folder cannot be read or `get_tasks` fails.
bool FindDeadFirstParts(const std::function<bool(std::set<std::string>& ids)>& get_tasks,
                        std::vector<DeadFirstPart>& dead);
// Returns false when the file cannot be removed. The log says so in both cases.
bool RemoveFirstPart(const std::string& name);

// Makes the object server refuse, from now on, first parts for which the disk of the current folder, the data folder,
// has no room to spare (CStoreRoom): the catalogue usually lies there too, and an upload that nobody completes keeps
// its first part for days.
void KeepRoomBesideFirstParts();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FIRST_PARTS_H
