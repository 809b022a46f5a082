// Moves catalogue and bytes to another place while both servers serve them.
//
// Bytes keep their names, so rows stay as they are. First everything is copied and compared, in the order of keys,
// while a log notes which rows change; then what has changed, again and again. When little is left, new bytes are
// written to both places for a while, so that uploads under way are complete in the new one; writes are held for a
// moment, the last rows are copied, the file `moved` of the data folder says where everything is from now on, and the
// writes go on there.
//
// A move that ends early, however, has changed nothing but the log; the next one goes on where it was. The old place is
// left as it is.
#ifndef TANSY_HOST_MOVE_H
#define TANSY_HOST_MOVE_H

#include <functional>
#include <string>

#include "MoveHost.h"
#include "MoveOrder.h"
#include "MovedMark.h"
#include "Options.h"

namespace Tansy::Host {

// Moves, or goes on with a move that has begun. The pool of the module "platform" is in use, and the current folder is
// the data folder. Throws CMoveFailure or CStartFailure when the move cannot go on, and CMoveFailure when it is
// stopped.
void RunMove(const MoveOrder& order, MoveHost& host);

// Forgets a move that has begun, so that another one can begin. What was copied stays where it is.
void CancelMove(const HostOptions& options, const std::function<void(const std::string& line)>& say);

// Frees the places of before: the catalogue's rows and all bytes there, unless they belong to somebody else since. They
// must not be in use any more.
void DeleteMoved(const std::function<void(const std::string& line)>& say);

// Is called by every start, before catalogue and store are compared. It ends a move that a crash has left behind its
// switch, and throws CStartFailure when this catalogue was moved away, or is the goal of a move that has not ended.
void SettleMoves(const HostOptions& options, const MovedMark& mark);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_H
