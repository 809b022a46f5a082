// What a server does with one of its messages, in a file that it and the test have in memory.
#ifndef TANSY_TESTS_PROVE_MESSAGES_MESSAGE_PLAN_H
#define TANSY_TESTS_PROVE_MESSAGES_MESSAGE_PLAN_H

#include <atomic>
#include <cstdint>

namespace prove {

enum class EMessage : std::int32_t {
  kDieBefore,   // the process is killed in front of it
  kDieAfter,    // ... when it is on its way
  kLost,        // the connection breaks in front of it
  kAnswerLost,  // ... when it is on its way
};

struct MessagePlan {
  std::atomic<std::int64_t> left;  // counted down by each message; 0: nothing is asked for
  std::atomic<EMessage> what;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MESSAGES_MESSAGE_PLAN_H
