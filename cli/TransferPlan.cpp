#include "TransferPlan.h"

#include <algorithm>
#include <map>

namespace Tansy::Cli {
namespace details {
namespace {

std::string PathIn(const std::string& folder, const std::string& name) {
  return folder + (folder.ends_with('/') ? "" : "/") + name;
}

bool IsFolderMark(const RemoteObject& object) {
  return object.key.ends_with('/');
}

std::string RelativeKey(const RemoteObject& object, const S3Path& remote) {
  return object.key.substr(FolderPrefix(remote.key).size());
}

Transfer Put(const std::string& folder, const std::string& name, const S3Path& remote) {
  return {.kind = Transfer::EKind::kPut, .remote = remote.Below(name), .file = PathIn(folder, name)};
}

Transfer Get(const RemoteObject& object, const std::string& name, const S3Path& remote) {
  return {.kind = Transfer::EKind::kGet, .remote = {remote.bucket, object.key}, .file = name, .object = object};
}

// Says whether the walk left the name out: it is a link, or below one.
bool IsSkipped(const LocalTree& tree, const std::string& name) {
  return std::any_of(tree.skipped.begin(), tree.skipped.end(),
                     [&](const std::string& skipped) { return name == skipped || name.starts_with(skipped + "/"); });
}

// Calls `use` with each object and its local name; names that are none become failures.
template <typename Use>
void ForEachName(const std::vector<RemoteObject>& objects, const S3Path& remote, TransferPlan& plan, const Use& use) {
  for (const RemoteObject& object : objects) {
    if (IsFolderMark(object)) {
      continue;
    }
    try {
      use(object, LocalNameOf(RelativeKey(object, remote)));
    } catch (const CFailure& failure) {
      plan.failures.push_back(failure);
    }
  }
}

}  // namespace
}  // namespace details

TransferPlan PlanPuts(const std::string& folder, const LocalTree& tree, const S3Path& remote) {
  TransferPlan plan;
  for (const LocalEntry& entry : tree.files) {
    plan.transfers.push_back(details::Put(folder, entry.name, remote));
  }
  return plan;
}

TransferPlan PlanGets(const std::vector<RemoteObject>& objects, const S3Path& remote) {
  TransferPlan plan;
  details::ForEachName(objects, remote, plan, [&](const RemoteObject& object, const std::string& name) {
    plan.transfers.push_back(details::Get(object, name, remote));
  });
  return plan;
}

TransferPlan PlanSyncUp(const std::string& folder, const LocalTree& tree, const S3Path& remote,
                        const std::vector<RemoteObject>& objects, bool remove) {
  std::map<std::string, const RemoteObject*> there;
  for (const RemoteObject& object : objects) {
    if (!details::IsFolderMark(object)) {
      there[details::RelativeKey(object, remote)] = &object;
    }
  }
  TransferPlan plan;
  for (const LocalEntry& entry : tree.files) {
    Transfer put = details::Put(folder, entry.name, remote);
    if (const auto found = there.find(entry.name); found != there.end()) {
      put.object = *found->second;
      put.only_when_different = found->second->size == entry.size;
      there.erase(found);
    }
    plan.transfers.push_back(put);
  }
  for (const auto& [name, object] : there) {
    if (remove && tree.failures.empty() && !details::IsSkipped(tree, name)) {
      plan.transfers.push_back(
          {.kind = Transfer::EKind::kRemoveObject, .remote = {remote.bucket, object->key}, .object = *object});
    }
  }
  return plan;
}

TransferPlan PlanSyncDown(const LocalTree& tree, const S3Path& remote, const std::vector<RemoteObject>& objects,
                          bool remove) {
  std::map<std::string, std::uint64_t> here;
  for (const LocalEntry& entry : tree.files) {
    here[entry.name] = entry.size;
  }
  TransferPlan plan;
  details::ForEachName(objects, remote, plan, [&](const RemoteObject& object, const std::string& name) {
    Transfer get = details::Get(object, name, remote);
    if (const auto found = here.find(name); found != here.end()) {
      get.only_when_different = found->second == object.size;
      here.erase(found);
    }
    plan.transfers.push_back(get);
  });
  for (const auto& [name, size] : here) {
    if (remove && tree.failures.empty() && plan.failures.empty()) {
      plan.transfers.push_back({.kind = Transfer::EKind::kRemoveFile, .remote = remote, .file = name});
    }
  }
  return plan;
}

}  // namespace Tansy::Cli
