// What the clients of a run saw, in memory and as a file.
#ifndef TANSY_TESTS_PROVE_MODEL_HISTORY_H
#define TANSY_TESTS_PROVE_MODEL_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Linearisable.h"
#include "Operation.h"

namespace prove {

// Since the last look at which nothing was under way. Any thread may add to it.
class CHistory {
 public:
  // Several nodes: what one remembers of a key may be this many nanoseconds behind. To be called first.
  void SetLag(std::int64_t lag) { lag_ = lag; }
  void Add(const Operation& operation);
  // What is wrong by itself, whatever else happened: an answer that must not be, a mix of versions, no answer.
  void AddFault(const std::string& fault);

  // Compares all keys with the model and returns what is wrong, one line each. Nothing may be under way. What the keys
  // may hold now is what the next look begins with.
  std::vector<std::string> Check();
  // Forgets the operations that have been looked at.
  void Forget();

  // The operations since the last Forget and what the keys held before them, one line each.
  void Save(std::ostream& out) const;
  // Throws std::runtime_error at a line that is not understood.
  static void Load(std::istream& in, CHistory& history);

  // What a key may hold after the last look.
  Contents GetContents(const std::string& key) const;
  std::size_t GetCount() const;

 private:
  std::int64_t lag_ = 0;
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Operation>> operations_;
  std::vector<std::string> faults_;
  std::map<std::string, Contents> before_;  // a key that is missing holds nothing
  std::map<std::string, Contents> after_;
  std::size_t count_ = 0;  // of all operations, the forgotten ones too
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_HISTORY_H
