#include "Housekeeping.h"

#include <utility>
#include <vector>

#include "Catalogue.h"
#include "FirstParts.h"
#include "HostLog.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr int kReleasedAtOnce = 100;

struct Sorted {
  std::vector<std::string> done;       // freed, or in use again: not to be looked at any more
  std::vector<std::string> postponed;  // to be looked at later
  std::size_t freed = 0;
  bool failed = false;
};

void FreeOne(IObjectStore& store, const ReleasedBytes& bytes, Sorted& sorted) {
  StoredName name;
  EReference reference = EReference::kNone;
  if (!ParseLocationText(bytes.url, name)) {
    sorted.done.push_back(bytes.id);  // a picture's address, or nothing of this store's
  } else if (!GetReference(bytes, reference)) {
    sorted.failed = true;
  } else if (reference == EReference::kTask) {
    sorted.postponed.push_back(bytes.id);  // the task can still become an object with these very bytes
  } else if (reference == EReference::kObject) {
    sorted.done.push_back(bytes.id);
  } else if (store.Remove(name) == EStoreResult::kDone) {
    sorted.done.push_back(bytes.id);
    ++sorted.freed;
  } else {
    sorted.postponed.push_back(bytes.id);
  }
}

}  // namespace
}  // namespace details

std::size_t FreeReleasedBytes(IObjectStore& store, std::time_t time) {
  std::size_t freed = 0;
  while (true) {
    std::vector<ReleasedBytes> released;
    if (!GetReleased(time, details::kReleasedAtOnce, released)) {
      return freed;
    }
    details::Sorted sorted;
    for (const ReleasedBytes& bytes : released) {
      details::FreeOne(store, bytes, sorted);
    }
    freed += sorted.freed;
    const bool noted = ForgetReleased(sorted.done) && PostponeReleased(sorted.postponed, TansyBase::TimeUtil::Now());
    // Trouble with the database, or nothing left but what has to wait: the next run goes on.
    if (!noted || sorted.failed || sorted.done.empty()) {
      return freed;
    }
  }
}

CHousekeeping::CHousekeeping(std::shared_ptr<IObjectStore> store) : store_(std::move(store)) {}

CHousekeeping::~CHousekeeping() {
  Stop();
}

void CHousekeeping::OnTimer() {
  const std::time_t time = TansyBase::TimeUtil::Now() - kReleaseGraceSeconds;
  const std::size_t freed = FreeReleasedBytes(*store_, time);
  if (freed > 0) {
    HOST_LOG(logging::kNotable, "[%s]freed the bytes of %zu overwritten or abandoned uploads.[%s(%d)]", freed);
  }
  VisitDeadFirstParts(time, true, [](const DeadFirstPart& part) {
    HOST_LOG(logging::kNotable, "[%s]removing first part %s, its task is gone.[%s(%d)]", part.name.c_str());
  });
}

}  // namespace Tansy::Host
