#include "RadosPool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "HostSystem/Files.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyNet::CMemoryAccount;

// Numbers of librados's interface.
constexpr int kFullTry = 64;  // a full pool fails the operation, instead of holding it until there is room
constexpr std::uint8_t kIfGreater = 3;
constexpr std::uint8_t kMayRenew = 1;

// The number of bytes that all chunks of an object make up, in 16 digits, so that the order of the texts is that of the
// numbers: the cluster compares texts.
constexpr const char* kSizeAttribute = "tansy.size";
constexpr std::size_t kSizeDigits = 16;
using SizeText = std::array<char, kSizeDigits>;

SizeText ToSizeText(std::uint64_t size) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  SizeText text{};
  for (std::size_t i = kSizeDigits; i-- > 0; size >>= 4) {
    text.at(i) = kDigits[size & 15];
  }
  return text;
}

bool ParseSizeText(std::string_view text, std::uint64_t& size) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size, 16);
  return text.size() == kSizeDigits && error == std::errc{} && end == text.data() + text.size();
}

int ToErrno(std::ptrdiff_t result) {
  return result < 0 ? static_cast<int>(-result) : 0;
}

// All operations under way may take a sixteenth of the memory for requests.
std::size_t RoomLimit() {
  return CMemoryAccount::Process().Limit() / 16;
}

struct TimeSpan {
  long seconds;
  long microseconds;
};

std::vector<std::string> SplitAtZeros(std::string_view text) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\0'), text.size());
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

std::string Description(const RadosUrl& url) {
  return "storage pool " + url.pool + (url.name_space.empty() ? "" : ", namespace " + url.name_space);
}

}  // namespace
}  // namespace details

CRadosPool::CRadosPool(const RadosUrl& url) : rados_(LoadRadosLibrary()), description_(details::Description(url)) {
  const std::string user = "client." + url.id;
  if (rados_.create2(&cluster_, "ceph", user.c_str(), 0) != 0) {
    Fail("librados cannot be used");
  }
  try {
    Connect(url);
  } catch (const CStartFailure&) {
    rados_.shutdown(cluster_);
    throw;
  }
}

void CRadosPool::Connect(const RadosUrl& url) {
  if (const int result = rados_.conf_read_file(cluster_, url.conf.c_str())) {
    Fail("the Ceph settings file " + url.conf + " cannot be read: " + HostSystem::ErrorText(-result));
  }
  // Without these, calls wait for ever. An operation may take as long as the cluster needs by default to notice that a
  // part of it is frozen, and to go on without it.
  SetTimeOut("client_mount_timeout", 300, "15");
  SetTimeOut("rados_mon_op_timeout", 0, "30");
  SetTimeOut("rados_osd_op_timeout", 0, "60");
  const std::string user = "client." + url.id;
  switch (const int error = -rados_.connect(cluster_)) {
    case 0:
      break;
    case EACCES:
    case EPERM:
    case ENOENT:
      Fail("the cluster refuses the user " + user + ": is its key in the keyring that " + url.conf +
           " names, and the right one?");
    case ETIMEDOUT:
      Fail("no monitor of the cluster answers; see mon_host in " + url.conf);
    default:
      Fail("the cluster cannot be reached: " + HostSystem::ErrorText(error));
  }
  if (const int error = -rados_.ioctx_create(cluster_, url.pool.c_str(), &context_)) {
    Fail(error == ENOENT ? "there is no such pool in the cluster" : HostSystem::ErrorText(error));
  }
  rados_.ioctx_set_namespace(context_, url.name_space.c_str());
}

CRadosPool::~CRadosPool() {
  rados_.ioctx_destroy(context_);
  rados_.shutdown(cluster_);
}

// Sets a time-out that the settings file has left at `unset`. Versions of the library that do not know the name have
// nothing to be set.
void CRadosPool::SetTimeOut(const char* name, double unset, const char* seconds) {
  char text[64] = {};
  if (rados_.conf_get(cluster_, name, text, sizeof text - 1) == 0 && std::strtod(text, nullptr) == unset) {
    rados_.conf_set(cluster_, name, seconds);
  }
}

void CRadosPool::Fail(const std::string& what) const {
  throw CStartFailure(kExitFailed, description_ + ": " + what);
}

int CRadosPool::ReadText(const std::string& object, std::size_t limit, std::string& text) {
  text.resize(limit);
  RadosLook look;
  look.object = object;
  look.data = text.data();
  look.size = limit;
  CRadosBatch batch(*this);
  batch.Start(look);
  batch.Wait();
  text.resize(look.done);
  return look.result;
}

