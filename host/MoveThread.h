#ifndef TANSY_HOST_MOVE_THREAD_H
#define TANSY_HOST_MOVE_THREAD_H

#include <functional>

#include "Move.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Looks for commands to move, and carries them out, beside a running server.
class CMoveThread final : public TansyBase::CSingleBaseThread {
 public:
  // `make_host` is called on the thread, for each command.
  explicit CMoveThread(std::function<MoveHost()> make_host);
  ~CMoveThread() override;

  void Begin();

 protected:
  void OnTimer() override;

 private:
  const std::function<MoveHost()> make_host_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_THREAD_H
