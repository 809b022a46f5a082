#include "StorageServer/ObjectServer/ObjectTable.h"

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include "StorageServer/ObjectServer/PackedAttributes.h"

namespace Tansy::CloudStorage {

namespace details {
namespace {

std::uint32_t SizeOf(const std::string& text) {
  return static_cast<std::uint32_t>(text.size());
}

std::size_t TextBytes(const ObjectInfo& object) {
  return object.guid.size() + object.name.size() + object.update_time.size() + object.url.size();
}

}  // namespace
}  // namespace details

CPackedObject::Pointer CPackedObject::Make(const ObjectInfo& object, std::string_view attributes) {
  const std::string packed = details::PackAttributes(attributes);
  void* const block = ::operator new(sizeof(CPackedObject) + details::TextBytes(object) + packed.size());
  return Pointer(::new (block) CPackedObject(object, packed));
}

CPackedObject::CPackedObject(const ObjectInfo& object, std::string_view packed_attributes)
    : size_(object.size),
      id_(object.id),
      hash_(HashOf(object.name)),
      guid_size_(details::SizeOf(object.guid)),
      name_size_(details::SizeOf(object.name)),
      time_size_(details::SizeOf(object.update_time)),
      url_size_(details::SizeOf(object.url)),
      attributes_size_(static_cast<std::uint32_t>(packed_attributes.size())) {
  char* end = reinterpret_cast<char*>(this + 1);
  for (const std::string* text : {&object.guid, &object.name, &object.update_time, &object.url}) {
    end = std::copy(text->begin(), text->end(), end);
  }
  std::copy(packed_attributes.begin(), packed_attributes.end(), end);
}

std::string CPackedObject::Attributes() const {
  return details::UnpackAttributes(Text(guid_size_ + name_size_ + time_size_ + url_size_, attributes_size_));
}

std::uint32_t CPackedObject::HashOf(std::string_view name) {
  return static_cast<std::uint32_t>(std::hash<std::string_view>()(name));
}

void CPackedObject::Free::operator()(CPackedObject* object) const noexcept {
  object->~CPackedObject();
  ::operator delete(object);
}

void CPackedObject::CopyTo(ObjectInfo& object) const {
  object.id = id_;
  object.guid = Text(0, guid_size_);
  object.name = Name();
  object.size = size_;
  object.update_time = UpdateTime();
  object.url = Url();
}

CObjectTable::CObjectTable() {
  for (Part& part : parts_) {
    part.chains.resize(1);
  }
}

CObjectTable::~CObjectTable() {
  for (const Part& part : parts_) {
    for (CPackedObject* object : part.chains) {
      while (object != nullptr) {
        const CPackedObject::Pointer owner(std::exchange(object, object->next_));
      }
    }
  }
}

CPackedObject* const* CObjectTable::LinkTo(const Part& part, std::string_view name, std::uint32_t hash) {
  CPackedObject* const* link = &part.chains[ChainOf(hash, part.chains.size())];
  while (*link != nullptr && ((*link)->hash_ != hash || (*link)->Name() != name)) {
    link = &(*link)->next_;
  }
  return link;
}

CPackedObject** CObjectTable::LinkTo(Part& part, std::string_view name, std::uint32_t hash) {
  return const_cast<CPackedObject**>(LinkTo(std::as_const(part), name, hash));
}

CObjectTable::Contents CObjectTable::Count() const {
  Contents all;
  for (const Part& part : parts_) {
    const std::lock_guard<std::mutex> lock(part.mutex);
    all.objects += part.contents.objects;
    all.bytes += part.contents.bytes;
  }
  return all;
}

void CObjectTable::Put(CPackedObject::Pointer object) noexcept {
  CPackedObject::Pointer replaced;  // freed after the lock is released
  Part& part = PartOf(object->hash_);
  const std::lock_guard<std::mutex> lock(part.mutex);
  CPackedObject** const link = LinkTo(part, object->Name(), object->hash_);
  if (*link == nullptr) {
    Append(part, link, std::move(object));
    return;
  }
  replaced.reset(*link);
  part.contents.bytes += object->Size() - replaced->Size();
  object->next_ = replaced->next_;
  {
    const std::lock_guard<std::mutex> order_lock(order_mutex_);
    order_.Replace(*replaced, *object);
  }
  *link = object.release();
}

void CObjectTable::Add(CPackedObject::Pointer object) noexcept {
  Part& part = PartOf(object->hash_);
  const std::lock_guard<std::mutex> lock(part.mutex);
  CPackedObject** const link = LinkTo(part, object->Name(), object->hash_);
  if (*link == nullptr) {
    Append(part, link, std::move(object));
  }
}

void CObjectTable::Append(Part& part, CPackedObject** link, CPackedObject::Pointer object) noexcept {
  *link = object.release();
  ++part.contents.objects;
  part.contents.bytes += (*link)->Size();
  {
    const std::lock_guard<std::mutex> order_lock(order_mutex_);
    order_.Insert(**link);
  }
  // Each object that a look-up passes on its way is a cache miss, which costs more than eight bytes for an empty chain.
  if (part.contents.objects > part.chains.size() / 2) {
    Grow(part);
  }
}

void CObjectTable::Grow(Part& part) noexcept {
  std::vector<CPackedObject*> chains;
  try {
    chains.resize(part.chains.size() * 2);
  } catch (const std::bad_alloc&) {
    return;
  }
  for (CPackedObject* object : part.chains) {
    while (object != nullptr) {
      CPackedObject*& chain = chains[ChainOf(object->hash_, chains.size())];
      CPackedObject* const next = std::exchange(object->next_, chain);
      chain = std::exchange(object, next);
    }
  }
  part.chains.swap(chains);
}

void CObjectTable::SetId(std::string_view name, std::uint32_t id) noexcept {
  const std::uint32_t hash = CPackedObject::HashOf(name);
  Part& part = PartOf(hash);
  const std::lock_guard<std::mutex> lock(part.mutex);
  if (CPackedObject* const found = *LinkTo(part, name, hash)) {
    const std::lock_guard<std::mutex> order_lock(order_mutex_);  // whoever goes through the keys reads it too
    found->SetId(id);
  }
}

void CObjectTable::Remove(std::string_view name) noexcept {
  const std::uint32_t hash = CPackedObject::HashOf(name);
  CPackedObject::Pointer removed;  // freed after the lock is released
  Part& part = PartOf(hash);
  const std::lock_guard<std::mutex> lock(part.mutex);
  CPackedObject** const link = LinkTo(part, name, hash);
  removed.reset(*link);
  if (removed) {
    *link = removed->next_;
    --part.contents.objects;
    part.contents.bytes -= removed->Size();
    const std::lock_guard<std::mutex> order_lock(order_mutex_);
    order_.Remove(*removed);
  }
}

}  // namespace Tansy::CloudStorage
