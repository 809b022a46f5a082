#ifndef TANSY_HOST_ADMIN_WORK_H
#define TANSY_HOST_ADMIN_WORK_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Check.h"
#include "Metrics.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::Host {

// Answers signed requests of the admin listener about the server as a whole, as JSON:
//   GET  /admin/info      what the server is, has and has done since its start
//   GET  /admin/requests  the requests that run now
//   POST /admin/check     {"repair","force"} begins to compare catalogue and stored bytes, as tansyd --check does; 409
//                         while another one runs
//   GET  /admin/check     {"id","running","done"} of the last one, and when it has ended, its "exit" and "output"; a
//                         very long output is cut before its last line. Every check has another id
// Failures: {"error": what to do}.
//
// Threads: any. One thread of its own waits for the check, which housekeeping carries out.
class CAdminWork {
 public:
  // `source` is asked on the threads of the HTTP library and must not wait. A node checks nothing, because what other
  // nodes are writing is known to them only.
  CAdminWork(std::function<MetricsSource()> source, bool is_node) : source_(std::move(source)), is_node_(is_node) {}
  ~CAdminWork() { Stop(); }
  CAdminWork(const CAdminWork&) = delete;
  CAdminWork& operator=(const CAdminWork&) = delete;

  // Returns false, and does nothing, for a request about something else.
  bool Take(std::int32_t handle, const TansyNet::HttpServerRecv& message);
  // Gives up waiting for a check; no other one begins.
  void Stop();

 private:
  struct Answer {
    int status = 200;
    std::string json;
  };

  Answer AnswerTo(const std::string& method, const std::string& path, const std::string& body);
  Answer BeginCheck(const std::string& body);
  Answer ShowCheck();
  void RunCheck(const CheckOptions& options);

  const std::function<MetricsSource()> source_;
  const bool is_node_;
  std::atomic<bool> is_stopping_{false};

  std::mutex mutex_;         // guards what follows
  bool is_running_ = false;  // a check
  std::string id_;           // of the last check; empty: there was none
  int exit_code_ = 0;        // of the last check, when it has ended
  std::string output_;
  std::thread checker_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADMIN_WORK_H
