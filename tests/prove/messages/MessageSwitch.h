// The test's side of the plan of messages.
#ifndef TANSY_TESTS_PROVE_MESSAGES_MESSAGE_SWITCH_H
#define TANSY_TESTS_PROVE_MESSAGES_MESSAGE_SWITCH_H

#include <cstdint>
#include <string>

#include "MessagePlan.h"

namespace prove {

// One thread.
class CMessageSwitch {
 public:
  // Makes the file, for the environment variable MESSAGE_PLAN.
  explicit CMessageSwitch(const std::string& path);
  ~CMessageSwitch();
  CMessageSwitch(const CMessageSwitch&) = delete;
  CMessageSwitch& operator=(const CMessageSwitch&) = delete;

  // The message of this number, counted from 1 from now on.
  void Set(EMessage what, std::int64_t number);
  // Ends it. Says whether that message came.
  bool Clear();

 private:
  MessagePlan* plan_ = nullptr;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MESSAGES_MESSAGE_SWITCH_H
