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

class CWorld {
 public:
  CWorld(IServer& server, std::chrono::milliseconds patience) : server_(server), patience_(patience) {}

  IServer& GetServer() { return server_; }
  CHistory& GetHistory() { return history_; }
  CRecipes& GetRecipes() { return recipes_; }
  // The longest time that a request may take.
  std::chrono::milliseconds GetPatience() const { return patience_; }
  // Nanoseconds since the run began.
  std::int64_t Now() const;

  // While the server is brought to its end a request may remain without an answer.
  void SetEnding(bool is_ending) { is_ending_ = is_ending; }
  bool IsEnding() const { return is_ending_; }
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

  // Sets the server's time of day. The number of seconds by which it is off, all steps together.
  void StepClock(std::int64_t seconds);
  std::int64_t GetClock() const { return clock_; }

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
  IServer& server_;
  const std::chrono::milliseconds patience_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  CHistory history_;
  CRecipes recipes_;
  std::atomic<bool> is_ending_{false};
  std::atomic<std::size_t> answers_{0};
  std::atomic<std::int64_t> clock_{0};
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
