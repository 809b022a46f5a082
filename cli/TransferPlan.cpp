#include "TransferPlan.h"

#include <algorithm>
#include <utility>

#include "LocalFile.h"
#include "Output.h"
#include "TargetFolder.h"

namespace Tansy::Cli {
namespace details {
namespace {

bool IsFolderMark(const RemoteObject& object) {
  return object.key.ends_with('/');
}

std::string RelativeKey(const RemoteObject& object, const S3Path& remote) {
  return object.key.substr(FolderPrefix(remote.key).size());
}

// There may be millions of these, so they hold only what a transfer needs.
RemoteObject VersionOf(const RemoteObject& object) {
  return {"", object.size, object.tag, ""};
}

Transfer Put(const std::string& folder, const std::string& name, const S3Path& remote) {
  return {.kind = Transfer::EKind::kPut, .remote = remote.Below(name), .file = PathIn(folder, name)};
}

Transfer Get(const RemoteObject& object, const std::string& name, const S3Path& remote) {
  return {
      .kind = Transfer::EKind::kGet, .remote = {remote.bucket, object.key}, .file = name, .object = VersionOf(object)};
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

// All lists are in the order of their names.
const LocalEntry* FindFile(const LocalTree& tree, const std::string& name) {
  const auto found = std::lower_bound(tree.files.begin(), tree.files.end(), name,
                                      [](const LocalEntry& entry, const std::string& key) { return entry.name < key; });
  return found != tree.files.end() && found->name == name ? &*found : nullptr;
}

const RemoteObject* FindObject(const std::vector<RemoteObject>& objects, const std::string& key) {
  const auto found =
      std::lower_bound(objects.begin(), objects.end(), key,
                       [](const RemoteObject& object, const std::string& wanted) { return object.key < wanted; });
  return found != objects.end() && found->key == key ? &*found : nullptr;
}

}  // namespace
}  // namespace details

std::vector<Transfer> PlanPuts(const std::string& folder, const LocalTree& tree, const S3Path& remote) {
  std::vector<Transfer> puts;
  puts.reserve(tree.files.size());
  for (const LocalEntry& entry : tree.files) {
    puts.push_back(details::Put(folder, entry.name, remote));
  }
  return puts;
}

TransferPlan PlanGets(const std::vector<RemoteObject>& objects, const S3Path& remote, const std::string& prefix) {
  TransferPlan plan;
  plan.transfers.reserve(objects.size());
  details::ForEachName(objects, remote, plan, [&](const RemoteObject& object, const std::string& name) {
    plan.transfers.push_back(details::Get(object, prefix + name, remote));
  });
  return plan;
}

TransferPlan PlanSyncUp(const std::string& folder, const LocalTree& tree, const S3Path& remote,
                        const std::vector<RemoteObject>& objects, bool remove) {
  TransferPlan plan;
  plan.transfers.reserve(tree.files.size());
  for (const LocalEntry& entry : tree.files) {
    Transfer put = details::Put(folder, entry.name, remote);
    if (const RemoteObject* const object = details::FindObject(objects, put.remote.key)) {
      put.object = details::VersionOf(*object);
      put.only_when_different = object->size == entry.size;
    }
    plan.transfers.push_back(std::move(put));
  }
  if (!remove || !tree.failures.empty()) {
    return plan;
  }
  for (const RemoteObject& object : objects) {
    const std::string name = details::RelativeKey(object, remote);
    if (!details::IsFolderMark(object) && details::FindFile(tree, name) == nullptr && !IsSkipped(tree, name)) {
      plan.transfers.push_back({.kind = Transfer::EKind::kRemoveObject, .remote = {remote.bucket, object.key}});
    }
  }
  return plan;
}

TransferPlan PlanSyncDown(const LocalTree& tree, const S3Path& remote, const std::vector<RemoteObject>& objects,
                          bool remove) {
  TransferPlan plan;
  plan.transfers.reserve(objects.size());
  details::ForEachName(objects, remote, plan, [&](const RemoteObject& object, const std::string& name) {
    Transfer get = details::Get(object, name, remote);
    if (IsSkipped(tree, name)) {
      throw CFailure(kExitFailed, Printable(get.remote.Url()) + ": a link or device is in the way",
                     "links are not followed; remove it");
    }
    if (const LocalEntry* const entry = details::FindFile(tree, name)) {
      get.only_when_different = entry->size == object.size;
    }
    plan.transfers.push_back(std::move(get));
  });
  if (!remove || !tree.failures.empty() || !plan.failures.empty()) {
    return plan;
  }
  for (const LocalEntry& entry : tree.files) {
    if (details::FindObject(objects, FolderPrefix(remote.key) + entry.name) == nullptr) {
      plan.transfers.push_back({.kind = Transfer::EKind::kRemoveFile, .remote = remote, .file = entry.name});
    }
  }
  return plan;
}

}  // namespace Tansy::Cli
