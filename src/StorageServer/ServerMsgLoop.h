#ifndef TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H
#define TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H

#include <cstddef>

#include "Singleton.h"
#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

// The message loop on which both servers answer their requests. The picture server starts and stops it; what the object
// server posts before that waits.
class CServerMsgLoop : public TansyBase::CMessageLoopDyThreadPool {
 public:
  static constexpr int kThreads = 4;                   // while it runs, neither more nor less
  static constexpr int kIdleSeconds = 5;               // of no meaning while the number of threads is fixed
  static constexpr std::size_t kMaxWorkTasks = 20001;  // waiting and running; from so many on requests are refused

  static CServerMsgLoop& Instance();

 private:
  friend class CSingleton<CServerMsgLoop>;
  CServerMsgLoop() : CMessageLoopDyThreadPool("tansy-worker") {}
  ~CServerMsgLoop() override = default;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_SERVER_MSG_LOOP_H
