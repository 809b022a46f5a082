#ifndef TANSY_HOST_MOVE_SWITCH_H
#define TANSY_HOST_MOVE_SWITCH_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "MoveBytes.h"
#include "MoveHold.h"
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
  void ExpectMirror() const;
  void CopyUploads();
  void CopyMirroredPictures();
  void CopyReleased();
  bool Try();
  bool TrySwitch();
  bool SwitchHeld(CHeldWrites& held);
  bool ComparePictures(const CHeldWrites& held, std::atomic<std::int64_t>& room);
  void WriteLastRows();
  void Switch();
  int WriteMarkOrEnd() const;
  bool EndInNewPlace();
  void LeaveSource();
  void Pause(CHeldWrites::Milliseconds held);

  CMoveWork& work_;
  CMoveBytes& bytes_;
  CMoveRows& rows_;
  MovedMark mark_;
  std::vector<StoredName> uploads_;
  std::vector<StoredName> uncompared_;  // pictures that went to both places
  std::int64_t last_released_ = -1;
  CHeldWrites::Milliseconds all_holds_{0};
  bool has_ended_ = false;  // the new catalogue is like others
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_SWITCH_H
