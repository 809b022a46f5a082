#ifndef TANSY_HOST_ADMIN_SERVER_H
#define TANSY_HOST_ADMIN_SERVER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Credentials.h"
#include "Metrics.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::Host {

class CConsole;

struct AdminOptions {
  std::uint16_t port = 0;
  // Loopback addresses get plain HTTP, all others HTTPS.
  std::vector<std::string> addresses;
  std::string certificate;  // path as kCertificatePath; used for HTTPS
  CredentialPair keys;      // asked from everybody who does not come from this machine
  // Takes requests below /admin/, which these keys have signed. It answers each, at once or later; null: there are
  // none.
  std::function<void(std::int32_t handle, TansyNet::HttpServerRecv& message)> signed_requests;
};

// The listener for those who look after the server: /health/live, /health/ready, /metrics, /debug/requests and the
// console.
//
// There is one per process. Its answers need no thread but the one that brought the request, so they come also while
// all workers are busy.
class CAdminServer {
 public:
  using Source = std::function<MetricsSource()>;

  // Opens the listeners; `source` is asked on the threads of the HTTP library and must not wait. Throws CStartFailure.
  CAdminServer(const AdminOptions& options, Source source, std::shared_ptr<CConsole> console);
  // Stops them. Requests under way are still answered.
  ~CAdminServer();
  CAdminServer(const CAdminServer&) = delete;
  CAdminServer& operator=(const CAdminServer&) = delete;

 private:
  std::vector<std::int32_t> listeners_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADMIN_SERVER_H
