// What a server has promised to its clients up to some moment, made from the lines that the clients have written.
#ifndef TANSY_TESTS_PROVE_POWER_PROMISES_H
#define TANSY_TESTS_PROVE_POWER_PROMISES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Trace.h"

namespace prove {

enum class ERequest {
  kBucket,    // makes the bucket `key`
  kPut,       // `body` becomes the object `key`
  kRemove,    // with ?deletefile
  kDelete,    // without it
  kBegin,     // an upload task for `key`; its answer's `extra` is the task
  kPart,      // `part` of `task` is `body`
  kComplete,  // `task` becomes the object `key`, whose content is `body`
  kPicture,   // its answer's `extra` is the address
  // The same by S3, with the same objects. An upload has its own kinds, because it is another one.
  kPutByS3,
  kPutNewByS3,  // on the condition that the key has no object
  kRemoveByS3,
  kCopyByS3,  // the object with the name in `task`, whose content is `body`
  kBeginByS3,
  kPartByS3,
  kCompleteByS3,
};
// Says whether a request goes to the S3 server.
inline bool IsByS3(ERequest kind) {
  return kind >= ERequest::kPutByS3;
}

// Content as text: "seed:size", and several of them with commas between for content in pieces.
std::string BodySpec(std::uint64_t seed, std::size_t size);
// The content itself. It is kept, because making it takes longer than reading it. Any thread.
const std::string& BodyOf(const std::string& spec);
// Frees what BodyOf keeps.
void ForgetBodies();

// One request of a client. Positions are those in the trace.
struct Request {
  static constexpr std::size_t kNever = SIZE_MAX;

  std::size_t number = 0;
  ERequest kind = ERequest::kPut;
  std::string key;
  std::string body = "-";
  std::string task = "-";
  int part = 0;
  std::size_t begin = 0;
  std::size_t end = kNever;  // of the answer
  std::string outcome = {};  // "200"; "404 NoSuchKey"; "0" when there was no answer
  std::string extra = {};

  std::string BeginLine() const;
  static std::string EndLine(std::size_t number, const std::string& outcome, const std::string& extra);
  bool IsDone() const { return outcome == "200"; }
};

// All requests of a trace, in the order of their beginnings. Answers other than success stay as they are.
std::vector<Request> ReadRequests(const CTrace& trace);

// What may be found under one name.
struct Possible {
  std::set<std::string> bodies;  // specs
  bool may_be_missing = true;
  bool may_be_half_removed = false;  // a removal frees the bytes first, and was cut off
};

// An upload that was opened, and not completed for certain.
struct OpenTask {
  std::string key;
  std::map<int, Possible> parts;
  bool may_be_complete = false;
};

struct Promises {
  std::map<std::string, Possible> buckets;
  std::map<std::string, Possible> objects;
  std::map<std::string, OpenTask> tasks;
  std::map<std::string, OpenTask> s3_uploads;
  std::map<std::string, std::string> pictures;  // body by address
};

// What holds when the power fails at this position of the trace.
Promises PromisesAt(const std::vector<Request>& requests, std::size_t position);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_PROMISES_H
