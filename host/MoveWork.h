#ifndef TANSY_HOST_MOVE_WORK_H
#define TANSY_HOST_MOVE_WORK_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "MoveDatabase.h"
#include "MoveHost.h"
#include "MoveOrder.h"
#include "MoveTables.h"
#include "MoveTarget.h"

namespace Tansy::Host {

// What the steps of one move share: the two places, and how far it is. One thread moves; the threads that it starts by
// InParallel may note what they have looked at.
class CMoveWork {
 public:
  CMoveWork(const MoveOrder& order, MoveHost& host);
  CMoveWork(const CMoveWork&) = delete;
  CMoveWork& operator=(const CMoveWork&) = delete;

  IObjectStore& From() const { return host.store->Now(); }
  IObjectStore& To() const { return *target.Store(); }

  // Throws CMoveFailure when the move has to stop.
  void ExpectGoingOn() const;
  // Says a line to people.
  void Say(const std::string& line) const { host.say("move: " + line); }
  // Counts what there is, and says it.
  void CountAll();
  // Note what was looked at; from time to time, a line says how far it is.
  void NoteObject() { ++objects_; }
  void NoteBytes(std::uint64_t bytes) { bytes_ += bytes; }
  void SayHowFar();

  // Calls work(0), work(1) ... on a few threads, and throws what one of them has thrown.
  void InParallel(std::size_t count, const std::function<void(std::size_t)>& work) const;

  const MoveOrder& order;
  MoveHost& host;
  CMoveDatabase source;
  CMoveTarget target;
  std::vector<MoveTable> tables;  // those that are moved
  MoveTotals totals;
  std::string id;  // of the move

 private:
  using Clock = std::chrono::steady_clock;

  std::mutex progress_mutex_;
  Clock::time_point next_line_;
  std::atomic<std::uint64_t> objects_{0};
  std::atomic<std::uint64_t> bytes_{0};
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_MOVE_WORK_H
