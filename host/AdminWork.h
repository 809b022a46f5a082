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
//   GET  /admin/check     {"running","done","exit","output"} of the last one
// Failures: {"error": what to do}.
//
// Threads: any. One thread of its own waits for the check, which housekeeping carries out.
class CAdminWork {
 public:
  // `source` is asked on the threads of the HTTP library and must not wait.
  explicit CAdminWork(std::function<MetricsSource()> source) : source_(std::move(source)) {}
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
  std::atomic<bool> is_stopping_{false};

  std::mutex mutex_;         // guards what follows
  bool is_running_ = false;  // a check
  bool is_done_ = false;     // at least one
  int exit_code_ = 0;        // of the last check
  std::string output_;
  std::thread checker_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADMIN_WORK_H
