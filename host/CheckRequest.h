// A repair beside a running server is done by that server, because it knows what is being written. The command asks for
// it with a file in the data folder, which is the current folder of both processes, and gets the answer as another
// file. A check without repair may be asked for too, by whoever has no other way to the data folder.
#ifndef TANSY_HOST_CHECK_REQUEST_H
#define TANSY_HOST_CHECK_REQUEST_H

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "Check.h"

namespace Tansy::Host {

// This is the command's side: it asks, waits for the answer, writes the answer to `out` and returns its exit code.
// `is_running` says whether there is still a server to wait for. Throws CStartFailure with kExitFailed when nobody
// answers or another check is under way.
int AskForCheck(const CheckOptions& options, const std::function<bool()>& is_running, std::ostream& out);

// This is the server's side: it does what is asked for, if there is a request. Failures are answered as well. Beside
// other nodes nothing is repaired, because only they know what they are writing; `find_others` names those that live,
// and is null when there can be none.
void AnswerCheckRequest(IObjectStore& store, const db_layer::DBParam& database,
                        const std::function<bool(std::vector<std::string>& names)>& find_others,
                        const std::function<bool()>& is_stopping);
// Removes what an earlier run has left. It must be called as soon as the data folder is locked, and at the end. A
// command that still waits then notices that the server is gone.
void ForgetCheckRequests();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CHECK_REQUEST_H
