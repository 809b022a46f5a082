// The requests of an upload in parts through the S3 door.
#ifndef TANSY_CLI_S3_PARTS_H
#define TANSY_CLI_S3_PARTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Failure.h"
#include "S3Link.h"
#include "S3Path.h"

namespace Tansy::Cli {

// The server has looked at a request of an upload and refused it, so that the upload will never be complete.
class CRefusedUpload : public CFailure {
 public:
  explicit CRefusedUpload(const CFailure& failure) : CFailure(failure) {}
};

struct S3Part {
  std::uint64_t size = 0;
  std::string tag;  // without quotes
};

// One upload. Threads: any.
class CS3Parts {
 public:
  CS3Parts(const CS3Link& link, S3Path path) : link_(link), path_(std::move(path)) {}

  // Begins a new upload. Throws CFailure.
  void Begin();
  // Takes the newest unfinished upload to this name whose parts `fit`, and forgets the one before. An upload without
  // parts is left to whoever may have begun it. Returns false when there is none. Throws CFailure.
  bool Find(const std::function<bool(const std::map<std::size_t, S3Part>& parts)>& fit);
  // Sends a part; a part that is sent again under its number replaces the first one. Returns its ETag. `stop` ends the
  // wait for another try. Throws CFailure, and CRefusedUpload.
  std::string Send(std::size_t number, const std::string& bytes, const std::atomic<bool>& stop) const;
  // Makes the object of the parts, whose ETags these are. It may be repeated. Throws CFailure, and
  // CRefusedUpload.
  void Complete(const std::vector<std::string>& tags) const;
  // Gives the upload up. A failure leaves it to the server, which forgets it after some days.
  void Abort() const;

 private:
  std::vector<std::string> UnfinishedUploads() const;
  std::map<std::size_t, S3Part> ListParts(const std::string& id) const;
  void Check(const LinkOutcome& outcome) const;

  const CS3Link& link_;
  const S3Path path_;
  std::string id_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_PARTS_H
