#include "NodeMemory.h"

#include <algorithm>
#include <limits>
#include <map>

#include "Linearisable.h"

namespace prove {
namespace {

// When a version was written: not before `earliest`, and not after `latest`.
struct Span {
  std::int64_t earliest = std::numeric_limits<std::int64_t>::max();
  std::int64_t latest = std::numeric_limits<std::int64_t>::min();
};

bool IsWrite(const Operation& operation) {
  return operation.kind == EKind::kWrite || operation.kind == EKind::kCreate || operation.kind == EKind::kReplace;
}

// A version may be written more than once: by copying it, or by a completion that is sent again.
std::map<Version, Span> FindWrites(const std::vector<Operation>& operations) {
  std::map<Version, Span> writes;
  for (const Operation& operation : operations) {
    if (IsWrite(operation)) {
      Span& span = writes[operation.version];
      span.earliest = std::min(span.earliest, operation.begun);
      span.latest = std::max(span.latest, operation.ended);
    }
  }
  return writes;
}

class CSpans {
 public:
  explicit CSpans(const std::vector<Operation>& operations) : writes_(FindWrites(operations)) {}

  // The moment after which the version was certainly there. What nobody wrote was there at the beginning.
  std::int64_t LatestOf(Version version) const {
    const auto found = writes_.find(version);
    return found == writes_.end() ? std::numeric_limits<std::int64_t>::min() : found->second.latest;
  }
  // The moment before which it was certainly not there, or the least number there is.
  std::int64_t EarliestOf(Version version) const {
    const auto found = writes_.find(version);
    return found == writes_.end() ? std::numeric_limits<std::int64_t>::min() : found->second.earliest;
  }

 private:
  const std::map<Version, Span> writes_;
};

// Says whether a version was certainly replaced when this was done or seen. A write happened after it began; a version
// that was seen was written after its writing began. Of "nothing is there" nobody knows since when.
bool ShowsNewer(const Operation& shown, Version version, const CSpans& spans) {
  if (IsWrite(shown)) {
    return spans.LatestOf(version) < shown.begun;
  }
  return shown.kind == EKind::kRead && shown.version != kAbsent &&
         spans.LatestOf(version) < spans.EarliestOf(shown.version);
}

}  // namespace

std::vector<Operation> AsPromised(std::vector<Operation> operations, std::int64_t lag) {
  for (Operation& operation : operations) {
    operation.begun -= operation.is_from_memory ? lag : 0;
  }
  return operations;
}

std::optional<Forgotten> FindForgotten(const std::vector<Operation>& operations) {
  const CSpans spans(operations);
  for (const Operation& read : operations) {
    if (read.kind != EKind::kRead || read.version == kAbsent) {
      continue;
    }
    for (const Operation& shown : operations) {
      const bool is_before = shown.node == read.node && shown.ended < read.begun && !shown.is_unknown;
      if (is_before && shown.version != read.version && ShowsNewer(shown, read.version, spans)) {
        return Forgotten{read, shown};
      }
    }
  }
  return std::nullopt;
}

std::string Describe(const Forgotten& forgotten) {
  return forgotten.read.key + ": " + Describe(forgotten.read) + ", but before that, at the same node, " +
         Describe(forgotten.shown);
}

}  // namespace prove
