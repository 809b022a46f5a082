#ifndef TANSY_HOST_MOVE_ROWS_H
#define TANSY_HOST_MOVE_ROWS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "MoveBytes.h"
#include "MoveTables.h"
#include "MoveWork.h"
#include "StoredName.h"

namespace Tansy::Host {

// Copies rows with the bytes that they name: first all of them, then those that change. Bytes come first, so that no
// row in the new place ever names what is not there. Errors: members throw CMoveFailure.
class CMoveRows {
 public:
  CMoveRows(CMoveWork& work, CMoveBytes& bytes) : work_(work), bytes_(bytes) {}

  // Copies all rows, from where an earlier move has stopped.
  void CopyAll();
  // Copies what has changed since it was copied, a batch of it. Returns the number of changes.
  std::size_t Follow();
  // Follows until nothing is left, or until clients change as much as is copied meanwhile.
  void FollowWhileItHelps();
  // From here on, what Follow has copied and compared is remembered for FollowHeld.
  void RememberBytes() { remembers_ = true; }
  // Follows to the end while writes are held, for as long as they are. It copies no bytes: those that were not compared
  // before have to be in both places by now, and are compared, as long as there are no more bytes than `room`. Returns
  // false, with changes left, when they are not the same, or when the time is over.
  bool FollowHeld(const std::function<bool()>& is_over, std::atomic<std::int64_t>& room);
  // Fails when the bytes of some rows could not be read, unless the order says that this is all the same.
  void ExpectNoFindings();

 private:
  void CopyTable(const MoveTable& table, std::vector<std::string> key);
  // What changed, by table.
  struct Changes {
    std::vector<CMoveDatabase::Row> rows;        // as they are now
    std::vector<std::vector<std::string>> gone;  // keys
  };
  std::int64_t ReadChanges(std::vector<Changes>& changes, std::size_t& count);
  bool HasBytes(const MoveTable& table) const;
  void Write(const MoveTable& table, const Changes& changes, const std::vector<StoredName>& names);
  std::vector<StoredName> CopyBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows);
  bool CompareBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
                    const std::function<bool()>& is_over, std::atomic<std::int64_t>& room,
                    std::vector<StoredName>& names);
  bool IsRemembered(const StoredName& name);
  void Remember(const StoredName& name);
  void NoteUnlessChanged(const MoveTable& table, const CMoveDatabase::Row& row, ECopy result);
  std::size_t CountChanges();

  CMoveWork& work_;
  CMoveBytes& bytes_;
  std::set<std::string> findings_;
  bool remembers_ = false;
  std::mutex remembered_mutex_;
  std::unordered_set<std::string> remembered_;  // ids of compared bytes, of which there are as many as changes
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_ROWS_H
