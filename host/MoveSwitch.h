#ifndef TANSY_HOST_MOVE_SWITCH_H
#define TANSY_HOST_MOVE_SWITCH_H

#include <set>
#include <string>
#include <vector>

#include "MoveBytes.h"
#include "MoveRows.h"
#include "MoveWork.h"
#include "MovedMark.h"
#include "StoredName.h"

namespace Tansy::Host {

// Ends a move whose rows and bytes are copied: what is still written goes to both places, then writes are held for a
// moment, and go on in the new one. Errors: Run throws CMoveFailure; everything is in the old place then.
class CMoveSwitch {
 public:
  CMoveSwitch(CMoveWork& work, CMoveBytes& bytes, CMoveRows& rows) : work_(work), bytes_(bytes), rows_(rows) {}

  void Run();

 private:
  void SwitchOver();
  void BeginMirror();
  void EndMirror();
  void ExpectMirror() const;
  void CopyUploads();
  bool TrySwitch();
  void ExpectEqualCounts();
  void Switch();
  void LookAgain();
  void LeaveSource();

  CMoveWork& work_;
  CMoveBytes& bytes_;
  CMoveRows& rows_;
  MovedMark mark_;
  std::set<std::string> slow_counts_;
  std::vector<StoredName> uploads_;
  IObjectStore* old_store_ = nullptr;
  bool is_switched_ = false;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_SWITCH_H
