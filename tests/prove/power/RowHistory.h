// The rows of a server whose catalogue is in PostgreSQL, as they were at each moment of a trace.
//
// While the server runs, triggers note each change of a row, in the order of the commits, and a proxy in front of the
// database writes into the trace when a commit goes to it and when its answer comes back. Afterwards the rows of any
// moment can be had, in a database of their own: those of every commit that was answered by then, and perhaps those of
// commits that were on their way.
#ifndef TANSY_TESTS_PROVE_POWER_ROW_HISTORY_H
#define TANSY_TESTS_PROVE_POWER_ROW_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Trace.h"

namespace Tansy::Tests {
class CPostgresProxy;
class CPostgresServer;
}  // namespace Tansy::Tests

namespace prove {

// One thread, beside those of the server that is watched. Errors fail the running test.
class CRowHistory {
 public:
  static constexpr const char* kState = "state";

  // Its databases have this name, or begin with it; those of before are removed.
  explicit CRowHistory(std::string name);
  ~CRowHistory();
  CRowHistory(const CRowHistory&) = delete;
  CRowHistory& operator=(const CRowHistory&) = delete;

  // Gives the address for the servers that are watched from now on, whose commits are noted in the trace; `marks` has
  // to live until EndRecording. They find the rows of `from`, such as kState; empty: a database without any.
  // `answers_early` is a defect put in on purpose: a commit counts from the next one on only.
  std::string BeginRecording(CTraceMarks& marks, const std::string& from = "", bool answers_early = false);
  // Between two servers: waits for what the first one has left behind in the database.
  void WaitForLastCommit();
  void EndRecording();

  // A moment is the number of the last change that is there. The moments of all commits of a recording, in their order.
  static std::vector<std::int64_t> MomentsOf(const CTrace& trace);
  // One that is possible when the power fails at a position.
  static std::int64_t PickMoment(const CTrace& trace, std::size_t position, std::mt19937_64& random);

  // Makes the rows of a moment, in the database that has the name kState, anew.
  void MakeState(std::int64_t moment);
  std::string GetStateUrl() const;
  // What all tables hold at a moment, as one text.
  std::string RowsAt(std::int64_t moment);
  // The same of now, while the servers run.
  std::pair<std::int64_t, std::string> LookNow();

  // The history as a file, and a history that was kept so.
  void Save(const std::string& path);
  void Load(const std::string& path);

 private:
  struct Link {
    int sent = 0;
    bool may_have_changed = false;  // a statement has run that is no look
  };

  void NoteSent(int process);
  void NoteAnswer(int process, char kind, std::string_view message);
  std::int64_t LastChange();
  void MakeDatabase(const std::string& name, const std::string& from);
  void GoTo(std::int64_t moment);

  const std::string name_;
  Tansy::Tests::CPostgresServer& server_;
  CTraceMarks* marks_ = nullptr;
  bool begins_empty_ = true;
  bool answers_early_ = false;
  std::unique_ptr<Tansy::Tests::CPostgresProxy> proxy_;
  std::mutex mutex_;  // guards what follows
  std::map<int, Link> links_;
  std::string held_;  // a line that a planted defect keeps back
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_ROW_HISTORY_H
