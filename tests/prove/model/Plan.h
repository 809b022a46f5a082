// What the clients of a run do, made from a seed alone: the same seed gives the same plan, whatever the server does.
#ifndef TANSY_TESTS_PROVE_MODEL_PLAN_H
#define TANSY_TESTS_PROVE_MODEL_PLAN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Operation.h"

namespace prove {

inline constexpr int kClients = 8;

// Where objects are. The second bucket is made, renamed and removed while clients use it; its name on the wire changes.
inline const std::string kLastingBucket = "lasting";
inline const std::string kPassingBucket = "passing";

enum class EAction {
  kPut,
  kPutRefused,    // with a wrong signature
  kPutBrokenOff,  // the connection breaks in the middle of the body
  kGet,
  kGetRange,
  kGetSize,
  kRemove,
  kRemoveWithBytes,
  kUploadBegin,
  kUploadPart,
  kUploadEnd,
  kUploadForget,
  kPutPicture,
  kGetPicture,
  kMakeBucket,
  kAskBucket,
  kRemoveBucket,
  kRenameBucket,
  // By the S3 protocol.
  kS3Put,
  kS3PutNew,   // if there is nothing
  kS3PutSame,  // if there is what was there just before
  kS3Get,
  kS3GetRange,
  kS3Remove,
  kS3RemoveMany,
  kS3List,
  kS3Copy,  // if the source is what it was just before
  kS3UploadBegin,
  kS3UploadPart,
  kS3UploadEnd,
  kS3UploadAbort,
};

struct Step {
  EAction action = EAction::kGet;
  std::string bucket;
  std::string key;
  Version version = kAbsent;
  std::uint64_t size = 0;
  std::uint64_t begin = 0;             // of a range; the number that chooses a picture
  std::uint64_t end = 0;               // of a range, behind its last byte
  std::uint64_t upload = 0;            // which upload of the plan the step belongs to
  std::uint64_t part_size = 0;         // of that upload
  std::size_t part = 0;                // from 0 on
  std::uint8_t sending = 0;            // of this part
  std::vector<std::uint8_t> sendings;  // of an upload's end: those that count
  std::vector<std::string> more_keys;  // that are removed too; of a copy, the source
  std::size_t place = 0;               // chooses the node
};

enum class EEnd {
  kKill,
  kStop,
  kGoOn,
  kDatabase,  // the database crashes and is started again; a server without one of its own is killed
};

// One round: eight clients at work, then the server's end, its next start, and a look at everything. Of several nodes
// one ends while the others go on, or all of them do.
struct Round {
  std::vector<std::vector<Step>> clients;
  EEnd end = EEnd::kKill;
  std::size_t answers = 0;            // the end comes when this number of answers was given
  std::size_t place = 0;              // chooses the node that ends
  bool ends_all = false;              // all nodes
  std::int64_t clock_step = 0;        // seconds by which the time of day is set while the server is off
  std::int64_t clock_step_while = 0;  // ... and in the middle of the round
};

// What the server understands, besides objects.
struct Features {
  bool signatures = true;
  bool uploads = true;
  bool pictures = true;
  bool buckets = true;
  bool clock = true;
  bool s3 = true;       // objects by the other protocol too
  bool s3_more = true;  // lists, copies, removals of many, uploads in parts
  bool nodes = false;   // several on one catalogue
};

Round MakeRound(std::uint64_t seed, std::size_t number, const Features& features);

// Keys that copies are made to. What they are made from is none of these, so that a version is never written anew under
// the key that it was made for.
bool IsForCopies(const std::string& key);

// All keys of a bucket.
std::vector<std::string> KeysOf(const std::string& bucket);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_PLAN_H
