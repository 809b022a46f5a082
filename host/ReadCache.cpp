#include "ReadCache.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Tansy::Host {
namespace details {
namespace {

using TansyNet::CMemoryAccount;
using TansyNet::MemoryUse;

// Reading a larger body takes so long that opening its file does not show.
constexpr std::uint32_t kLargestBody = std::uint32_t{64} * 1024;
// What a body takes beside its bytes.
constexpr std::uint64_t kBodyExtra = 320;
constexpr std::uint64_t kOpenFiles = 256;

std::uint64_t BodyCapacity() {
  return CMemoryAccount::Process().Limit() / 16;
}

}  // namespace
}  // namespace details

bool Allocate(ReadBuffer& buffer, std::uint32_t size) {
  buffer.data.reset(static_cast<char*>(std::malloc(std::max<std::size_t>(size, 1))));
  buffer.size = 0;
  return buffer.data != nullptr;
}

bool CReadCache::ReadRange(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer,
                           Ticket& ticket) {
  const std::shared_ptr<const Body> body = bodies_.Find(name.id, ticket.bodies);
  if (body == nullptr || offset > body->bytes.size || size > body->bytes.size - offset || !Allocate(buffer, size)) {
    return false;
  }
  std::memcpy(buffer.data.get(), body->bytes.data.get() + offset, size);
  buffer.size = size;
  return true;
}

void CReadCache::AddBody(const StoredName& name, const ReadBuffer& buffer, const Ticket& ticket) try {
  if (buffer.size == 0 || buffer.size > details::kLargestBody) {
    return;
  }
  const auto body = std::make_shared<Body>();
  const std::uint64_t weight = buffer.size + details::kBodyExtra;
  if (details::CMemoryAccount::Process().IsShort(details::MemoryUse::kWork) || !body->share.Resize(weight)) {
    bodies_.DropAll();
    return;
  }
  if (Allocate(body->bytes, buffer.size)) {
    std::memcpy(body->bytes.data.get(), buffer.data.get(), buffer.size);
    body->bytes.size = buffer.size;
    bodies_.Add(name.id, body, weight, details::BodyCapacity(), ticket.bodies);
  }
} catch (const std::bad_alloc&) {
  // The reader has its bytes all the same.
}

std::shared_ptr<HostSystem::IFile> CReadCache::FindFile(const StoredName& name, Ticket& ticket) {
  return files_.Find(name.id, ticket.files);
}

void CReadCache::AddFile(const StoredName& name, std::shared_ptr<HostSystem::IFile> file, const Ticket& ticket) try {
  files_.Add(name.id, std::move(file), 1, details::kOpenFiles, ticket.files);
} catch (const std::bad_alloc&) {
  // The reader has the file all the same.
}

void CReadCache::Drop(const std::string& id) {
  bodies_.Drop(id);
  files_.Drop(id);
}

}  // namespace Tansy::Host
