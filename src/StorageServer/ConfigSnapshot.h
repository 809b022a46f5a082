// An immutable record that many threads read while a few replace it.
#ifndef TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H
#define TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H

#include <memory>
#include <mutex>
#include <utility>

namespace Tansy::CloudStorage {

// Holds the current value of a record that is replaced as a whole. A request takes one snapshot at its beginning and
// works with it to its end; an update publishes a changed copy, which the next request sees. A snapshot stays valid as
// long as somebody holds it, whatever is published meanwhile.
//
// Threads: every member except the destructor may be called from any thread at any time. A reader holds the lock only
// while it copies a pointer, and never waits while an update is being prepared.
template <typename Record>
class CConfigSnapshot {
 public:
  using Pointer = std::shared_ptr<const Record>;

  CConfigSnapshot() : CConfigSnapshot(Record{}) {}
  explicit CConfigSnapshot(Record record) : record_(std::make_shared<const Record>(std::move(record))) {}
  CConfigSnapshot(const CConfigSnapshot&) = delete;
  CConfigSnapshot& operator=(const CConfigSnapshot&) = delete;

  // Gives the current record; it is never null.
  Pointer Load() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return record_;
  }

  // Replaces the record, whatever it was.
  void Store(Record record) {
    const std::lock_guard<std::mutex> update(update_mutex_);
    Publish(std::make_shared<const Record>(std::move(record)));
  }

  // Replaces the record by a copy that `change(Record&)` has altered. Updates are made one after another, so that two
  // updates at the same time both count. What `change` throws reaches the caller, and the record stays as it is.
  template <typename Change>
  void Update(const Change& change) {
    const std::lock_guard<std::mutex> update(update_mutex_);
    Record copy = *Load();
    change(copy);
    Publish(std::make_shared<const Record>(std::move(copy)));
  }

 private:
  // The old record is released outside the lock, because destroying it may take longer than exchanging it.
  void Publish(Pointer record) {
    const std::lock_guard<std::mutex> lock(mutex_);
    record_.swap(record);
  }

  std::mutex update_mutex_;  // held by whoever makes a new record; taken before mutex_
  mutable std::mutex mutex_;
  Pointer record_;  // guarded by mutex_
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H
