#ifndef TANSY_CLI_PROGRESS_H
#define TANSY_CLI_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Settings.h"

namespace Tansy::Cli {

// Says how far several transfers together have come.
struct ProgressState {
  std::string what;       // "put"
  std::string name;       // name of the file when there is only one, else empty
  std::size_t files = 0;  // number of files when there are several
  std::size_t done = 0;
  std::uint64_t bytes = 0;
  std::uint64_t total = 0;  // 0 when it is not known
  double seconds = 0;
};

// Renders one line of at most `width` columns: name or count, bar, percentage, rate, time left.
std::string RenderProgress(const ProgressState& state, std::size_t width);

// Keeps a line on the terminal up to date while transfers run. It does nothing when there is no terminal to see it on,
// and with --quiet and --json. Threads: any.
class CProgress {
 public:
  CProgress(const Globals& globals, const std::string& what);
  ~CProgress();  // removes the line
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;

  // Announces a transfer and returns its number. `total` is 0 when it is not known.
  std::size_t Add(const std::string& name, std::uint64_t total);
  void Update(std::size_t number, std::uint64_t bytes);
  void Finish(std::size_t number);

 private:
  struct Transfer {
    std::uint64_t bytes = 0;
    std::uint64_t total = 0;
  };

  void Draw();
  ProgressState State() const;

  const bool visible_;
  const std::string what_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();

  mutable std::mutex mutex_;  // guards what follows
  std::condition_variable stopped_;
  bool stop_ = false;
  std::vector<Transfer> transfers_;  // none when nobody sees them, because there may be millions
  std::string first_name_;
  ProgressState sum_;              // of all of them
  std::size_t without_total_ = 0;  // those that are under way and have none

  std::thread thread_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PROGRESS_H
