#ifndef TANSY_HOST_CHECK_H
#define TANSY_HOST_CHECK_H

#include <iosfwd>

#include "ObjectStore.h"

namespace Tansy::Host {

// Compares catalogue and stored bytes of a server that does not run, and writes what differs to `out`, one finding a
// line, then one line that sums up:
//
//   orphan PATH SIZE            stored bytes that nothing refers to; freed by `repair`
//   first-part NAME SIZE        a first part whose upload task is gone; removed by `repair`
//   missing /BUCKET/OBJECT URL  a row whose bytes are not there
//   short /BUCKET/OBJECT URL    a row whose bytes are fewer than it says
//
// Returns an exit code: kExitDone when all is well or has been mended, kExitFindings when something is left,
// kExitFailed when it could not look everywhere.
int RunCheck(IObjectStore& store, bool repair, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CHECK_H
