#ifndef TANSY_HOST_CHECK_UPGRADE_H
#define TANSY_HOST_CHECK_UPGRADE_H

#include <iosfwd>

#include "Options.h"

namespace Tansy::Host {

// Says which versions catalogue and stored bytes have, and what a start of this program would change. Changes nothing,
// and works beside a running tansyd. Returns kExitDone when a start would change nothing, kExitFindings when it would
// bring something up to date. Throws CStartFailure when a start would refuse what is there.
int RunCheckUpgrade(const HostOptions& options, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CHECK_UPGRADE_H