int CRadosPool::WriteText(const std::string& object, const std::string& text) {
  RadosChange change;
  change.object = object;
  change.writes = change.replaces = true;
  change.data = text.data();
  change.size = text.size();
  CRadosBatch batch(*this);
  batch.Start(change);
  batch.Wait();
  return change.result;
}

int CRadosPool::List(const std::function<bool(std::string_view object)>& visitor) {
  void* list = nullptr;
  int result = rados_.nobjects_list_open(context_, &list);
  if (result != 0) {
    return details::ToErrno(result);
  }
  const char* object = nullptr;
  while ((result = rados_.nobjects_list_next(list, &object, nullptr, nullptr)) == 0 && visitor(object)) {
  }
  rados_.nobjects_list_close(list);
  return result == -ENOENT ? 0 : details::ToErrno(result);
}

int CRadosPool::Lock(const std::string& object, ELock kind, const std::string& cookie, int seconds) {
  details::TimeSpan duration = {seconds, 0};
  const int result = kind == ELock::kAlone ? rados_.lock_exclusive(context_, object.c_str(), "tansyd", cookie.c_str(),
                                                                   "", &duration, details::kMayRenew)
                                           : rados_.lock_shared(context_, object.c_str(), "tansyd", cookie.c_str(),
                                                                "nodes", "", &duration, details::kMayRenew);
  return details::ToErrno(result);
}

void CRadosPool::Unlock(const std::string& object, const std::string& cookie) {
  rados_.unlock(context_, object.c_str(), "tansyd", cookie.c_str());
}

int CRadosPool::GetHolders(const std::string& object, std::vector<Holder>& holders) {
  holders.clear();
  int is_exclusive = 0;
  std::string tag(4096, '\0');
  std::string clients(4096, '\0');
  std::string cookies(4096, '\0');
  std::string addresses(4096, '\0');
  std::size_t tag_size = tag.size();
  std::size_t clients_size = clients.size();
  std::size_t cookies_size = cookies.size();
  std::size_t addresses_size = addresses.size();
  const std::ptrdiff_t result =
      rados_.list_lockers(context_, object.c_str(), "tansyd", &is_exclusive, tag.data(), &tag_size, clients.data(),
                          &clients_size, cookies.data(), &cookies_size, addresses.data(), &addresses_size);
  if (result < 0) {
    return result == -ENOENT ? 0 : details::ToErrno(result);
  }
  clients.resize(clients_size);
  cookies.resize(cookies_size);
  const std::vector<std::string> client_names = details::SplitAtZeros(clients);
  const std::vector<std::string> cookie_names = details::SplitAtZeros(cookies);
  for (std::size_t i = 0; i < std::min(client_names.size(), cookie_names.size()); ++i) {
    holders.push_back({client_names[i], cookie_names[i]});
  }
  return 0;
}

int CRadosPool::BreakLock(const std::string& object, const Holder& holder) {
  return details::ToErrno(
      rados_.break_lock(context_, object.c_str(), "tansyd", holder.client.c_str(), holder.cookie.c_str()));
}

void CRadosPool::TakeRoom(std::size_t bytes) {
  if (bytes == 0) {
    return;
  }
  std::unique_lock lock(room_mutex_);
  // One operation is always let through, so that there is somebody who gives room back.
  room_given_.wait(lock, [this, bytes] {
    const std::size_t all = under_way_ + bytes;
    const bool has_room = all <= details::RoomLimit() && share_.Resize(all);
    return has_room || under_way_ == 0;
  });
  under_way_ += bytes;
}

void CRadosPool::GiveRoom(std::size_t bytes) {
  if (bytes == 0) {
    return;
  }
  const std::lock_guard lock(room_mutex_);
  under_way_ -= bytes;
  share_.Resize(std::min<std::uint64_t>(share_.Bytes(), under_way_));
  room_given_.notify_all();
}

