// The listeners of the process, by handle.
#ifndef TANSY_NET_SERVER_LISTENER_TABLE_H
#define TANSY_NET_SERVER_LISTENER_TABLE_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "TansyNet/server/Listener.h"
#include "TansyNet/server/OfferedSockets.h"
#include "TansyNet/server/ServerRuntime.h"
#include "TansyNet/server/ServerSettings.h"

namespace TansyNet {

// Threads: any; the functions are those of CHttpServer.
class CListenerTable {
 public:
  explicit CListenerTable(CServerRuntime& runtime) : runtime_(runtime) {}
  CListenerTable(const CListenerTable&) = delete;
  CListenerTable& operator=(const CListenerTable&) = delete;

  // `tls` is null for plain HTTP.
  int Start(std::int32_t& handle, const std::string& address, std::uint16_t port, const HttpsServer* tls,
            RecvCallback callback, bool reuse_address, const ListenerStyle& style);
  int Stop(std::int32_t handle);
  int ReloadCertificates();
  COfferedSockets& OfferedSockets() { return offered_; }
  bool Shutdown(std::uint32_t drain_ms);

  // Says why the last start in the calling thread failed.
  static void SetLastError(std::string text);
  static std::string LastError();

 private:
  void StopAll();

  CServerRuntime& runtime_;
  COfferedSockets offered_;

  // It serialises starts and stops. It is never held while threads are joined, because their callbacks may start and
  // stop listeners.
  std::mutex control_mutex_;

  std::mutex mutex_;
  std::map<std::int32_t, std::shared_ptr<CListener>> listeners_;  // guarded by mutex_
  std::int32_t last_listener_ = 0;                                // guarded by mutex_
};

}  // namespace TansyNet

#endif  // TANSY_NET_SERVER_LISTENER_TABLE_H
