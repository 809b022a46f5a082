#include "FiguresSource.h"

#include <utility>

namespace Tansy::Host {

std::function<MetricsSource()> MakeFiguresSource(std::shared_ptr<const CServerHealth> health,
                                                 std::shared_ptr<const CDiskFigures> disk, std::int64_t start_time) {
  return [health = std::move(health), disk = std::move(disk), start_time] {
    MetricsSource figures;
    figures.start_time = start_time;
    disk->AddTo(figures);
    figures.health = health->Report();
    return figures;
  };
}

}  // namespace Tansy::Host
