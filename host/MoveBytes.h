#ifndef TANSY_HOST_MOVE_BYTES_H
#define TANSY_HOST_MOVE_BYTES_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "MoveWork.h"
#include "ObjectStore.h"
#include "StoredName.h"

namespace Tansy::Host {

enum class ECopy { kSame, kGone, kDamaged };
enum class EPictures { kAll, kNew };

// Copies stored bytes to the new place, and compares the copies with them. Errors: members throw CMoveFailure when the
// new place is at fault; what is wrong in the old place is a result.
class CMoveBytes {
 public:
  explicit CMoveBytes(CMoveWork& work) : work_(work) {}

  // Makes the new place have the same bytes under this name, and compares them there, byte by byte. Threads: any.
  ECopy Copy(const StoredName& name);
  // Does so for pictures, which have no rows. Those that were copied before are compared once per run.
  void CopyPictures(EPictures which);
  // Copies or compares these pictures.
  void CopyPictures(const std::vector<StoredName>& pictures);
  // Says whether both places have the same bytes under this name by now, and copies none. `room` is the number of bytes
  // that may still be read for such answers; when that is not enough, the answer is no. Threads: any.
  bool IsSame(const StoredName& name, std::atomic<std::int64_t>& room);
  // Fails for a result of the new place that is not kDone.
  void ExpectDone(EStoreResult result) const;

 private:
  ECopy CopyWhole(const StoredName& name);
  ECopy CopyPieces(const StoredName& name, std::uint64_t size);
  ECopy Compare(const StoredName& name, std::uint64_t size);
  ECopy CompareCopy(const StoredName& name, std::uint64_t size);

  CMoveWork& work_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_BYTES_H
