#ifndef TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H
#define TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H

#include <cstddef>
#include <memory>

#include "Singleton.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

// The message loop on which both servers answer their requests. The picture server starts and stops it. Tasks that the
// object server posts before the start wait.
class CServerMsgLoop : public TansyBase::CMessageLoopDyThreadPool {
 public:
  static constexpr int kThreads = 4;                   // exactly this many while it runs
  static constexpr int kIdleSeconds = 5;               // has no effect while the number of threads is fixed
  static constexpr std::size_t kMaxWorkTasks = 20001;  // waiting and running; at this number requests are refused

  static CServerMsgLoop& Instance();

  // Runs a request on the thread that brought it, if it is one that reads only, the HTTP library lends the thread and
  // nothing waits in the loop: handing it over would cost as much as the request itself. Posts it otherwise.
  void Take(std::unique_ptr<TansyBase::CTask> task, bool is_read);

 private:
  friend class CSingleton<CServerMsgLoop>;
  CServerMsgLoop() : CMessageLoopDyThreadPool("tansy-worker") {}
  ~CServerMsgLoop() override = default;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H
