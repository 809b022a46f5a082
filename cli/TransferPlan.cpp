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

CSyncPlan::CSyncPlan(EWay way, std::string folder, S3Path remote, NextFile next, const LocalTree& left_out,
                     SyncHandlers handlers)
    : way_(way),
      folder_(std::move(folder)),
      remote_(std::move(remote)),
      next_(std::move(next)),
      left_out_(left_out),
      handlers_(std::move(handlers)),
      file_(next_()) {}

// Whoever compares two sides relies on the order: by another one, what is there would look as if it were missing.
void CSyncPlan::Take(const RemoteObject& object) {
  if (!last_key_.empty() && object.key <= last_key_) {
    throw CFailure(kExitFailed,
                   Printable(remote_.Url()) + ": the server does not list objects in the order of their keys",
                   "only a server that does can be compared with a folder");
  }
  last_key_ = object.key;
  const std::string name = details::RelativeKey(object, remote_);
  while (file_.has_value() && file_->name < name) {
    TakeFile(nullptr);
  }
  if (details::IsFolderMark(object)) {
    return;
  }
  if (file_.has_value() && file_->name == name) {
    TakeFile(&object);
  } else {
    TakeObject(object, name);
  }
}

void CSyncPlan::Finish() {
  while (file_.has_value()) {
    TakeFile(nullptr);
  }
}

// Takes the present file together with the object of its name; null: there is none.
void CSyncPlan::TakeFile(const RemoteObject* object) {
  const LocalEntry file = std::move(*file_);
  file_ = next_();
  if (way_ == EWay::kDown) {
    if (object != nullptr) {
      Get(*object, file.name, &file);
    } else {
      handlers_.remove({.kind = Transfer::EKind::kRemoveFile, .remote = remote_, .file = file.name});
    }
    return;
  }
  Transfer put = details::Put(folder_, file.name, remote_);
  if (object != nullptr) {
    put.object = details::VersionOf(*object);
    put.only_when_different = object->size == file.size;
  }
  handlers_.carry(std::move(put));
}

void CSyncPlan::TakeObject(const RemoteObject& object, const std::string& name) {
  if (way_ == EWay::kDown) {
    Get(object, name, nullptr);
  } else if (!IsSkipped(left_out_, name)) {
    handlers_.remove({.kind = Transfer::EKind::kRemoveObject, .remote = {remote_.bucket, object.key}});
  }
}

void CSyncPlan::Get(const RemoteObject& object, const std::string& name, const LocalEntry* file) {
  Transfer get;
  try {
    get = details::Get(object, LocalNameOf(name), remote_);
    if (IsSkipped(left_out_, name)) {
      throw CFailure(kExitFailed, Printable(get.remote.Url()) + ": a link or device is in the way",
                     "links are not followed; remove it");
    }
  } catch (const CFailure& failure) {
    handlers_.fail(failure);
    return;
  }
  get.only_when_different = file != nullptr && file->size == object.size;
  handlers_.carry(std::move(get));
}

}  // namespace Tansy::Cli
