#include "Plan.h"

#include <algorithm>
#include <deque>
#include <numeric>
#include <random>
#include <utility>

#include "Body.h"

namespace prove {
namespace {

constexpr std::size_t kStepsPerClient = 120;
constexpr int kLastingKeys = 10;
constexpr int kFirstKeyForCopies = 7;
constexpr int kPassingKeys = 3;
constexpr std::uint64_t kStreamedBytes = 10485760;  // what has more than these comes in pieces
constexpr std::uint64_t kLeastPart = 5242880;       // of an upload by S3, but for its last part
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

// The standard library's distributions differ from one library to the next; these do not.
class CDice {
 public:
  CDice(std::uint64_t seed, std::size_t round, std::size_t client)
      : generator_(seed * 1000003 + round * 1009 + client + 1) {}

  std::uint64_t Below(std::uint64_t limit) { return generator_() % limit; }
  std::uint64_t Between(std::uint64_t least, std::uint64_t most) { return least + Below(most - least + 1); }
  bool OneIn(std::uint64_t number) { return Below(number) == 0; }
  template <class Item>
  void Shuffle(std::vector<Item>& items) {
    for (std::size_t i = items.size(); i > 1; --i) {
      std::swap(items[i - 1], items[Below(i)]);
    }
  }

 private:
  std::mt19937_64 generator_;
};

constexpr std::uint64_t kPlaces = 60;  // whatever the number of nodes is, each gets as many

struct Weight {
  EAction action;
  std::uint64_t weight;
};

std::vector<Weight> WeightsFor(const Features& features) {
  std::vector<Weight> weights = {
      {EAction::kPut, 28},    {EAction::kGet, 24},   {EAction::kGetRange, 8},
      {EAction::kGetSize, 8}, {EAction::kRemove, 6}, {EAction::kRemoveWithBytes, 6},
  };
  if (features.signatures) {
    weights.push_back({EAction::kPutRefused, 1});
  }
  if (features.uploads) {
    weights.insert(weights.end(), {{EAction::kUploadBegin, 4}, {EAction::kPutBrokenOff, 2}});
  }
  if (features.pictures) {
    weights.insert(weights.end(), {{EAction::kPutPicture, 2}, {EAction::kGetPicture, 2}});
  }
  if (features.buckets) {
    weights.insert(weights.end(), {{EAction::kMakeBucket, 2},
                                   {EAction::kAskBucket, 1},
                                   {EAction::kRemoveBucket, 1},
                                   {EAction::kRenameBucket, 1}});
  }
  if (features.s3) {
    weights.insert(weights.end(), {{EAction::kS3Put, 10},
                                   {EAction::kS3PutNew, 4},
                                   {EAction::kS3PutSame, 6},
                                   {EAction::kS3Get, 8},
                                   {EAction::kS3GetRange, 3},
                                   {EAction::kS3Remove, 3}});
  }
  if (features.s3_more) {
    weights.insert(
        weights.end(),
        {{EAction::kS3RemoveMany, 1}, {EAction::kS3List, 2}, {EAction::kS3Copy, 4}, {EAction::kS3UploadBegin, 2}});
  }
  return weights;
}

class CClientPlan {
 public:
  CClientPlan(std::uint64_t seed, std::size_t round, std::size_t client, const Features& features)
      : dice_(seed, round, client),
        features_(features),
        weights_(WeightsFor(features)),
        first_version_(((round + 1) << 36) | ((client + 1) << 28)) {}

  std::vector<Step> Make() {
    std::vector<Step> steps;
    while (steps.size() < kStepsPerClient) {
      if (!waiting_.empty() && dice_.OneIn(2)) {
        steps.push_back(TakeWaiting());
      } else {
        steps.push_back(MakeStep());
      }
    }
    while (!waiting_.empty()) {
      steps.push_back(TakeWaiting());
    }
    return steps;
  }

 private:
  // The next step of one of the uploads that are open.
  Step TakeWaiting() {
    const std::size_t which = dice_.Below(waiting_.size());
    Step step = std::move(waiting_[which].front());
    waiting_[which].pop_front();
    if (waiting_[which].empty()) {
      waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(which));
    }
    return step;
  }

  EAction ChooseAction() {
    const std::uint64_t sum = std::accumulate(weights_.begin(), weights_.end(), std::uint64_t{0},
                                              [](std::uint64_t left, const Weight& row) { return left + row.weight; });
    std::uint64_t number = dice_.Below(sum);
    const auto chosen = std::find_if(weights_.begin(), weights_.end(), [&number](const Weight& row) {
      const bool is_it = number < row.weight;
      number -= is_it ? 0 : row.weight;
      return is_it;
    });
    return chosen->action;
  }

