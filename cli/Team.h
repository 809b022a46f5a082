#ifndef TANSY_CLI_TEAM_H
#define TANSY_CLI_TEAM_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace Tansy::Cli {

// The threads that share the work of one command, so that the number of connections and of pieces in memory is that of
// its members, however many files there are and however large they are. Each member does one thing at a time; who has
// none left helps the others with the pieces of theirs.
class CTeam {
 public:
  // The calling thread is the first of its `size` members; the others are started when there is work for them. When the
  // system gives fewer threads, these do the work.
  explicit CTeam(std::size_t size) : size_(size) {}
  ~CTeam();
  CTeam(const CTeam&) = delete;
  CTeam& operator=(const CTeam&) = delete;

  std::size_t Size() const { return size_; }

  // Takes piece after piece until none is left; whoever returns from it says that none is. When `stop` becomes true,
  // another member has failed: no further piece is to be begun.
  using Work = std::function<void(const std::atomic<bool>& stop)>;

  // Runs `work` on the calling thread, and at the same time on members that have nothing else to do, on at most `most`
  // threads. Within `work` a member may call this function for the smaller pieces of its piece, but not within those
  // again. Returns when nobody is at work on it any more; then the first exception of `work` reaches the caller.
  void Together(std::size_t most, const Work& work);

 private:
  // Work that members may join.
  struct Offer {
    const Work& work;
    std::size_t places = 0;   // how many more members may join
    std::size_t at_work = 0;  // members that have joined
    std::atomic<bool> stop{false};
    std::exception_ptr failure = nullptr;
  };

  void StartMembers(std::size_t wanted);
  void Serve();
  // All three are called with the lock, which they give back while they work.
  void WorkOn(Offer& offer, std::unique_lock<std::mutex>& lock);
  bool HelpSomebody(std::unique_lock<std::mutex>& lock);
  void WaitForHelpers(const Offer& offer, bool may_help, std::unique_lock<std::mutex>& lock);

  const std::size_t size_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::list<Offer*> offers_;  // those that still have pieces, the oldest first
  std::size_t together_ = 0;  // calls under way
  std::size_t idle_ = 0;      // members that wait for work
  bool ended_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_TEAM_H
