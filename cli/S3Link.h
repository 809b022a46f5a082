#ifndef TANSY_CLI_S3_LINK_H
#define TANSY_CLI_S3_LINK_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "Exchange.h"
#include "Failure.h"
#include "S3Request.h"
#include "Settings.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Cli {

// Says whether a request was done: it has an answer, whose status is one of success.
bool IsDone(const LinkOutcome& outcome);

// Sends requests to the S3 door of a server, each signed together with its body's digest. After the first answer,
// requests that may be repeated without harm are repeated while the server is away for a while. When the server has
// another region than the settings say, the link learns it. Threads: any.
class CS3Link {
 public:
  // Signs requests for `service`, a constant. Throws CFailure with kExitUsage when the settings name no S3 door.
  explicit CS3Link(const Settings& settings, std::string_view service = TansyNet::S3Signing::kS3Service);

  // Does one exchange, whatever its result is.
  LinkOutcome Try(const S3Request& request) const;
  // Does it again while that may help; `stop` may be null and ends the wait for another try.
  LinkOutcome TryPatiently(const S3Request& request, const std::atomic<bool>* stop = nullptr) const;
  // Does one exchange for a large body, as StreamAnswer does; success is any status from 200 to 299.
  LinkOutcome Stream(const S3Request& request, const TakeHead& head, const TakeBytes& take) const;
  // Explains an outcome that is no success.
  CFailure FailureOf(const LinkOutcome& outcome) const;

  // Sends a request that may be repeated, and gives its answer. Throws CFailure about `subject`.
  TansyNet::CHttpClientResponse Request(const S3Request& request, const std::string& subject) const;

  const ServerAddress& Address() const { return address_; }
  // Says that the server has answered, so its address is right.
  bool IsReached() const { return is_reached_; }

 private:
  TansyNet::CHttpClientRequest Signed(const S3Request& request, const std::string& region) const;
  std::string Region() const;
  // Returns true when the answer names another region than that which the request was signed for; it is used from now
  // on.
  bool LearnRegion(const LinkOutcome& outcome, const std::string& signed_for) const;
  // Sends the request with the region, and once more when the server names another one.
  LinkOutcome SendWithRegion(
      const S3Request& request,
      const std::function<LinkOutcome(const TansyNet::CHttpClientRequest& signed_one)>& send) const;

  const ServerAddress address_;
  const std::string access_key_;
  const std::string secret_key_;
  const std::string_view service_;
  mutable std::atomic<bool> is_reached_{false};
  mutable std::mutex mutex_;
  mutable std::string region_;  // guarded by mutex_
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_LINK_H
