#include "Move.h"

#include <string>
#include <vector>

#include "MoveBytes.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "MoveRows.h"
#include "MoveSwitch.h"
#include "MoveTables.h"
#include "MoveWork.h"

namespace Tansy::Host {
namespace details {
namespace {

// The source knows of the move before the goal is marked: a goal that nobody knows would be taken for another's.
void Begin(CMoveWork& work) {
  const std::string old_goal = work.source.GetValue(kMoveGoal);
  work.id = work.source.GetValue(kMoveId);
  if (!work.id.empty() && old_goal != work.target.Describe()) {
    throw CMoveFailure("another move has begun, to " + old_goal + ": end it first, or forget it with --cancel");
  }
  work.target.Expect(work.id);
  const bool goes_on = !work.id.empty();
  if (!goes_on) {
    work.id = CMoveTarget::NewId();
    std::vector<std::string> statements = BeginMoveLog(work.source, work.tables);
    statements.push_back(CMoveDatabase::SetValue(kMoveId, work.id));
    statements.push_back(CMoveDatabase::SetValue(kMoveGoal, work.target.Describe()));
    work.source.Run(statements);
  }
  try {
    work.target.Open(work.host.options, work.id);
    if (work.target.MovesRows()) {
      ExpectMoveTables(work.tables, work.target.Database());
    }
  } catch (...) {
    // A goal that stays marked belongs to this id, which the same command then goes on with.
    if (!goes_on && work.target.Unmark(work.id)) {
      work.source.Run(ForgetMove(work.source, work.tables));
    }
    throw;
  }
  work.Say((goes_on ? "goes on: " : "to ") + work.target.Describe());
}

}  // namespace
}  // namespace details

void RunMove(const MoveOrder& order, MoveHost& host) {
  CMoveWork work(order, host);
  work.CountAll();
  if (order.dry_run) {
    work.target.Try(work.totals, host.say);
    return;
  }
  details::Begin(work);
  CMoveBytes bytes(work);
  CMoveRows rows(work, bytes);
  rows.CopyAll();
  bytes.CopyPictures(EPictures::kAll);
  rows.FollowWhileItHelps();
  rows.ExpectNoFindings();
  CMoveSwitch(work, bytes, rows).Run();
}

}  // namespace Tansy::Host