  Step MakeStep() {
    Step step;
    step.action = ChooseAction();
    const bool is_lasting = step.action == EAction::kUploadBegin || step.action >= EAction::kS3Put;
    const bool is_passing = features_.buckets && !is_lasting && dice_.OneIn(4);
    step.bucket = is_passing ? kPassingBucket : kLastingBucket;
    const std::vector<std::string> keys = KeysOf(step.bucket);
    step.key = keys[dice_.Below(keys.size())];
    step.version = NewVersion();
    step.place = dice_.Below(kPlaces);
    // Streamed uploads into the passing bucket may be refused in their middle, and such an answer may get lost.
    step.size = is_passing ? dice_.Between(kSmallestPiece, 60000) : ChooseSize();
    switch (step.action) {
      case EAction::kPutRefused:
        step.size = kSmallestPiece;
        break;
      case EAction::kPutBrokenOff:
        step.size = dice_.OneIn(2) ? ChooseSize() : 2 * kStreamedBytes;
        step.end = dice_.Below(step.size);
        break;
      case EAction::kGetRange:
      case EAction::kS3GetRange:
        step.begin = dice_.OneIn(10) ? dice_.Below(kStreamedBytes) : dice_.Below(4000);
        step.end = step.begin + kSmallestPiece + dice_.Below(20000);
        break;
      case EAction::kGetPicture:
        step.begin = dice_.Below(1000000);
        break;
      case EAction::kUploadBegin:
        PlanUpload(step, dice_.OneIn(12) ? kStreamedBytes / 2 : kRecordBytes * dice_.Between(2, 3000),
                   dice_.Between(1, 4));
        break;
      case EAction::kS3UploadBegin: {
        const bool has_many = dice_.OneIn(6);
        PlanUpload(step, kRecordBytes * dice_.Between(2, 3000) + (has_many ? kLeastPart : 0),
                   has_many ? dice_.Between(2, 3) : 1);
        break;
      }
      case EAction::kS3RemoveMany:
        step.more_keys.assign(keys.begin(), keys.begin() + static_cast<std::ptrdiff_t>(dice_.Below(keys.size())));
        break;
      case EAction::kS3Copy:
        step.more_keys = {keys[dice_.Below(kFirstKeyForCopies)]};
        step.key = keys[kFirstKeyForCopies + dice_.Below(keys.size() - kFirstKeyForCopies)];
        break;
      default:
        break;
    }
    return step;
  }

  // The steps of an upload wait until they are mixed with others: the parts in any order, some of them twice.
  void PlanUpload(Step& begin, std::uint64_t part_size, std::size_t parts) {
    const bool is_s3 = begin.action == EAction::kS3UploadBegin;
    begin.upload = begin.version;
    begin.part_size = part_size;
    begin.size = begin.part_size * (parts - 1) + dice_.Between(kSmallestPiece, begin.part_size);
    std::vector<std::size_t> order(parts);
    std::iota(order.begin(), order.end(), std::size_t{0});
    for (std::size_t part = 0; part < parts; ++part) {
      if (dice_.OneIn(3)) {
        order.push_back(part);
      }
    }
    dice_.Shuffle(order);

    std::deque<Step> steps;
    std::vector<std::uint8_t> sendings(parts, 0);
    for (const std::size_t part : order) {
      Step step = begin;
      step.action = is_s3 ? EAction::kS3UploadPart : EAction::kUploadPart;
      step.place = is_s3 ? dice_.Below(kPlaces) : begin.place;  // the other protocol's uploads belong to a node
      step.part = part;
      step.sending = ++sendings[part];
      steps.push_back(step);
    }
    Step end = begin;
    end.action = is_s3 ? EAction::kS3UploadEnd : EAction::kUploadEnd;
    if (dice_.OneIn(5)) {
      end.action = is_s3 && dice_.OneIn(2) ? EAction::kS3UploadAbort : EAction::kUploadForget;
    }
    end.sendings = sendings;
    steps.push_back(end);
    waiting_.push_back(std::move(steps));
  }

  Version NewVersion() { return first_version_ | (++versions_ << 8); }

  std::uint64_t ChooseSize() {
    if (dice_.OneIn(70)) {
      return kStreamedBytes + dice_.Below(1000000);
    }
    return dice_.OneIn(2) ? dice_.Between(kSmallestPiece, 4000) : dice_.Between(4000, 130000);
  }

  CDice dice_;
  const Features features_;
  const std::vector<Weight> weights_;
  const Version first_version_;
  Version versions_ = 0;
  std::vector<std::deque<Step>> waiting_;
};

}  // namespace

Round MakeRound(std::uint64_t seed, std::size_t number, const Features& features) {
  Round round;
  for (std::size_t client = 0; client < kClients; ++client) {
    round.clients.push_back(CClientPlan(seed, number, client, features).Make());
  }
  CDice dice(seed, number, kClients);
  const std::uint64_t end = dice.Below(10);
  round.end = end < 5 ? EEnd::kKill : end < 8 ? EEnd::kStop : end < 9 ? EEnd::kDatabase : EEnd::kGoOn;
  round.answers = dice.Between(1, kClients * kStepsPerClient / 2);
  if (features.clock) {
    static constexpr std::int64_t kSteps[] = {4 * kDay, -2 * kDay, kHour, -kHour, 400 * kDay};
    round.clock_step = dice.OneIn(3) ? kSteps[dice.Below(std::size(kSteps))] : 0;
    round.clock_step_while = dice.OneIn(3) ? kSteps[dice.Below(std::size(kSteps))] : 0;
  }
  if (features.nodes) {
    round.place = dice.Below(kPlaces);
    round.ends_all = dice.OneIn(4);
    // A node that starts again in the middle of a round must not make uploads old that were young at its beginning.
    round.clock_step_while = 0;
  }
  return round;
}

bool IsForCopies(const std::string& key) {
  const std::vector<std::string> keys = KeysOf(kLastingBucket);
  return std::find(keys.begin() + kFirstKeyForCopies, keys.end(), key) != keys.end();
}

std::vector<std::string> KeysOf(const std::string& bucket) {
  std::vector<std::string> keys;
  for (int i = 0; i < (bucket == kPassingBucket ? kPassingKeys : kLastingKeys); ++i) {
    keys.push_back("key" + std::to_string(i));
  }
  return keys;
}

}  // namespace prove
