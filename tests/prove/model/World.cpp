#include "World.h"

#include <algorithm>
#include <utility>

namespace prove {

std::int64_t CWorld::Now() const {
  using std::chrono::nanoseconds;
  return std::chrono::duration_cast<nanoseconds>(std::chrono::steady_clock::now() - begin_).count();
}

void CWorld::SetEnding(int node, bool is_ending) {
  std::atomic<int>& life = lives_[static_cast<std::size_t>(node)];
  life += (life % 2 != 0) == is_ending ? 0 : 1;
}

bool CWorld::AreAllEnding() const {
  return std::all_of(lives_.begin(), lives_.end(), [](const std::atomic<int>& life) { return life % 2 != 0; });
}

void CWorld::AddUnknown(Operation operation) {
  operation.is_unknown = true;
  const std::lock_guard lock(mutex_);
  unknown_.push_back(std::move(operation));
}

void CWorld::EndUnknownOnes() {
  const std::lock_guard lock(mutex_);
  for (Operation& operation : unknown_) {
    operation.ended = Now();
    history_.Add(operation);
  }
  unknown_.clear();
}

void CWorld::NoteSize(const std::string& key, std::uint64_t size, Version version) {
  const std::lock_guard lock(mutex_);
  sizes_[key].emplace(size, version);
}

std::optional<Version> CWorld::FindBySize(const std::string& key, std::uint64_t size) const {
  const std::lock_guard lock(mutex_);
  const auto of_key = sizes_.find(key);
  if (of_key == sizes_.end() || of_key->second.count(size) == 0) {
    return std::nullopt;
  }
  return of_key->second.count(size) > 1 ? kAbsent : of_key->second.find(size)->second;
}

void CWorld::ForgetSizes() {
  const std::lock_guard lock(mutex_);
  for (auto& [key, sizes] : sizes_) {
    const Contents contents = history_.GetContents(key);
    std::erase_if(sizes, [&contents](const auto& item) { return contents.count(item.second) == 0; });
  }
}

void CWorld::AddPicture(Picture picture) {
  const std::lock_guard lock(mutex_);
  pictures_.push_back(std::move(picture));
}

std::vector<Picture> CWorld::GetPictures() const {
  const std::lock_guard lock(mutex_);
  return pictures_;
}

void CWorld::StepClock(std::int64_t seconds) {
  // While the server takes it over, the earlier of the two times counts: what is done meanwhile may be that old.
  const std::int64_t clock = clock_ + seconds;
  ++clock_steps_;
  clock_ = std::min<std::int64_t>(clock_, clock);
  for (int node = 0; node < GetNodes(); ++node) {
    GetServer(node).SetClock(clock + node * kClocksApart);
  }
  clock_ = clock;
  ++clock_steps_;
}

std::string CWorld::WireName(const std::string& bucket) const {
  const std::lock_guard lock(mutex_);
  return bucket == kPassingBucket ? name_ : bucket;
}

std::set<std::string> CWorld::NextNames() const {
  const std::lock_guard lock(mutex_);
  return next_names_;
}

void CWorld::SetNames(const std::string& name, const std::set<std::string>& next_names) {
  const std::lock_guard lock(mutex_);
  name_ = name;
  next_names_ = next_names;
}

std::string HistoryKey(const std::string& bucket, const std::string& key) {
  return bucket + "/" + key;
}

std::string HistoryKey(const std::string& bucket) {
  return "bucket:" + bucket;
}

}  // namespace prove
