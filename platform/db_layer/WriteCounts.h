// How many writes this process has made, and how many of them shared a commit.
#ifndef TANSY_DB_LAYER_WRITE_COUNTS_H
#define TANSY_DB_LAYER_WRITE_COUNTS_H

#include <cstdint>

namespace db_layer {

// Of all databases since the process began. Failed groups count too.
struct WriteCounts {
  std::uint64_t groups = 0;       // commits, each with one wait for the disk or the server
  std::uint64_t writes = 0;       // in these groups
  std::uint64_t nanoseconds = 0;  // that the groups took
};

// Threads: any.
WriteCounts CountedWrites() noexcept;

namespace details {

void CountGroup(std::uint64_t writes, std::uint64_t nanoseconds) noexcept;

}  // namespace details
}  // namespace db_layer

#endif  // TANSY_DB_LAYER_WRITE_COUNTS_H