// One operation under way. Either `change` or `look` is set.
struct CRadosBatch::Operation {
  explicit Operation(CRadosBatch& its_batch) : batch(its_batch) {}
  ~Operation() {
    const RadosLibrary& rados = batch.pool_.rados_;
    if (attributes != nullptr) {
      rados.getxattrs_end(attributes);
    }
    if (change != nullptr && handle != nullptr) {
      rados.release_write_op(handle);
    }
    if (look != nullptr && handle != nullptr) {
      rados.release_read_op(handle);
    }
    batch.pool_.GiveRoom(room);
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  void TakeRoom(std::size_t bytes) {
    batch.pool_.TakeRoom(bytes);
    room = bytes;
  }
  void Build();
  void ReadAttributes();

  CRadosBatch& batch;
  RadosChange* change = nullptr;
  RadosLook* look = nullptr;
  void* handle = nullptr;
  void* attributes = nullptr;
  int read_result = 0;
  int stat_result = 0;
  int attributes_result = 0;
  std::time_t time = 0;
  std::size_t room = 0;
};

void CRadosBatch::Operation::Build() {
  const RadosLibrary& rados = batch.pool_.rados_;
  handle = change != nullptr ? rados.create_write_op() : rados.create_read_op();
  if (handle == nullptr) {
    throw std::bad_alloc();
  }
  if (look != nullptr) {
    rados.read_op_getxattrs(handle, &attributes, &attributes_result);
    rados.read_op_stat(handle, &look->own_size, &time, &stat_result);
    if (look->size > 0) {
      rados.read_op_read(handle, look->offset, look->size, look->data, &look->done, &read_result);
    }
    return;
  }
  const details::SizeText size = details::ToSizeText(change->whole_size);
  if (change->only_existing) {
    rados.write_op_assert_exists(handle);
  }
  if (change->only_larger) {
    rados.write_op_cmpxattr(handle, details::kSizeAttribute, details::kIfGreater, size.data(), size.size());
  }
  if (change->writes && !change->only_existing) {
    rados.write_op_create(handle, 0, nullptr);
  }
  if (change->writes && change->replaces) {
    rados.write_op_write_full(handle, change->data, change->size);
  } else if (change->writes) {
    rados.write_op_write(handle, change->data, change->size, change->offset);
  }
  if (change->sets_size) {
    rados.write_op_setxattr(handle, details::kSizeAttribute, size.data(), size.size());
  }
  if (change->removes) {
    rados.write_op_remove(handle);
  }
}

void CRadosBatch::Operation::ReadAttributes() {
  const char* name = nullptr;
  const char* value = nullptr;
  std::size_t size = 0;
  while (batch.pool_.rados_.getxattrs_next(attributes, &name, &value, &size) == 0 && name != nullptr) {
    if (std::string_view(name) == details::kSizeAttribute) {
      look->has_whole_size = details::ParseSizeText({value, size}, look->whole_size);
    }
  }
}

void CRadosBatch::Start(RadosChange& change) {
  if (pool_.IsReadOnly()) {
    change.result = EROFS;
    return;
  }
  auto operation = std::make_unique<Operation>(*this);
  operation->change = &change;
  operation->TakeRoom(change.size);
  operation->Build();
  Submit(operation.release());
}

void CRadosBatch::Start(RadosLook& look) {
  auto operation = std::make_unique<Operation>(*this);
  operation->look = &look;
  operation->TakeRoom(look.size);
  operation->Build();
  Submit(operation.release());
}

void CRadosBatch::Submit(Operation* operation) {
  const RadosLibrary& rados = pool_.rados_;
  const bool is_change = operation->change != nullptr;
  int& result = is_change ? operation->change->result : operation->look->result;
  const char* object = is_change ? operation->change->object.c_str() : operation->look->object.c_str();
  void* completion = nullptr;
  int submitted = rados.aio_create_completion2(operation, &CRadosBatch::OnEnd, &completion);
  if (submitted == 0) {
    {
      const std::lock_guard lock(mutex_);
      ++under_way_;
    }
    // From here on the operation may be over, and destroyed, at any moment, unless it is refused.
    submitted = is_change ? rados.aio_write_op_operate(operation->handle, pool_.context_, completion, object, nullptr,
                                                       details::kFullTry)
                          : rados.aio_read_op_operate(operation->handle, pool_.context_, completion, object, 0);
    if (submitted == 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    --under_way_;
    rados.aio_release(completion);
  }
  result = details::ToErrno(submitted);
  delete operation;
}

// Runs on a thread of librados.
void CRadosBatch::OnEnd(void* completion, void* argument) {
  auto* operation = static_cast<Operation*>(argument);
  CRadosBatch& batch = operation->batch;
  const RadosLibrary& rados = batch.pool_.rados_;
  const int result = details::ToErrno(rados.aio_get_return_value(completion));
  if (operation->look != nullptr) {
    operation->look->result = result;
    if (result == 0) {
      operation->ReadAttributes();
    } else {
      operation->look->done = 0;
    }
  } else {
    operation->change->result = result;
  }
  delete operation;
  rados.aio_release(completion);
  const std::lock_guard lock(batch.mutex_);
  --batch.under_way_;
  batch.ended_.notify_all();
}

void CRadosBatch::Wait() {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [this] { return under_way_ == 0; });
}

}  // namespace Tansy::Host
