#include "MoveThread.h"

#include <cstdint>
#include <utility>

#include "MoveRequest.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint32_t kLookMs = 200;

}  // namespace
}  // namespace details

CMoveThread::CMoveThread(std::function<MoveHost()> make_host)
    : CSingleBaseThread("tansyd-move"), make_host_(std::move(make_host)) {}

CMoveThread::~CMoveThread() {
  Stop();
  ForgetMoveRequests();
}

void CMoveThread::Begin() {
  Start(details::kLookMs);
}

void CMoveThread::OnTimer() {
  AnswerMoveRequest(make_host_, [this] { return IsStopping(); });
}

}  // namespace Tansy::Host
