#ifndef TANSY_HOST_DISK_FIGURES_H
#define TANSY_HOST_DISK_FIGURES_H

#include <cstdint>
#include <mutex>
#include <optional>

#include "Metrics.h"

namespace Tansy::Host {

struct DiskRoom {
  std::uint64_t total = 0;
  std::uint64_t available = 0;
};

// What a disk has to be asked for. The thread that looks after the server's health asks, so that those who want to know
// never wait for one. Threads: any.
class CDiskFigures {
 public:
  void SetRoom(const DiskRoom& room) {
    const std::scoped_lock lock(mutex_);
    room_ = room;
  }
  void SetCertificateEnd(std::optional<std::int64_t> end) {
    const std::scoped_lock lock(mutex_);
    certificate_end_ = end;
  }
  void AddTo(MetricsSource& figures) const {
    const std::scoped_lock lock(mutex_);
    figures.disk_bytes = room_.total;
    figures.free_bytes = room_.available;
    figures.certificate_ends = certificate_end_;
  }

 private:
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  DiskRoom room_;
  std::optional<std::int64_t> certificate_end_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_DISK_FIGURES_H
