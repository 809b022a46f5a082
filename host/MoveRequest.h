// A move of what a running server serves is done by that server, because it knows what is being written. The command
// asks for it with a file in the data folder, which is the current folder of both processes, and shows what the server
// says in another file. The command holds a lock meanwhile: when it goes, the move stops.
#ifndef TANSY_HOST_MOVE_REQUEST_H
#define TANSY_HOST_MOVE_REQUEST_H

#include <functional>
#include <iosfwd>
#include <string>

#include "Move.h"

namespace Tansy::Host {

enum class EMoveWork { kMove, kCancel };

struct MoveRequest {
  EMoveWork work = EMoveWork::kMove;
  MoveOrder order;
};

// This is the command's side: it asks, writes what the server says to `out`, and returns the exit code. `is_running`
// says whether there is still a server to wait for. Throws CStartFailure with kExitFailed when nobody answers or
// another command is at it.
int AskForMove(const MoveRequest& request, const std::function<bool()>& is_running, std::ostream& out);

// This is the server's side: it does what is asked for, if there is a request. Failures are answered as well.
void AnswerMoveRequest(const std::function<MoveHost()>& make_host, const std::function<bool()>& is_stopping);
// Removes what an earlier run has left. It must be called as soon as the data folder is locked, and at the end.
void ForgetMoveRequests();

// Does the work, here and now. Returns the exit code; what went wrong is said in one line.
int DoMoveWork(const MoveRequest& request, MoveHost& host);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_REQUEST_H
