#include "TansyNet/HttpServer.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

#include "TansyNet/server/BodyBuffer.h"
#include "TansyNet/server/ListenAddresses.h"
#include "TansyNet/server/ListenerTable.h"
#include "TansyNet/server/LoopThreads.h"
#include "TansyNet/server/ServerRuntime.h"
#include "logging/Logging.h"

namespace TansyNet {
namespace details {
namespace {

// It is made at the first use and never destroyed, because handlers may hold handles and tokens until the process ends.
struct Process {
  CServerRuntime runtime;
  CListenerTable listeners{runtime};
  CListenAddresses addresses;
};

Process& TheProcess() {
  static auto* const process = new Process();
  return *process;
}

int Stop(std::int32_t handle) {
  int result = 0;
  for (const std::int32_t each : TheProcess().addresses.Part(handle)) {
    const int stopped = TheProcess().listeners.Stop(each);
    result = result == 0 ? stopped : result;
  }
  return result;
}

int Start(std::int32_t& handle, const std::string& address, std::uint16_t port, const HttpsServer* tls,
          RecvCallback callback, bool reuse_address, const ListenerStyle& style) {
  CListenerTable::SetLastError({});
  handle = 0;
  if (port == 0) {
    return 0;
  }
  if (callback == nullptr) {
    CListenerTable::SetLastError("listen: no callback");
    return kNetListenFailed;
  }
  std::vector<std::int32_t> handles;
  for (const std::string& each : TheProcess().addresses.Of(address)) {
    std::int32_t own = 0;
    const int result = TheProcess().listeners.Start(own, each, port, tls, callback, reuse_address, style);
    if (result != 0) {
      for (const std::int32_t opened : handles) {
        TheProcess().listeners.Stop(opened);
      }
      return result;
    }
    if (own != 0) {
      handles.push_back(own);
    }
  }
  handle = TheProcess().addresses.Join(handles);
  return 0;
}

// When an allocation fails in the middle of an answer, the answer cannot be continued.
template <typename Send>
int SendGuarded(std::int32_t handle, Send send) {
  const auto connection = TheProcess().runtime.Handles().Find(handle);
  if (connection == nullptr) {
    return kNetUnknownHandle;
  }
  try {
    return send(*connection);
  } catch (const std::bad_alloc&) {
    connection->Abort();
    return kNetSendFailed;
  }
}

int Report(int result, std::int32_t handle) {
  if (result != 0) {
    TANSY_LOG(logging::kNotable, "TansyNet", "[%s]answer dropped, revalue = %d, handle = %d[%s(%d)]", result, handle);
  }
  return result;
}

}  // namespace
}  // namespace details

int CHttpServer::StartHttpServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                                 RecvCallback callback, bool reuse_address, const ListenerStyle& style) {
  return details::Start(handle, address, port, nullptr, callback, reuse_address, style);
}

int CHttpServer::StartHttpsServer(std::int32_t& handle, const std::string& address, std::uint16_t port,
                                  const HttpsServer& tls, RecvCallback callback, const ListenerStyle& style) {
  return details::Start(handle, address, port, &tls, callback, true, style);
}

int CHttpServer::StopServer(std::int32_t handle) {
  return handle == 0 ? 0 : details::Stop(handle);
}

int CHttpServer::HttpServerSyncSend(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                    const char* data) {
  const int result = details::SendGuarded(handle, [&](IServerConnection& connection) {
    return connection.Answer(handle, response, std::string_view(data, size));
  });
  return details::Report(result, handle);
}

int CHttpServer::HttpServerSendHead(std::int32_t handle, const HttpResponse& response, std::uint64_t total_size) {
  const int result = details::SendGuarded(
      handle, [&](IServerConnection& connection) { return connection.AnswerHead(handle, response, total_size); });
  return details::Report(result, handle);
}

int CHttpServer::ClaimAnswer(std::int32_t handle, std::uint32_t size) {
  const int result =
      details::SendGuarded(handle, [&](IServerConnection& connection) { return connection.ClaimAnswer(handle, size); });
  return details::Report(result, handle);
}

int CHttpServer::HttpServerSyncSendBigRsp(std::int32_t handle, const HttpResponse& response, std::uint32_t size,
                                          const char* data, std::uint64_t total_size) {
  const int result = details::SendGuarded(handle, [&](IServerConnection& connection) {
    return connection.AnswerInChunks(handle, response, std::string_view(data, size), total_size);
  });
  return details::Report(result, handle);
}

bool CHttpServer::IsRequestOpen(std::int32_t handle) {
  return details::TheProcess().runtime.Handles().Find(handle) != nullptr;
}

bool CHttpServer::IsThreadLent() {
  return CLoopThreads::IsThreadLent();
}

void CHttpServer::SetListenAddresses(const std::vector<std::string>& addresses) {
  details::TheProcess().addresses.Set(addresses);
}

std::string CHttpServer::OfferSockets(const std::vector<std::intptr_t>& sockets) {
  return details::TheProcess().listeners.OfferedSockets().Add(sockets);
}

std::vector<std::string> CHttpServer::UnusedSockets() {
  return details::TheProcess().listeners.OfferedSockets().Unused();
}

void CHttpServer::SetLimits(const HttpServerLimits& limits) {
  details::TheProcess().runtime.SetLimits(limits);
}

std::string CHttpServer::LastError() {
  return CListenerTable::LastError();
}

int CHttpServer::ReloadCertificates() {
  CListenerTable::SetLastError({});
  return details::TheProcess().listeners.ReloadCertificates();
}

void CHttpServer::SetRequestWatch(RequestWatch watch) {
  details::TheProcess().runtime.SetWatch(watch);
}

void CHttpServer::SetServerTiming(bool is_on) {
  details::TheProcess().runtime.SetTellsTimes(is_on);
}

std::vector<RunningRequest> CHttpServer::RunningRequests() {
  std::vector<RunningRequest> running;
  for (const auto& [handle, connection] : details::TheProcess().runtime.Handles().All()) {
    RunningRequest request;
    if (connection->Describe(handle, request)) {
      running.push_back(std::move(request));
    }
  }
  std::sort(running.begin(), running.end(),
            [](const RunningRequest& a, const RunningRequest& b) { return a.nanoseconds > b.nanoseconds; });
  return running;
}

ServerLoad CHttpServer::Load() {
  return details::TheProcess().runtime.Load();
}

bool CHttpServer::DoLoopsAnswer(std::chrono::milliseconds patience) {
  return details::TheProcess().runtime.DoLoopsAnswer(patience);
}

std::size_t CHttpServer::OpenRequestCount() {
  return details::TheProcess().runtime.Handles().Size();
}

bool CHttpServer::Shutdown(std::uint32_t drain_ms) {
  const bool is_drained = details::TheProcess().listeners.Shutdown(drain_ms);
  CSpareBodies::Process().Clear();
  return is_drained;
}

}  // namespace TansyNet
