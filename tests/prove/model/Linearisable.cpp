#include "Linearisable.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace prove {
namespace {

constexpr std::size_t kMostOpen = 256;
constexpr std::size_t kBits = 64;

// Which of the open operations have taken effect, by their places.
class CEffective {
 public:
  bool Has(std::size_t place) const { return (words_[place / kBits] >> (place % kBits) & 1) != 0; }
  void Add(std::size_t place) { words_[place / kBits] |= std::uint64_t{1} << (place % kBits); }
  void Remove(std::size_t place) { words_[place / kBits] &= ~(std::uint64_t{1} << (place % kBits)); }

  friend auto operator<=>(const CEffective&, const CEffective&) = default;

 private:
  std::array<std::uint64_t, kMostOpen / kBits> words_ = {};
};

// What may be the case at one moment: the key's content, and which of the open operations have taken effect.
struct Situation {
  Version content;
  CEffective effective;

  friend auto operator<=>(const Situation&, const Situation&) = default;
};

struct Moment {
  std::int64_t time;
  bool is_end;  // of two moments at one time the beginning comes first: the two operations overlap
  const Operation* operation;

  friend bool operator<(const Moment& left, const Moment& right) {
    return std::pair(left.time, left.is_end) < std::pair(right.time, right.is_end);
  }
};

std::vector<Moment> InOrder(const std::vector<Operation>& operations) {
  std::vector<Moment> moments;
  for (const Operation& operation : operations) {
    moments.push_back({operation.begun, false, &operation});
    moments.push_back({operation.ended, true, &operation});
  }
  std::stable_sort(moments.begin(), moments.end());
  return moments;
}

bool CanHappen(const Operation& operation, Version content) {
  switch (operation.kind) {
    case EKind::kRead:
      return content == operation.version;
    case EKind::kRemove:
    case EKind::kSee:
      return content != kAbsent;
    case EKind::kCreate:
      return content == kAbsent;
    case EKind::kReplace:
      return content == operation.expected;
    case EKind::kSeeOther:
      return content != operation.version;
    case EKind::kWrite:
      break;
  }
  return true;
}

bool IsRead(const Operation& operation) {
  return operation.kind == EKind::kRead || operation.kind == EKind::kSee || operation.kind == EKind::kSeeOther;
}

Version After(const Operation& operation) {
  return operation.kind == EKind::kRemove ? kAbsent : operation.version;
}

class CSearch {
 public:
  explicit CSearch(const Contents& contents) {
    for (const Version content : contents) {
      situations_.insert({content, {}});
    }
  }

  void Begin(const Operation& operation) {
    const auto place = std::find(open_.begin(), open_.end(), nullptr);
    if (place == open_.end() && open_.size() == kMostOpen) {
      throw std::length_error("too many operations on one key are open at one moment");
    }
    if (place == open_.end()) {
      open_.push_back(&operation);
    } else {
      *place = &operation;
    }
  }

  // False when the operation cannot have happened.
  bool End(const Operation& operation) {
    const auto place = static_cast<std::size_t>(std::find(open_.begin(), open_.end(), &operation) - open_.begin());
    LetOpenOnesHappen();
    std::set<Situation> left;
    for (Situation situation : situations_) {
      if (situation.effective.Has(place) || operation.is_unknown) {
        situation.effective.Remove(place);
        left.insert(situation);
      }
    }
    if (left.empty()) {
      return false;
    }
    situations_ = std::move(left);
    open_[place] = nullptr;
    return true;
  }

  Contents GetContents() const {
    Contents contents;
    for (const Situation& situation : situations_) {
      contents.insert(situation.content);
    }
    return contents;
  }

 private:
  // Adds every situation that the open operations can lead to, in any order of them.
  void LetOpenOnesHappen() {
    std::vector<Situation> new_ones(situations_.begin(), situations_.end());
    situations_.clear();
    while (!new_ones.empty()) {
      Situation from = new_ones.back();
      new_ones.pop_back();
      LetReadsHappen(from);
      if (!situations_.insert(from).second) {
        continue;
      }
      for (std::size_t place = 0; place < open_.size(); ++place) {
        const Operation* operation = open_[place];
        if (operation != nullptr && !from.effective.Has(place) && CanHappen(*operation, from.content)) {
          Situation to = {After(*operation), from.effective};
          to.effective.Add(place);
          new_ones.push_back(to);
        }
      }
    }
  }

  // A read that can happen now may as well: it changes nothing, and whatever is possible without it is possible with
  // it.
  void LetReadsHappen(Situation& situation) const {
    for (std::size_t place = 0; place < open_.size(); ++place) {
      const Operation* operation = open_[place];
      if (operation != nullptr && IsRead(*operation) && CanHappen(*operation, situation.content)) {
        situation.effective.Add(place);
      }
    }
  }

  std::set<Situation> situations_;
  std::vector<const Operation*> open_;  // null: the place is free
};

std::string Name(Version version) {
  if (version == kAbsent) {
    return "nothing";
  }
  std::ostringstream text;
  text << "version " << std::hex << version;
  return text.str();
}

}  // namespace

std::optional<Contradiction> FindContradiction(std::vector<Operation> operations, Contents& contents) {
  CSearch search(contents);
  for (const Moment& moment : InOrder(operations)) {
    if (!moment.is_end) {
      search.Begin(*moment.operation);
    } else if (!search.End(*moment.operation)) {
      return Contradiction{*moment.operation, search.GetContents()};
    }
  }
  contents = search.GetContents();
  return std::nullopt;
}

std::string Describe(const Operation& operation) {
  static constexpr std::array<const char*, 7> kKinds = {
      "wrote", "made", "removed what was there", "read", "found something", "replaced", "found something else than"};
  std::ostringstream text;
  text << "client " << operation.client << (operation.node == 0 ? "" : " at node " + std::to_string(operation.node))
       << ' ' << kKinds[static_cast<std::size_t>(operation.kind)];
  if (operation.kind != EKind::kRemove && operation.kind != EKind::kSee) {
    text << ' ' << Name(operation.kind == EKind::kReplace ? operation.expected : operation.version);
  }
  if (operation.kind == EKind::kReplace) {
    text << " by " << Name(operation.version);
  }
  text << (operation.is_unknown ? " (perhaps)" : "") << " between " << operation.begun << " and " << operation.ended
       << " ns";
  return text.str();
}

std::string Describe(const Contradiction& contradiction) {
  std::string text = contradiction.operation.key + ": " + Describe(contradiction.operation) + ", but it can have held";
  for (const Version version : contradiction.possible) {
    text += " [" + Name(version) + "]";
  }
  return text + " only";
}

}  // namespace prove
