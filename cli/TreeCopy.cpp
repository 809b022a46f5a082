#include "TreeCopy.h"

#include "Failure.h"
#include "LocalTree.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "TargetFolder.h"
#include "TransferOptions.h"
#include "TransferPlan.h"
#include "Transfers.h"

namespace Tansy::Cli {
namespace details {
namespace {

S3Path AsFolder(const S3Path& path) {
  return {path.bucket, FolderPrefix(path.key)};
}

std::vector<RemoteObject> ObjectsBelow(const CS3Link& link, const S3Path& remote) {
  std::vector<RemoteObject> objects = AllObjects(link, AsFolder(remote));
  if (objects.empty() && !remote.key.empty()) {
    throw CFailure(kExitNotFound, Printable(AsFolder(remote).Url()) + ": there is nothing below it",
                   "'tansy ls " + Printable(remote.bucket) + "' lists what there is");
  }
  return objects;
}

int FirstOf(int first, int second) {
  return first != kExitDone ? first : second;
}

}  // namespace
}  // namespace details

int PutFolder(const CommandCall& call, const Settings& settings, const std::string& folder, const S3Path& remote) {
  const CS3Link link(settings);
  const LocalTree tree = WalkFolder(folder);
  const TransferPlan plan = PlanPuts(folder, tree, remote);
  CTransfers transfers(call.globals, link, {JobsOf(call), call.Has("--resume"), false}, nullptr, "put");
  const int done = transfers.Run(plan.transfers);
  return details::FirstOf(done, ReportLeftOut(call.globals, tree.skipped, tree.failures));
}

int GetFolder(const CommandCall& call, const Settings& settings, const S3Path& remote, const std::string& folder) {
  const CS3Link link(settings);
  const TransferPlan plan = PlanGets(details::ObjectsBelow(link, remote), remote);
  CTargetFolder target(folder);
  CTransfers transfers(call.globals, link, {JobsOf(call), false, false}, &target, "get");
  const int done = transfers.Run(plan.transfers);
  return details::FirstOf(done, ReportLeftOut(call.globals, {}, plan.failures));
}

int RemoveFolder(const CommandCall& call, const Settings& settings, const S3Path& remote) {
  const CS3Link link(settings);
  std::vector<Transfer> removals;
  for (const RemoteObject& object : details::ObjectsBelow(link, remote)) {
    removals.push_back(
        {.kind = Transfer::EKind::kRemoveObject, .remote = {remote.bucket, object.key}, .object = object});
  }
  return CTransfers(call.globals, link, {}, nullptr, "rm").Run(removals);
}

std::string LastName(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) {
    return "";
  }
  const std::string trimmed = path.substr(0, end + 1);
  return trimmed.substr(trimmed.rfind('/') + 1);
}

}  // namespace Tansy::Cli
