#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/ObjectServer/KeyOrder.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/Catalogue.h"

namespace Tansy::CloudStorage {

// An object's record in one block of memory: its numbers, then its texts one after another. There may be millions, so
// every byte counts. The bucket's name is not part of it: a table holds the objects of one bucket.
class CPackedObject : public KeyOrderLink, private TansyBase::CNoncopyable {
 public:
  struct Free {
    void operator()(CPackedObject* object) const noexcept;
  };
  using Pointer = std::unique_ptr<CPackedObject, Free>;

  // `attributes` is a text that belongs to the object's bytes; the catalogue keeps it, packed, and does not read it.
  // Throws std::bad_alloc.
  static Pointer Make(const ObjectInfo& object, std::string_view attributes = {});

  static std::uint32_t HashOf(std::string_view name);

  std::uint32_t Id() const { return id_; }
  void SetId(std::uint32_t id) { id_ = id; }
  std::string_view Name() const { return Text(guid_size_, name_size_); }
  std::string_view Url() const { return Text(guid_size_ + name_size_ + time_size_, url_size_); }
  std::string_view UpdateTime() const { return Text(guid_size_ + name_size_, time_size_); }
  std::uint64_t Size() const { return size_; }
  std::string Attributes() const;
  // The order of keys asks for it.
  std::uint32_t Priority() const { return hash_ * 0x9E3779B1U; }
  // Fills in everything but the bucket's name.
  void CopyTo(ObjectInfo& object) const;

 private:
  friend class CObjectTable;
  CPackedObject(const ObjectInfo& object, std::string_view packed_attributes);
  ~CPackedObject() = default;

  const char* Texts() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view Text(std::size_t begin, std::size_t size) const { return {Texts() + begin, size}; }

  CPackedObject* next_ = nullptr;  // in the same chain of the table
  std::uint64_t size_;
  std::uint32_t id_;
  std::uint32_t hash_;
  std::uint32_t guid_size_;
  std::uint32_t name_size_;
  std::uint32_t time_size_;
  std::uint32_t url_size_;
  std::uint32_t attributes_size_;
};

// The objects of one bucket, by name. Names are spread over parts with a mutex each, which is held for the look-up or
// the change alone, so that those who read hardly ever meet.
//
// Threads: any. Memory: a change needs none, so that what the database has accepted can always be taken in. A part that
// gets no memory for more chains goes on with longer ones. Only the constructor throws (std::bad_alloc).
class CObjectTable : private TansyBase::CNoncopyable {
 public:
  CObjectTable();
  ~CObjectTable();

  // Shows the object of that name to `look` while nobody can change it; returns false when there is none.
  template <class Look>
  bool Find(std::string_view name, Look look) const {
    const std::uint32_t hash = CPackedObject::HashOf(name);
    const Part& part = PartOf(hash);
    const std::lock_guard<std::mutex> lock(part.mutex);
    const CPackedObject* const found = *LinkTo(part, name, hash);
    if (found != nullptr) {
      look(*found);
    }
    return found != nullptr;
  }

  // Shows the first object whose key, which is its name with each %XX as the byte that it encodes, is that of `from` or
  // comes after it; without `with_key`, the first that comes after it. Returns false when there is none.
  template <class Look>
  bool FindFrom(std::string_view from, bool with_key, Look look) const {
    const std::lock_guard<std::mutex> lock(order_mutex_);
    const CPackedObject* const found = order_.FindFrom(from, with_key);
    if (found != nullptr) {
      look(*found);
    }
    return found != nullptr;
  }

  // Shows the objects from there on, in the order of their keys, until `look` returns false. Nothing changes in the
  // table meanwhile, so it must not last.
  template <class Look>
  void ShowFrom(std::string_view from, bool with_key, Look look) const {
    const std::lock_guard<std::mutex> lock(order_mutex_);
    order_.ShowFrom(from, with_key, look);
  }

  // Counts the objects and their bytes, part after part.
  struct Contents {
    std::size_t objects = 0;
    std::uint64_t bytes = 0;
  };
  Contents Count() const;

  // Puts an object in the place of the one of its name, or adds it.
  void Put(CPackedObject::Pointer object) noexcept;
  // Adds an object unless there is one of its name.
  void Add(CPackedObject::Pointer object) noexcept;
  void SetId(std::string_view name, std::uint32_t id) noexcept;
  void Remove(std::string_view name) noexcept;

 private:
  static constexpr std::size_t kParts = 16;

  struct Part {
    mutable std::mutex mutex;
    std::vector<CPackedObject*> chains;  // a power of two of them
    Contents contents;
  };

  // The lowest bits of a hash choose the part, the others the chain.
  static std::size_t ChainOf(std::uint32_t hash, std::size_t chains) { return hash / kParts & (chains - 1); }
  Part& PartOf(std::uint32_t hash) { return parts_[hash % kParts]; }
  const Part& PartOf(std::uint32_t hash) const { return parts_[hash % kParts]; }
  // Gives the link that leads to the object of that name, or the null link at the end of its chain.
  static CPackedObject* const* LinkTo(const Part& part, std::string_view name, std::uint32_t hash);
  static CPackedObject** LinkTo(Part& part, std::string_view name, std::uint32_t hash);
  void Append(Part& part, CPackedObject** link, CPackedObject::Pointer object) noexcept;
  static void Grow(Part& part) noexcept;

  std::array<Part, kParts> parts_;

  mutable std::mutex order_mutex_;  // taken after a part's mutex
  CKeyOrder<CPackedObject> order_;  // guarded by order_mutex_
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_OBJECT_TABLE_H
