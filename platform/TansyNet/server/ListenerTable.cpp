#include "TansyNet/server/ListenerTable.h"

#include <utility>
#include <vector>

#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

thread_local std::string t_last_error;

}  // namespace
}  // namespace details

void CListenerTable::SetLastError(std::string text) {
  details::t_last_error = std::move(text);
}

std::string CListenerTable::LastError() {
  return details::t_last_error;
}

int CListenerTable::Start(std::int32_t& handle, const std::string& address, std::uint16_t port, const HttpsServer* tls,
                          RecvCallback callback, bool reuse_address, const ListenerStyle& style) {
  const std::scoped_lock control(control_mutex_);
  runtime_.EnsureRunning();
  const auto listener = std::make_shared<CListener>(runtime_, runtime_.NextWorker(), callback, style);
  std::string error;
  int result = tls == nullptr ? 0 : listener->LoadCertificate(*tls, error);
  if (result == 0) {
    result = listener->Open(address, port, reuse_address, offered_.Find(address, port), error);
  }
  if (result == CListener::kNoIpv6) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]no IPv6 here, %s[%s(%d)]", error.c_str());
    return 0;
  }
  if (result != 0) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]start failed, revalue = %d, %s[%s(%d)]", result, error.c_str());
    SetLastError(std::move(error));
    return result;
  }
  const std::scoped_lock lock(mutex_);
  handle = ++last_listener_;
  listeners_.emplace(handle, listener);
  return 0;
}

int CListenerTable::Stop(std::int32_t handle) {
  std::shared_ptr<CListener> listener;
  {
    const std::scoped_lock lock(mutex_);
    const auto found = listeners_.find(handle);
    if (found == listeners_.end()) {
      return kNetUnknownHandle;
    }
    listener = found->second;
    listeners_.erase(found);
  }
  listener->Close();
  runtime_.ForEachConnection([listener](IServerConnection& connection) {
    if (listener->IsOriginOf(connection)) {
      connection.CloseWhenIdle();
    }
  });
  return 0;
}

int CListenerTable::ReloadCertificates() {
  std::map<std::int32_t, std::shared_ptr<CListener>> listeners;
  {
    const std::scoped_lock lock(mutex_);
    listeners = listeners_;
  }
  int result = 0;
  for (const auto& [handle, listener] : listeners) {
    std::string error;
    const int reloaded = listener->ReloadCertificate(error);
    if (reloaded != 0) {
      TANSY_LOG(logging::kError, "TansyNet", "[%s]reload failed, revalue = %d, %s[%s(%d)]", reloaded, error.c_str());
      SetLastError(std::move(error));
      result = reloaded;
    }
  }
  return result;
}

void CListenerTable::StopAll() {
  std::vector<std::int32_t> handles;
  {
    const std::scoped_lock lock(mutex_);
    for (const auto& [handle, listener] : listeners_) {
      handles.push_back(handle);
    }
  }
  for (const std::int32_t handle : handles) {
    Stop(handle);
  }
}

bool CListenerTable::Shutdown(std::uint32_t drain_ms) {
  if (CServerWorker::IsLibraryThread()) {
    TANSY_LOG(logging::kError, "TansyNet", "[%s]shutdown from within a callback[%s(%d)]");
    return false;
  }
  StopAll();
  const bool idle = runtime_.WaitUntilIdle(drain_ms);
  ServerThreads threads;
  {
    const std::scoped_lock control(control_mutex_);
    StopAll();
    threads = runtime_.TakeThreads();
  }
  threads.Stop();
  return idle;
}

}  // namespace TansyNet
