#ifndef TANSY_HOST_SIGNAL_THREAD_H
#define TANSY_HOST_SIGNAL_THREAD_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>

#include "HostSystem/Process.h"

namespace Tansy::Host {

// A thread of its own that receives the process's signals from the beginning to the end.
//
// The first stop signal asks the rest of the program to end. From then on there is a limit for whatever a start waits
// for (a database, a slow disk) and whatever a stop waits for (a request, housekeeping). The process ends when the
// limit is over, or at once at a second stop signal. That is safe at any time, as a crash is: what was acknowledged is
// on the disk. Reload signals are kept until Wait fetches them.
//
// Threads: any thread may call any member except Wait, which only one thread may call.
class CSignalThread {
 public:
  // Says why the process is ended without waiting any longer.
  enum class EEnd {
    kStillStarting,  // a stop signal came before the server was ready
    kSecondSignal,   // somebody does not want to wait
    kOverdue,        // a stop went on for longer than its limit
  };

  // Gives the next signal, or nothing when none came in that time.
  using Source = std::function<std::optional<HostSystem::ESignal>(std::chrono::milliseconds)>;
  // Ends the process. Called on the signal thread, at most once.
  using EndNow = std::function<void(EEnd why)>;

  // How long a stop may take, counted from the first stop signal.
  struct Limits {
    std::chrono::milliseconds starting{2000};
    std::chrono::milliseconds serving{8000};
  };

  CSignalThread(Source source, EndNow end_now, const Limits& limits);
  // Ends the thread, within a tenth of a second.
  ~CSignalThread();
  CSignalThread(const CSignalThread&) = delete;
  CSignalThread& operator=(const CSignalThread&) = delete;

  // Says that the start is over: from now on the longer limit counts.
  void SetServing();
  // Gives a token for loops that can take long.
  std::stop_token StopToken() const { return stop_.get_token(); }
  // Waits for what to do next. After a stop signal it says kStop each time.
  HostSystem::ESignal Wait();

 private:
  void Run();
  // Returns false when the process has been told to end.
  bool Handle(std::optional<HostSystem::ESignal> signal);
  void BeginStop();
  // Says why the stop that has been asked for must end now. The result is empty when the stop may go on.
  std::optional<EEnd> ReasonToEnd(bool is_second_signal);

  const Source source_;
  const EndNow end_now_;
  const Limits limits_;
  std::stop_source stop_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool serving_ = false;                             // guarded by mutex_, like what follows
  bool reload_ = false;                              // a reload signal has not been fetched yet
  bool stop_wanted_ = false;                         // a stop signal has come
  bool finished_ = false;                            // the thread is to end
  std::chrono::steady_clock::time_point stop_time_;  // time of the first stop signal

  std::thread thread_;  // the last member, because the thread uses all of the above
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SIGNAL_THREAD_H
