// What the clients of a run share.
#ifndef TANSY_TESTS_PROVE_MODEL_WORLD_H
#define TANSY_TESTS_PROVE_MODEL_WORLD_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Body.h"
#include "History.h"
#include "Plan.h"
#include "Server.h"

namespace prove {

struct Picture {
  std::string address;
  Version version = kAbsent;
};

// The seconds by which the clock of a node is ahead of that of the one before it.
inline constexpr std::int64_t kClocksApart = 3600;

class CWorld {
 public:
  // `servers`: one, or the nodes that serve one catalogue.
  CWorld(std::vector<IServer*> servers, std::chrono::milliseconds patience)
      : servers_(std::move(servers)), lives_(servers_.size()), patience_(patience) {}

  int GetNodes() const { return static_cast<int>(servers_.size()); }
  IServer& GetServer(int node = 0) { return *servers_[static_cast<std::size_t>(node)]; }
  CHistory& GetHistory() { return history_; }
  CRecipes& GetRecipes() { return recipes_; }
  // The longest time that a request may take.
  std::chrono::milliseconds GetPatience() const { return patience_; }
  // Nanoseconds since the run began.
  std::int64_t Now() const;

  // While a server is brought to its end a request may remain without an answer.
  void SetEnding(int node, bool is_ending);
  bool IsEnding(int node) const { return GetLife(node) % 2 != 0; }
  bool AreAllEnding() const;
  // Changes at the beginning of a server's end and at that of its next life.
  int GetLife(int node) const { return lives_[static_cast<std::size_t>(node)]; }

  // A node says that it cannot know what is true now.
  void CountBusy() { ++busy_; }
  std::size_t GetBusy() const { return busy_; }
  void CountAnswer() { ++answers_; }
  std::size_t GetAnswers() const { return answers_; }

  // The outcome is not known; its end is the moment at which nothing of it can be under way any more.
  void AddUnknown(Operation operation);
  void EndUnknownOnes();

  // Sizes tell versions apart when only sizes are asked for.
  void NoteSize(const std::string& key, std::uint64_t size, Version version);
  // None: no version of this size was sent; kAbsent: more than one was.
  std::optional<Version> FindBySize(const std::string& key, std::uint64_t size) const;
  // Forgets all sizes but those of what the keys may hold.
  void ForgetSizes();

  void AddPicture(Picture picture);
  std::vector<Picture> GetPictures() const;

  // Sets the servers' time of day. The number of seconds by which it is off, all steps together.
  void StepClock(std::int64_t seconds);
  std::int64_t GetClock() const { return clock_; }
  // That of one node: their clocks are apart.
  std::int64_t GetClockOf(int node) const { return clock_ + node * kClocksApart; }
  // Changes at the beginning and at the end of a step.
  int GetClockSteps() const { return clock_steps_; }

  // The passing bucket goes by one name until the server's next start, and by one of `next_names` from then on: a new
  // name counts from the next start.
  std::string WireName(const std::string& bucket) const;
  std::set<std::string> NextNames() const;
  void SetNames(const std::string& name, const std::set<std::string>& next_names);
  // When the passing bucket was last removed; INT64_MAX while that is under way.
  void SetBucketRemoval(std::int64_t moment) { bucket_removal_ = moment; }
  bool IsBucketRemovedSince(std::int64_t moment) const { return bucket_removal_ >= moment; }
  // Held while a client makes, removes or renames the bucket.
  std::mutex& GetBucketMutex() { return bucket_mutex_; }

 private:
  const std::vector<IServer*> servers_;
  std::vector<std::atomic<int>> lives_;  // odd: is ending
  const std::chrono::milliseconds patience_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  CHistory history_;
  CRecipes recipes_;
  std::atomic<std::size_t> answers_{0};
  std::atomic<std::size_t> busy_{0};
  std::atomic<std::int64_t> clock_{0};
  std::atomic<int> clock_steps_{0};
  std::atomic<std::int64_t> bucket_removal_{-1};

  mutable std::mutex mutex_;  // for what follows
  std::vector<Operation> unknown_;
  std::map<std::string, std::multimap<std::uint64_t, Version>> sizes_;
  std::vector<Picture> pictures_;
  std::string name_ = kPassingBucket;
  std::set<std::string> next_names_ = {kPassingBucket};

  std::mutex bucket_mutex_;
};

// The name of a key in the history.
std::string HistoryKey(const std::string& bucket, const std::string& key);
// That of a bucket's existence.
std::string HistoryKey(const std::string& bucket);
inline constexpr Version kPresent = 1;

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_WORLD_H
