// The test's side of the plan of faults that the library in front of a server's file calls reads.
#ifndef TANSY_TESTS_PROVE_FAULTS_FAULT_SWITCH_H
#define TANSY_TESTS_PROVE_FAULTS_FAULT_SWITCH_H

#include <cstdint>
#include <string>

#include "FaultPlan.h"

namespace prove {

// What goes wrong, once or from then on.
struct Fault {
  const char* name = "";
  EFault kind = EFault::kError;
  int error = 0;
  bool and_later = false;
  std::uint32_t calls = kEveryCall;  // which ones count
};

// One thread.
class CFaultSwitch {
 public:
  // Makes the file, for the environment variable TANSY_CALLS_FAULTS.
  explicit CFaultSwitch(const std::string& path);
  ~CFaultSwitch();
  CFaultSwitch(const CFaultSwitch&) = delete;
  CFaultSwitch& operator=(const CFaultSwitch&) = delete;

  // From now on the call of this number, counted from 1, goes wrong.
  void Set(const Fault& fault, std::int64_t number);
  // Lets everything succeed from now on.
  void Pause();
  // Ends it. Says whether that call came; GetFailedCall says what it was.
  bool Clear();
  const char* GetFailedCall() const;

 private:
  FaultPlan* plan_ = nullptr;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_FAULTS_FAULT_SWITCH_H
