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

constexpr std::size_t kMostOpen = 64;

// What may be the case at one moment: the key's content, and which of the open operations have taken effect.
struct Situation {
  Version content;
  std::uint64_t effective;  // one bit per open operation, by its place

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
    case EKind::kWrite:
      break;
  }
  return true;
}

Version After(const Operation& operation, Version content) {
  switch (operation.kind) {
    case EKind::kRead:
    case EKind::kSee:
      return content;
    case EKind::kRemove:
      return kAbsent;
    case EKind::kCreate:
    case EKind::kWrite:
      break;
  }
  return operation.version;
}

class CSearch {
 public:
  explicit CSearch(const Contents& contents) {
    for (const Version content : contents) {
      situations_.insert({content, 0});
    }
  }

  void Begin(const Operation& operation) {
    const auto place = std::find(open_.begin(), open_.end(), nullptr);
    if (place == open_.end()) {
      throw std::length_error("too many operations on one key are open at one moment");
    }
    *place = &operation;
  }

  // False when the operation cannot have happened.
  bool End(const Operation& operation) {
    const auto place = static_cast<std::size_t>(std::find(open_.begin(), open_.end(), &operation) - open_.begin());
    const std::uint64_t bit = std::uint64_t{1} << place;
    LetOpenOnesHappen();
    std::set<Situation> left;
    for (const Situation& situation : situations_) {
      if ((situation.effective & bit) != 0 || operation.is_unknown) {
        left.insert({situation.content, situation.effective & ~bit});
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
    while (!new_ones.empty()) {
      const Situation from = new_ones.back();
      new_ones.pop_back();
      for (std::size_t place = 0; place < kMostOpen; ++place) {
        const std::uint64_t bit = std::uint64_t{1} << place;
        const Operation* operation = open_[place];
        if (operation == nullptr || (from.effective & bit) != 0 || !CanHappen(*operation, from.content)) {
          continue;
        }
        const Situation to = {After(*operation, from.content), from.effective | bit};
        if (situations_.insert(to).second) {
          new_ones.push_back(to);
        }
      }
    }
  }

  std::set<Situation> situations_;
  std::array<const Operation*, kMostOpen> open_ = {};
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
  static constexpr std::array<const char*, 5> kKinds = {"wrote", "made", "removed what was there", "read",
                                                        "found something"};
  std::ostringstream text;
  text << "client " << operation.client << ' ' << kKinds[static_cast<std::size_t>(operation.kind)];
  if (operation.kind != EKind::kRemove && operation.kind != EKind::kSee) {
    text << ' ' << Name(operation.version);
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
