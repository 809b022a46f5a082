#ifndef TANSY_HOST_MOVE_ROWS_H
#define TANSY_HOST_MOVE_ROWS_H

#include <cstddef>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "MoveBytes.h"
#include "MoveTables.h"
#include "MoveWork.h"
#include "StoredName.h"

namespace Tansy::Host {

enum class EBytes {
  kCopy,
  kAreThere,  // all but those that a mirror has are copied; those are compared later
};

// Copies rows with the bytes that they name: first all of them, then those that change. Bytes come first, so that no
// row in the new place ever names what is not there. Errors: members throw CMoveFailure.
class CMoveRows {
 public:
  CMoveRows(CMoveWork& work, CMoveBytes& bytes) : work_(work), bytes_(bytes) {}

  // Copies all rows, from where an earlier move has stopped.
  void CopyAll();
  // Copies what has changed since it was copied, a batch of it. Returns the number of changes.
  std::size_t Follow(EBytes bytes = EBytes::kCopy);
  // Follows until little is left, or until clients change as much as is copied meanwhile.
  void FollowWhileItHelps();
  // Fails when the bytes of some rows could not be read, unless the order says that this is all the same.
  void ExpectNoFindings();

  // Names of bytes that a mirror has copied, and that were not compared.
  const std::vector<StoredName>& Unseen() const { return unseen_; }

 private:
  void CopyTable(const MoveTable& table, std::vector<std::string> key);
  void Apply(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows,
             const std::vector<std::vector<std::string>>& gone, EBytes bytes);
  std::vector<StoredName> CopyBytes(const MoveTable& table, const std::vector<CMoveDatabase::Row>& rows, EBytes bytes);
  void NoteUnlessChanged(const MoveTable& table, const CMoveDatabase::Row& row, ECopy result);
  void FollowTable(const MoveTable& table, std::set<std::vector<std::string>> keys, EBytes bytes);
  std::size_t CountChanges();

  CMoveWork& work_;
  CMoveBytes& bytes_;
  std::set<std::string> findings_;
  std::mutex unseen_mutex_;
  std::vector<StoredName> unseen_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_ROWS_H
