#ifndef TANSY_HOST_FIGURES_SOURCE_H
#define TANSY_HOST_FIGURES_SOURCE_H

#include <cstdint>
#include <functional>
#include <memory>

#include "DiskFigures.h"
#include "Metrics.h"
#include "ServerHealth.h"

namespace Tansy::Host {

// Gives what the admin listener asks for the server's figures. It holds what it reads, because requests may be under
// way when the server has let go of it; once the health is stopped they get its last result.
std::function<MetricsSource()> MakeFiguresSource(std::shared_ptr<const CServerHealth> health,
                                                 std::shared_ptr<const CDiskFigures> disk, std::int64_t start_time);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FIGURES_SOURCE_H
