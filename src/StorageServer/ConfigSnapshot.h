// An immutable record that many threads read while a few replace it, without a lock on either side.
#ifndef TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H
#define TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace Tansy::CloudStorage {

// The current value of a record that is replaced as a whole. A request takes one snapshot at its beginning and works
// with it to its end; an update publishes a changed copy, which the next request sees. A snapshot stays valid as long
// as somebody holds it, whatever is published meanwhile.
//
// Threads: every member but the destructor may be called from any thread at any time; nobody ever waits for anybody.
//
// Why not std::atomic<std::shared_ptr>: the standard library spins on a hidden lock bit there, and some versions give
// the bit back without ordering the read that it guarded, which is a data race by the letter. Here the pointer to the
// current record shares one word with the number of readers that are just passing through it. A reader counts itself in
// with one addition; whoever replaces the word takes over its count, so that the last passer-by frees the old record.
template <typename Record>
class CConfigSnapshot {
 public:
  using Pointer = std::shared_ptr<const Record>;

  CConfigSnapshot() : CConfigSnapshot(Record{}) {}
  explicit CConfigSnapshot(Record record) : word_(Pack(new Node(std::move(record)))) {}
  ~CConfigSnapshot() { delete NodeOf(word_.load(std::memory_order_acquire)); }
  CConfigSnapshot(const CConfigSnapshot&) = delete;
  CConfigSnapshot& operator=(const CConfigSnapshot&) = delete;

  // The current record; never null.
  Pointer Load() const {
    Node* node = Enter();
    Pointer record = node->record;
    Leave(node);
    return record;
  }

  // Replaces the record, whatever it was.
  void Store(Record record) {
    Node* fresh = new Node(std::move(record));
    Retire(word_.exchange(Pack(fresh), std::memory_order_acq_rel));
  }

  // Replaces the record by a copy that `change(Record&)` has altered. Of two updates at once none is lost: the later
  // one starts again from the other's result, so `change` may run several times and must only alter its argument.
  template <typename Change>
  void Update(const Change& change) {
    for (bool published = false; !published;) {
      Node* current = Enter();
      std::unique_ptr<Node> fresh;
      try {
        Record copy = *current->record;
        change(copy);
        fresh = std::make_unique<Node>(std::move(copy));
      } catch (...) {
        Leave(current);
        throw;
      }
      published = Replace(current, fresh);
      Leave(current);
    }
  }

 private:
  struct Node {
    explicit Node(Record value) : record(std::make_shared<const Record>(std::move(value))) {}
    const Pointer record;
    // Passers-by counted in the word when the node was retired, minus those that left afterwards. Negative while
    // readers leave between the replacement and the retirement; the node is freed by whoever brings it to 0.
    std::atomic<std::int64_t> balance{0};
  };

  // User addresses of 64-bit systems fit into 48 bits; the 16 bits above count the readers between Enter and Leave.
  static_assert(sizeof(void*) == 8, "the reader count lives in the upper bits of a 64-bit pointer");
  static constexpr int kAddressBits = 48;
  static constexpr std::uint64_t kOneReader = std::uint64_t{1} << kAddressBits;
  static constexpr std::uint64_t kAddressMask = kOneReader - 1;

  static std::uint64_t Pack(Node* node) { return reinterpret_cast<std::uint64_t>(node); }
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the word is where the pointer lives
  static Node* NodeOf(std::uint64_t word) { return reinterpret_cast<Node*>(word & kAddressMask); }

  Node* Enter() const { return NodeOf(word_.fetch_add(kOneReader, std::memory_order_acq_rel)); }

  // Counts the reader out of the word, or, when the word has been replaced meanwhile, out of the retired node.
  void Leave(Node* node) const {
    std::uint64_t word = word_.load(std::memory_order_relaxed);
    while (NodeOf(word) == node) {
      if (word_.compare_exchange_weak(word, word - kOneReader, std::memory_order_acq_rel, std::memory_order_relaxed)) {
        return;
      }
    }
    AddToBalance(node, -1);
  }

  // Publishes `fresh` in place of `current`, which the caller has entered; false when somebody else was quicker.
  bool Replace(Node* current, std::unique_ptr<Node>& fresh) {
    std::uint64_t word = word_.load(std::memory_order_relaxed);
    while (NodeOf(word) == current) {
      if (word_.compare_exchange_weak(word, Pack(fresh.get()), std::memory_order_acq_rel, std::memory_order_relaxed)) {
        static_cast<void>(fresh.release());  // the word owns it now
        Retire(word);
        return true;
      }
    }
    return false;
  }

  static void Retire(std::uint64_t word) {
    AddToBalance(NodeOf(word), static_cast<std::int64_t>(word >> kAddressBits));
  }

  static void AddToBalance(Node* node, std::int64_t change) {
    if (node->balance.fetch_add(change, std::memory_order_acq_rel) + change == 0) {
      delete node;
    }
  }

  mutable std::atomic<std::uint64_t> word_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_CONFIG_SNAPSHOT_H
