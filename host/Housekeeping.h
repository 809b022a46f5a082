#ifndef TANSY_HOST_HOUSEKEEPING_H
#define TANSY_HOST_HOUSEKEEPING_H

#include <cstdint>
#include <ctime>
#include <memory>

#include "ObjectStore.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::Host {

// Bytes that lost their row stay this long: a download that began before goes on reading them.
inline constexpr std::time_t kReleaseGraceSeconds = 3600;

// Frees the stored bytes of overwritten objects and of upload tasks that ended without becoming one, as far as they
// were released at `time` or before and no row refers to them after all. Returns how many files were freed.
std::size_t FreeReleasedBytes(IObjectStore& store, std::time_t time);

// Does that once a minute on a thread of its own, and looks for dead first-part files with it.
class CHousekeeping final : public TansyBase::CSingleBaseThread {
 public:
  explicit CHousekeeping(std::shared_ptr<IObjectStore> store);
  ~CHousekeeping() override;

 protected:
  void OnTimer() override;

 private:
  std::shared_ptr<IObjectStore> store_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOUSEKEEPING_H
