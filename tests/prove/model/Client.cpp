#include "Client.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "support/PictureSystemTest.h"

namespace prove {
namespace {

using system_tests::CConnection;
using system_tests::Outcome;
using system_tests::Reply;
using system_tests::Request;

constexpr std::int64_t kSweepSeconds = 3 * 24 * 3600;
constexpr std::int64_t kSweepMargin = 3600;  // a run takes less
constexpr std::size_t kPicturesToLookAt = 60;
constexpr std::chrono::milliseconds kTimerSlack{20};  // a wait may end that much too early

}  // namespace

void CClient::Run(const std::vector<Step>& steps) {
  AgeUploads();
  std::vector<Step> all = std::exchange(left_, {});
  all.insert(all.end(), steps.begin(), steps.end());
  std::set<std::uint64_t> cut_off;  // uploads whose later steps have to wait
  bool is_over = false;
  for (const Step& step : all) {
    is_over = is_over || world_.AreAllEnding();
    if (is_over || cut_off.count(step.upload) > 0) {
      left_.push_back(step);
      continue;
    }
    const int life = world_.GetLife(NodeOf(step));
    was_busy_ = false;
    if (Do(step) || was_busy_) {
      continue;
    }
    // When only this node has ended, the others go on.
    is_over = !IsExcused(NodeOf(step), life) || world_.GetNodes() == 1;
    left_.push_back(step);
    if (step.upload != 0) {
      cut_off.insert(step.upload);
    }
  }
  std::erase_if(left_, [this](const Step& step) { return step.upload == 0 || uploads_.count(step.upload) == 0; });
  connections_.clear();
}

bool CClient::IsExcused(int node, int life) const {
  return life % 2 != 0 || world_.GetLife(node) != life;
}

void CClient::AgeUploads() {
  for (auto& [number, upload] : uploads_) {
    upload.may_be_swept = upload.may_be_swept || world_.GetClock() - upload.least_clock > kSweepSeconds - kSweepMargin;
    upload.least_clock = std::min(upload.least_clock, world_.GetClock());
  }
}

bool CClient::Do(const Step& step) {
  switch (step.action) {
    case EAction::kPut:
      return Put(step);
    case EAction::kPutRefused:
      return PutRefused(step);
    case EAction::kPutBrokenOff:
      return PutBrokenOff(step);
    case EAction::kGet:
      return Get(step);
    case EAction::kGetRange:
      return GetRange(step);
    case EAction::kGetSize:
      return GetSize(step);
    case EAction::kRemove:
      return Remove(step, false);
    case EAction::kRemoveWithBytes:
      return Remove(step, true);
    case EAction::kUploadBegin:
      return BeginUpload(step);
    case EAction::kUploadPart:
      return SendPart(step);
    case EAction::kUploadEnd:
      return EndUpload(step);
    case EAction::kUploadForget:
      uploads_.erase(step.upload);
      return true;
    case EAction::kPutPicture:
      return PutPicture(step);
    case EAction::kGetPicture: {
      const std::vector<Picture> pictures = world_.GetPictures();
      return pictures.empty() || GetPicture(pictures[step.begin % pictures.size()], NodeOf(step));
    }
    case EAction::kMakeBucket:
      return MakeBucket();
    case EAction::kAskBucket: {
      bool is_there = false;
      return AskBucket(world_.WireName(kPassingBucket), is_there);
    }
    case EAction::kRemoveBucket:
      return RemoveBucket();
    case EAction::kRenameBucket:
      return RenameBucket(step.version);
    case EAction::kS3Put:
      return PutByS3(step);
    case EAction::kS3PutNew:
      return PutNew(step);
    case EAction::kS3PutSame:
      return PutSame(step);
    case EAction::kS3Get:
      return GetByS3(step);
    case EAction::kS3GetRange:
      return GetRangeByS3(step);
    case EAction::kS3Remove:
      return RemoveByS3(step);
    case EAction::kS3RemoveMany:
      return RemoveMany(step);
    case EAction::kS3List:
      return List(step);
    case EAction::kS3Copy:
      return Copy(step);
    case EAction::kS3UploadBegin:
      return BeginUploadByS3(step);
    case EAction::kS3UploadPart:
      return SendPartByS3(step);
    case EAction::kS3UploadEnd:
      return EndUploadByS3(step);
    case EAction::kS3UploadAbort:
      return AbortUpload(step);
  }
  return true;
}

bool CClient::Put(const Step& step) {
  const std::string key = HistoryKey(step.bucket, step.key);
  const Recipe recipe = {step.version, step.size, 0, {}};
  Announce(key, recipe);
  // An upload into a bucket that goes meanwhile fails.
  const std::int64_t before = world_.Now();
  const Answer answer = Ask({"PUT", Target(step), {}, MakeBody(recipe)}, NodeOf(step), step.bucket == kPassingBucket);
  if (step.bucket == kPassingBucket && answer.Is(500) && world_.IsBucketRemovedSince(before)) {
    return true;
  }
  if (answer.state == EState::kAnswered && !NoteBucket(answer, step) && answer.reply.status != 200) {
    Surprise(answer, "PUT " + Target(step));
  } else if (answer.state == EState::kUnknown || answer.Is(200)) {
    Note(answer, key, EKind::kWrite, step.version);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::PutRefused(const Step& step) {
  const Place place = {NodeOf(step), EDoor::kObjects};
  const Recipe recipe = {step.version, step.size, 0, {}};
  const Request request =
      system_tests::Signed({"PUT", Target(step), {}, MakeBody(recipe)}, {"system-test-access", "x"});
  const Answer answer = Receive(place, request, false);
  if (answer.state == EState::kAnswered && answer.reply.status != 403 && !NoteBucket(answer, step)) {
    Surprise(answer, "PUT " + Target(step) + " with a wrong signature");
  }
  return answer.state == EState::kAnswered;
}

bool CClient::PutBrokenOff(const Step& step) {
  const Place place = {NodeOf(step), EDoor::kObjects};
  const std::uint16_t port = PortOf(place);
  const int life = world_.GetLife(place.node);
  const auto connection = CConnection::Open(port, world_.GetServer(place.node).GetConnectOptions());
  if (connection == nullptr) {
    Fault(place, life, {"PUT", Target(step), {}, ""}, "no connection");
    return false;
  }
  const Request request =
      system_tests::Signed({"PUT", Target(step), {{"Content-Length", std::to_string(step.size)}}, ""});
  connection->Send(system_tests::Serialize(request, port));
  connection->Send(MakeBody({step.version, step.size, 0, {}}, 0, step.end));
  connection->Reset();
  return true;
}

bool CClient::Get(const Step& step) {
  const Answer answer = Ask({"GET", Target(step), {}, ""}, NodeOf(step));
  if (answer.state == EState::kAnswered && !NoteBucket(answer, step)) {
    NoteBytes(answer, HistoryKey(step.bucket, step.key), 0, UINT64_MAX);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::GetRange(const Step& step) {
  const std::string range = "bytes=" + std::to_string(step.begin) + "-" + std::to_string(step.end);
  const Answer answer = Ask({"GET", Target(step), {{"Range", range}}, ""}, NodeOf(step));
  const bool is_beyond = answer.Is(400);
  if (answer.state == EState::kAnswered && !NoteBucket(answer, step) && !is_beyond) {
    NoteBytes(answer, HistoryKey(step.bucket, step.key), step.begin, step.end);
  }
  return answer.state == EState::kAnswered;
}

Version CClient::NoteBytes(const Answer& answer, const std::string& key, std::uint64_t begin, std::uint64_t end) {
  const std::string& bytes = answer.reply.body;
  if (answer.reply.status == 404) {
    Note(answer, key, EKind::kRead, kAbsent);
    return kAbsent;
  }
  if (answer.reply.status != 200 && answer.reply.status != 206) {
    Surprise(answer, "GET " + key);
    return kAbsent;
  }
  if (begin > 0 && bytes.size() < kSmallestPiece) {
    return kAbsent;  // the last bytes of an object, too few to tell it
  }
  Recognised seen = Recognise(world_.GetRecipes(), bytes, begin);
  if (seen.fault.empty() && bytes.size() != std::min(end, seen.size) - begin) {
    seen.fault = std::to_string(bytes.size()) + " bytes came of an object of " + std::to_string(seen.size);
  }
  if (!seen.fault.empty()) {
    std::ostringstream text;
    text << "GET " << key << " from " << begin << " on, between " << answer.begun << " and " << answer.ended
         << " ns: " << seen.fault;
    world_.GetHistory().AddFault(text.str());
    return kAbsent;
  }
  Note(answer, key, EKind::kRead, seen.version);
  return seen.version;
}

bool CClient::GetSize(const Step& step) {
  const std::string key = HistoryKey(step.bucket, step.key);
  const Answer answer = Ask({"GET", Target(step) + "?metadata", {}, ""}, NodeOf(step));
  if (answer.state != EState::kAnswered || NoteBucket(answer, step)) {
    return answer.state == EState::kAnswered;
  }
  if (answer.reply.status == 404) {
    Note(answer, key, EKind::kRead, kAbsent);
    return true;
  }
  const std::string size = answer.reply.Header("Object-Size");
  const std::optional<Version> version = world_.FindBySize(key, std::strtoull(size.c_str(), nullptr, 10));
  if (!version) {
    world_.GetHistory().AddFault(key + ": its size is said to be " + size + ", which no version of it has");
  } else if (*version != kAbsent) {
    Note(answer, key, EKind::kRead, *version);
  }
  return true;
}

bool CClient::Remove(const Step& step, bool with_bytes) {
  const std::string key = HistoryKey(step.bucket, step.key);
  const Answer answer = Ask({"DELETE", Target(step) + (with_bytes ? "?deletefile" : ""), {}, ""}, NodeOf(step));
  if (answer.state == EState::kUnknown) {
    Note(answer, key, EKind::kWrite, kAbsent);
  } else if (answer.state == EState::kAnswered && !NoteBucket(answer, step)) {
    if (answer.Is(200)) {
      // Of two removals at one time both succeed: each found the object, and left nothing.
      Note(answer, key, EKind::kSee, kAbsent);
      Note(answer, key, EKind::kWrite, kAbsent);
    } else if (Outcome(answer.reply) == "404 NoSuchKey") {
      Note(answer, key, EKind::kRead, kAbsent);
    } else {
      Surprise(answer, "DELETE " + Target(step));
    }
  }
  return answer.state == EState::kAnswered;
}

void CClient::LookAtEverything(const std::vector<std::string>& buckets) {
  Step step;
  for (int node = 0; node < world_.GetNodes(); ++node) {
    step.place = static_cast<std::size_t>(node);
    for (const std::string& bucket : buckets) {
      step.bucket = bucket;
      for (const std::string& key : KeysOf(bucket)) {
        step.key = key;
        GetSize(step);
        Get(step);
      }
    }
  }
  const std::vector<Picture> pictures = world_.GetPictures();
  const std::size_t stride = std::max<std::size_t>(1, pictures.size() / kPicturesToLookAt);
  for (std::size_t i = 0; i < pictures.size(); i += stride) {
    GetPicture(pictures[pictures.size() - 1 - i], static_cast<int>(i) % world_.GetNodes());
  }
  connections_.clear();
}

CClient::Answer CClient::Ask(const Request& request, int node, bool may_fail) {
  return Receive({node, EDoor::kObjects}, system_tests::Signed(request), may_fail);
}

CClient::Answer CClient::AskForPicture(const Request& request, int node) {
  const Place place = {node, EDoor::kPictures};
  const Answer answer = Receive(place, request, false);
  connections_.erase(place);
  return answer;
}

std::uint16_t CClient::PortOf(const Place& place) {
  const IServer& server = world_.GetServer(place.node);
  switch (place.door) {
    case EDoor::kPictures:
      return server.GetPicturePort();
    case EDoor::kS3:
      return server.GetS3Port();
    case EDoor::kObjects:
      break;
  }
  return server.GetObjectPort();
}

CClient::Answer CClient::Receive(const Place& place, const Request& request, bool may_fail) {
  const std::uint16_t port = PortOf(place);
  const int life = world_.GetLife(place.node);
  if (connections_[place].life != life) {
    connections_.erase(place);  // the server that it led to has ended meanwhile
  }
  std::unique_ptr<CConnection>& connection = connections_[place].open;
  Answer answer;
  answer.node = place.node;
  if (connection == nullptr) {
    connection = CConnection::Open(port, world_.GetServer(place.node).GetConnectOptions());
    if (connection == nullptr) {
      Fault(place, life, request, "no connection");
      return answer;
    }
    connections_[place].life = life;
  }
  answer.begun = world_.Now();
  connection->Send(system_tests::Serialize(request, port));
  answer.reply = connection->Receive(world_.GetPatience());
  answer.ended = world_.Now();
  if (answer.reply.status == 0 || !answer.reply.is_whole) {
    answer.state = EState::kUnknown;
    const auto taken = std::chrono::nanoseconds(answer.ended - answer.begun) + kTimerSlack;
    Fault(place, life, request,
          taken >= world_.GetPatience() ? "no answer within its time"
          : answer.reply.status == 0    ? "the connection ended without an answer"
                                        : "the connection ended in the middle of the answer");
    connection.reset();
    return answer;
  }
  world_.CountAnswer();
  was_busy_ = answer.reply.status == 503 && world_.GetNodes() > 1;
  const bool is_failure = answer.reply.status >= 500 && (!may_fail || IsExcused(place.node, life));
  answer.state = is_failure ? EState::kUnknown : EState::kAnswered;
  if (was_busy_) {
    world_.CountBusy();
  } else if (is_failure) {
    Fault(place, life, request, "is answered " + Outcome(answer.reply));
  }
  if (answer.reply.Header("Connection") == "close") {
    connection.reset();
  }
  return answer;
}

void CClient::Fault(const Place& place, int life, const Request& request, const std::string& what) {
  if (!IsExcused(place.node, life)) {
    world_.GetHistory().AddFault("client " + std::to_string(number_) + ", " + request.method + " " + request.target +
                                 " at node " + std::to_string(place.node) + " at " + std::to_string(world_.Now()) +
                                 " ns: " + what);
  }
}

void CClient::Announce(const std::string& key, const Recipe& recipe) {
  world_.GetRecipes().Add(recipe);
  world_.NoteSize(key, recipe.size, recipe.version);
}

void CClient::Surprise(const Answer& answer, const std::string& what) {
  world_.GetHistory().AddFault("client " + std::to_string(number_) + ", " + what + " at node " +
                               std::to_string(answer.node) + " at " + std::to_string(answer.ended) +
                               " ns: " + Outcome(answer.reply));
}

void CClient::Note(const Answer& answer, const std::string& key, EKind kind, Version version) {
  Operation operation = {key, kind, version, number_, answer.begun, answer.ended, false, kAbsent, answer.node};
  // Of what it does not know a node asks the database.
  operation.is_from_memory =
      kind == EKind::kSee || kind == EKind::kSeeOther || (kind == EKind::kRead && version != kAbsent);
  Note(answer, operation);
}

void CClient::Note(const Answer& answer, const Operation& operation) {
  if (answer.state == EState::kUnknown) {
    world_.AddUnknown(operation);
  } else {
    world_.GetHistory().Add(operation);
  }
}

bool CClient::NoteBucket(const Answer& answer, const Step& step) {
  const bool is_missing = Outcome(answer.reply) == "404 NoSuchBucket";
  if (step.bucket != kPassingBucket) {
    if (is_missing) {
      world_.GetHistory().AddFault("the bucket " + step.bucket + " is gone");
    }
    return is_missing;
  }
  Note(answer, HistoryKey(step.bucket), EKind::kRead, is_missing ? kAbsent : kPresent);
  if (is_missing) {
    Note(answer, HistoryKey(step.bucket, step.key), EKind::kRead, kAbsent);
  }
  return is_missing;
}

std::string CClient::Target(const Step& step) const {
  return "/" + world_.WireName(step.bucket) + "/" + step.key;
}

}  // namespace prove
