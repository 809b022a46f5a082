// What a client does with the bucket that comes and goes.
#include <sstream>

#include "Client.h"

namespace prove {
namespace {

std::string HexName(Version version) {
  std::ostringstream text;
  text << kPassingBucket << '-' << std::hex << version;
  return text.str();
}

}  // namespace

bool CClient::MakeBucket() {
  const std::lock_guard lock(world_.GetBucketMutex());
  const std::string name = world_.WireName(kPassingBucket);
  const Answer answer = Ask({"PUT", "/" + name, {}, "<CreateBucketConfiguration/>"});
  if (answer.Is(200)) {
    Note(answer, HistoryKey(kPassingBucket), EKind::kCreate, kPresent);
    world_.SetNames(name, {name});
  } else if (answer.Is(409)) {
    Note(answer, HistoryKey(kPassingBucket), EKind::kRead, kPresent);
  } else if (answer.state == EState::kUnknown) {
    Note(answer, HistoryKey(kPassingBucket), EKind::kWrite, kPresent);
    std::set<std::string> names = world_.NextNames();
    names.insert(name);
    world_.SetNames(name, names);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::AskBucket(const std::string& name, bool& is_there) {
  const Answer answer = Ask({"GET", "/" + name + "?property", {}, ""});
  is_there = answer.Is(200);
  if (answer.state == EState::kAnswered && name == world_.WireName(kPassingBucket)) {
    Note(answer, HistoryKey(kPassingBucket), EKind::kRead, is_there ? kPresent : kAbsent);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::RemoveBucket() {
  const std::lock_guard lock(world_.GetBucketMutex());
  const std::string name = world_.WireName(kPassingBucket);
  Answer answer;
  answer.begun = world_.Now();
  world_.SetBucketRemoval(INT64_MAX);
  const int life = world_.GetLife(0);
  std::string result = world_.GetServer().RemoveBucket(name);
  if (result == "refused" && IsExcused(0, life)) {
    result.clear();  // perhaps because the database has crashed
  }
  answer.ended = world_.Now();
  world_.SetBucketRemoval(answer.ended);
  answer.state = result.empty() ? EState::kUnknown : EState::kAnswered;
  if (result == "refused") {
    Note(answer, HistoryKey(kPassingBucket), EKind::kRead, kAbsent);
    return true;
  }
  Note(answer, HistoryKey(kPassingBucket), result.empty() ? EKind::kWrite : EKind::kRemove, kAbsent);
  for (const std::string& key : KeysOf(kPassingBucket)) {
    Note(answer, HistoryKey(kPassingBucket, key), EKind::kWrite, kAbsent);
  }
  if (result == "done") {
    world_.SetNames(name, {name});
  }
  return answer.state == EState::kAnswered;
}

bool CClient::RenameBucket(Version version) {
  const std::string new_name = HexName(version);
  const std::lock_guard lock(world_.GetBucketMutex());
  const std::string name = world_.WireName(kPassingBucket);
  Answer answer;
  answer.begun = world_.Now();
  const int life = world_.GetLife(0);
  std::string result = world_.GetServer().RenameBucket(name, new_name);
  if (result == "refused" && IsExcused(0, life)) {
    result.clear();
  }
  answer.ended = world_.Now();
  answer.state = result.empty() ? EState::kUnknown : EState::kAnswered;
  if (answer.state == EState::kAnswered) {
    Note(answer, HistoryKey(kPassingBucket), EKind::kRead, result == "done" ? kPresent : kAbsent);
  }
  if (result == "done") {
    world_.SetNames(name, {new_name});
  } else if (result.empty()) {
    std::set<std::string> names = world_.NextNames();
    names.insert(new_name);
    world_.SetNames(name, names);
  }
  return answer.state == EState::kAnswered;
}

// After a start the bucket goes by its new name and by no other.
void CClient::FindPassingBucket() {
  std::vector<std::string> found;
  std::string last;
  for (const std::string& name : world_.NextNames()) {
    world_.SetNames("", world_.NextNames());  // nobody's name yet: what is asked now says nothing of the bucket
    bool is_there = false;
    if (AskBucket(name, is_there) && is_there) {
      found.push_back(name);
    }
    last = name;
  }
  if (found.size() > 1) {
    world_.GetHistory().AddFault("the passing bucket is there under two names: " + found[0] + ", " + found[1]);
  }
  const std::string name = found.empty() ? last : found[0];
  world_.SetNames(name, {name});
  bool is_there = false;
  AskBucket(name, is_there);
}

}  // namespace prove
