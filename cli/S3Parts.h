// The requests of an upload in parts through the S3 door.
#ifndef TANSY_CLI_S3_PARTS_H
#define TANSY_CLI_S3_PARTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "S3Link.h"
#include "S3Path.h"

namespace Tansy::Cli {

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
  // Takes the newest unfinished upload to this name, with the parts that the server has of it, by their numbers from 1.
  // Returns false when there is none. Throws CFailure.
  bool Find(std::map<std::size_t, S3Part>& parts);
  // Sends a part; a part that is sent again under its number replaces the first one. Returns its ETag. `stop` ends the
  // wait for another try. Throws CFailure.
  std::string Send(std::size_t number, const std::string& bytes, const std::atomic<bool>& stop) const;
  // Makes the object of the parts, whose ETags these are. It may be repeated. Throws CFailure.
  void Complete(const std::vector<std::string>& tags) const;
  // Gives the upload up. A failure leaves it to the server, which forgets it after some days.
  void Abort() const;

 private:
  void ListParts(std::map<std::size_t, S3Part>& parts) const;

  const CS3Link& link_;
  const S3Path path_;
  std::string id_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_PARTS_H
