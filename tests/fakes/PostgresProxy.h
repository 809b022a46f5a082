// Stands between a program and the tests' PostgreSQL server, behind a Unix socket of its own. A test sees each message
// that the program sends, and can do something before it goes on, or let nothing through any more.
//
//   CPostgresProxy proxy(CPostgresServer::Shared());
//   ... start a program with proxy.Url() ...
//   proxy.SetHook([&](const CPostgresProxy::Passing& passing) { ... });
#ifndef TANSY_TESTS_FAKES_POSTGRES_PROXY_H
#define TANSY_TESTS_FAKES_POSTGRES_PROXY_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fakes/PostgresServer.h"
#include "fakes/TempFolder.h"

namespace Tansy::Tests {

// Threads: any. Errors fail the running test.
class CPostgresProxy {
 public:
  // A message of a program on its way to the server.
  struct Passing {
    int server_process = 0;  // that serves this connection; 0 before the server has said so
    char kind = 0;           // as in the protocol: 'P' prepares a statement, 'E' runs it, 'S' ends a group; 0: others
    std::string_view text;   // the message
  };
  enum class EThen {
    kPass,
    kCut,  // the message still passes, and the server works on it, but the program never hears of this connection again
  };
  // Is called in front of each message, on a thread of the connection; the message goes on when it returns. What the
  // server says on this connection waits too.
  using Hook = std::function<EThen(const Passing& passing)>;
  // Is called in front of each message of the server in the same way: 'C' says what a statement has done, 'Z' that a
  // group is over, and whether a transaction is still open ('T') or not ('I').
  using AnswerHook = std::function<void(const Passing& passing)>;

  explicit CPostgresProxy(const CPostgresServer& server);
  ~CPostgresProxy();
  CPostgresProxy(const CPostgresProxy&) = delete;
  CPostgresProxy& operator=(const CPostgresProxy&) = delete;

  // The address as an option of tansyd.
  std::string Url() const;
  void SetHook(Hook hook);
  // Counts for connections that begin after it.
  void SetAnswerHook(AnswerHook hook);
  // From now on nothing passes, in neither direction, and nobody is told: a network without an answer.
  void Silence();
  // Lets everything through again, what waited first.
  void Speak();
  // For a hook: returns when the proxy speaks.
  void WaitWhileSilent();

 private:
  class CLink;

  void Accept();

  const std::string server_socket_;
  CTempFolder folder_;
  int listener_ = -1;
  std::thread acceptor_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable spoken_;
  std::shared_ptr<const Hook> hook_;
  AnswerHook answer_hook_;
  bool is_silent_ = false;
  bool is_ending_ = false;
  std::vector<std::unique_ptr<CLink>> links_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_POSTGRES_PROXY_H
