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
};

enum class EEnd { kKill, kStop, kGoOn };

// One round: eight clients at work, then the server's end, its next start, and a look at everything.
struct Round {
  std::vector<std::vector<Step>> clients;
  EEnd end = EEnd::kKill;
  std::size_t answers = 0;            // the end comes when this number of answers was given
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
};

Round MakeRound(std::uint64_t seed, std::size_t number, const Features& features);

// All keys of a bucket.
std::vector<std::string> KeysOf(const std::string& bucket);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_PLAN_H
