#ifndef TANSY_HOST_MOVE_TARGET_H
#define TANSY_HOST_MOVE_TARGET_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HostSystem/LockFile.h"
#include "MoveDatabase.h"
#include "MoveOrder.h"
#include "MovedMark.h"
#include "Options.h"
#include "StoragePlace.h"

namespace Tansy::Host {

// What there is to be moved.
struct MoveTotals {
  std::uint64_t objects = 0;
  std::uint64_t bytes = 0;  // of objects
  std::uint64_t pictures = 0;
  std::uint64_t picture_bytes = 0;
};

// The new place: a database, a storage, or both. One thread uses it. Errors: members throw CMoveFailure or
// CStartFailure.
class CMoveTarget {
 public:
  // `options` say where everything is now. Nothing is opened yet.
  CMoveTarget(const MoveOrder& order, const HostOptions& options);

  bool MovesBytes() const { return moves_bytes_; }
  bool MovesRows() const { return moves_rows_; }
  std::string Describe() const;  // without a password
  std::string DescribeStore() const { return "storage " + storage_; }

  // Looks whether it could be filled, and says how long that would take; leaves nothing behind.
  void Try(const MoveTotals& totals, const std::function<void(const std::string& line)>& say);
  static std::string NewId();  // of a move
  // Fails unless it is empty, or was filled by the move of this id; "" for none. Writes nothing.
  void Expect(const std::string& id);
  // Opens it, and makes it the goal of this move. Expect has to come first.
  void Open(const HostOptions& options, const std::string& id);

  // Takes back the marks of an Open that has failed. Returns false when some may be left.
  bool Unmark(const std::string& id) noexcept;

  CMoveDatabase& Database() { return *database_; }
  const std::shared_ptr<IObjectStore>& Store() const { return store_; }

  // What counts after the switch.
  HostOptions Options(HostOptions options) const;
  MovedMark Mark(const HostOptions& options, const std::string& id, const std::string& store_id) const;
  std::vector<std::string> VolumeStatements() const;
  std::unique_ptr<IStoragePlace> TakePlace() { return std::move(place_); }
  std::unique_ptr<HostSystem::CLockFile> TakeLock() { return std::move(lock_); }

 private:
  bool IsNewDatabase();
  void ExpectEmptyDatabase(const std::string& id) const;
  void OpenDatabase(const HostOptions& options, const std::string& id);
  void ExpectEmptyStore(const std::string& id);
  double Measure(IObjectStore& store, std::uint32_t size, int count) const;

  bool moves_rows_ = false;
  bool moves_bytes_ = false;
  std::string database_url_;
  std::string storage_;
  db_layer::DBParam param_;

  std::unique_ptr<HostSystem::CLockFile> lock_;  // of a file
  std::unique_ptr<CMoveDatabase> database_;
  std::unique_ptr<IStoragePlace> place_;
  std::shared_ptr<IObjectStore> store_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_TARGET_H
