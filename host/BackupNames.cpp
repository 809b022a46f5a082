#include "BackupNames.h"

#include <algorithm>
#include <string>
#include <tuple>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kVolume = 4;
constexpr std::size_t kFolder = 4;

struct BodyName {
  BodyId id;
  PackedStoredName name;
};

// Adds bodies of one segment after another; what belongs to a second segment of the same number becomes files.
void AddBodies(const std::vector<BodyName>& bodies, BackupNames& sorted) {
  for (const BodyName& body : bodies) {
    const bool is_next = sorted.segments.empty() || sorted.segments.back().segment != body.id.segment;
    if (is_next) {
      sorted.segments.push_back({body.id.segment, body.id.nonce, {}});
    }
    SegmentBodies& segment = sorted.segments.back();
    (segment.nonce == body.id.nonce ? segment.names : sorted.files).push_back(body.name);
  }
}

}  // namespace
}  // namespace details

PackedStoredName PackName(const StoredName& name, std::uint32_t size) {
  PackedStoredName packed;
  const std::string text = name.volume + name.folder + name.id;
  std::copy_n(text.begin(), std::min(text.size(), packed.text.size()), packed.text.begin());
  packed.size = size;
  return packed;
}

StoredName UnpackName(const PackedStoredName& packed) {
  const std::string text(packed.text.begin(), packed.text.end());
  return {text.substr(0, details::kVolume), text.substr(details::kVolume, details::kFolder),
          text.substr(details::kVolume + details::kFolder)};
}

BackupNames SortNames(std::vector<PackedStoredName> names) {
  // Rows that share their bytes count once, with the largest size.
  std::sort(names.begin(), names.end(), [](const PackedStoredName& left, const PackedStoredName& right) {
    return left.text != right.text ? left.text < right.text : left.size > right.size;
  });
  names.erase(std::unique(names.begin(), names.end(),
                          [](const auto& left, const auto& right) { return left.text == right.text; }),
              names.end());
  BackupNames sorted;
  std::vector<details::BodyName> bodies;
  for (const PackedStoredName& name : names) {
    BodyId id;
    if (ParseBodyId(UnpackName(name), id)) {
      bodies.push_back({id, name});
    } else {
      sorted.files.push_back(name);
    }
  }
  std::sort(bodies.begin(), bodies.end(), [](const details::BodyName& left, const details::BodyName& right) {
    return std::tie(left.id.segment, left.id.nonce, left.id.key) <
           std::tie(right.id.segment, right.id.nonce, right.id.key);
  });
  details::AddBodies(bodies, sorted);
  std::sort(sorted.files.begin(), sorted.files.end());
  return sorted;
}

}  // namespace Tansy::Host
