#include "History.h"

#include <istream>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "NodeMemory.h"

namespace prove {
namespace {

// The letters of the operations in a file, and the signs that may stand behind one.
constexpr char kLetters[] = {'w', 'c', 'x', 'r', 's', 'p', 'o'};

constexpr char kUnknown = '?';
constexpr char kFromMemory = 'm';

Contents Or(const std::map<std::string, Contents>& contents, const std::string& key) {
  const auto found = contents.find(key);
  return found == contents.end() ? Contents{kAbsent} : found->second;
}

EKind KindOf(char letter) {
  for (const EKind kind :
       {EKind::kWrite, EKind::kCreate, EKind::kRemove, EKind::kRead, EKind::kSee, EKind::kReplace, EKind::kSeeOther}) {
    if (kLetters[static_cast<std::size_t>(kind)] == letter) {
      return kind;
    }
  }
  throw std::runtime_error(std::string("no such operation: ") + letter);
}

Operation ParseOperation(std::istream& line) {
  Operation operation;
  std::string letters;
  line >> operation.key >> letters >> std::hex >> operation.version >> std::dec >> operation.client >>
      operation.begun >> operation.ended >> std::hex >> operation.expected >> std::dec >> operation.node;
  if (!line || letters.empty()) {
    throw std::runtime_error("an operation is incomplete");
  }
  operation.kind = KindOf(letters[0]);
  operation.is_unknown = letters.find(kUnknown) != std::string::npos;
  operation.is_from_memory = letters.find(kFromMemory) != std::string::npos;
  return operation;
}

}  // namespace

void CHistory::Add(const Operation& operation) {
  const std::lock_guard lock(mutex_);
  operations_[operation.key].push_back(operation);
  ++count_;
}

void CHistory::AddFault(const std::string& fault) {
  const std::lock_guard lock(mutex_);
  faults_.push_back(fault);
}

std::vector<std::string> CHistory::Check() {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> wrong = faults_;
  after_ = before_;
  for (const auto& [key, operations] : operations_) {
    Contents contents = Or(before_, key);
    if (const auto contradiction = FindContradiction(AsPromised(operations, lag_), contents)) {
      wrong.push_back(Describe(*contradiction));
    }
    if (const auto forgotten = FindForgotten(operations)) {
      wrong.push_back(Describe(*forgotten));
    }
    after_[key] = contents;
  }
  return wrong;
}

void CHistory::Forget() {
  const std::lock_guard lock(mutex_);
  operations_.clear();
  before_ = after_;
}

void CHistory::Save(std::ostream& out) const {
  const std::lock_guard lock(mutex_);
  out << "lag " << lag_ << '\n';
  for (const auto& [key, contents] : before_) {
    out << "before " << key << std::hex;
    for (const Version version : contents) {
      out << ' ' << version;
    }
    out << std::dec << '\n';
  }
  for (const auto& [key, operations] : operations_) {
    for (const Operation& operation : operations) {
      out << "operation " << key << ' ' << kLetters[static_cast<std::size_t>(operation.kind)]
          << (operation.is_unknown ? std::string(1, kUnknown) : "")
          << (operation.is_from_memory ? std::string(1, kFromMemory) : "") << ' ' << std::hex << operation.version
          << std::dec << ' ' << operation.client << ' ' << operation.begun << ' ' << operation.ended << ' ' << std::hex
          << operation.expected << std::dec << ' ' << operation.node << '\n';
    }
  }
  for (const std::string& fault : faults_) {
    out << "fault " << fault << '\n';
  }
}

void CHistory::Load(std::istream& in, CHistory& history) {
  for (std::string text; std::getline(in, text);) {
    std::istringstream line(text);
    std::string word;
    line >> word;
    if (word == "operation") {
      history.Add(ParseOperation(line));
    } else if (word == "lag") {
      line >> history.lag_;
    } else if (word == "fault") {
      history.AddFault(text.substr(word.size() + 1));
    } else if (word == "before") {
      std::string key;
      line >> key >> std::hex;
      Contents contents;
      for (Version version = 0; line >> version;) {
        contents.insert(version);
      }
      history.before_[key] = contents;
    } else if (!word.empty() && word[0] != '#') {
      throw std::runtime_error("not a line of a history: " + text);
    }
  }
}

Contents CHistory::GetContents(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  return Or(after_, key);
}

std::size_t CHistory::GetCount() const {
  const std::lock_guard lock(mutex_);
  return count_;
}

}  // namespace prove
