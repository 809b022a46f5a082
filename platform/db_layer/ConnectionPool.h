// The connections of one registered module.
#ifndef TANSY_DB_LAYER_CONNECTION_POOL_H
#define TANSY_DB_LAYER_CONNECTION_POOL_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "db_layer/Connect.h"

namespace db_layer {

// Threads: any. Connections that are in use when the pool is closed or gets new parameters are closed when they come
// back.
class CConnectionPool {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kWait{30};        // for a connection, and for the last ones at closing
  static constexpr std::chrono::seconds kKeepUnused{60};  // for connections beyond min_connections

  // A connection with what Return needs to know about it.
  struct Lease {
    std::unique_ptr<CConnect> connection;
    std::uint64_t generation = 0;
  };

  CConnectionPool(DBParam param, std::shared_ptr<IDriver> driver);

  // Opens connections until there are min_connections. Returns false with the driver's message when one does not open.
  bool Fill(std::string& error);
  // Takes a connection. On failure the lease is empty and `error` is filled in. It may throw std::bad_alloc, and has
  // then taken nothing.
  Lease Take(std::chrono::milliseconds wait, std::string& error);
  void Return(Lease lease) noexcept;
  // Counts the callers that wait in Take at the moment.
  std::size_t CountWaiting() const;
  // The parameters with which connections are opened, and a change of them for later ones.
  DBParam GetParam() const;
  void Reset(const DBParam& param, std::shared_ptr<IDriver> driver);
  // Lets only the calling thread take connections until Release is called, and waits until no other connection is in
  // use. Returns false when some still are after this time; nothing is held then. One thread at a time may hold.
  bool Hold(std::chrono::milliseconds wait);
  void Release();
  // Hands nothing out from here on, and waits for connections in use, at most this long.
  void Close(std::chrono::milliseconds wait) noexcept;

 private:
  struct Idle {
    std::unique_ptr<CConnect> connection;
    Clock::time_point since;
  };

  bool HasRoom() const;
  bool IsHeldByAnother() const;
  bool WaitForTurn(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds wait);
  std::unique_ptr<CConnect> TakeIdle();
  Lease OpenOne(std::unique_lock<std::mutex>& lock, std::string& error);
  Lease Open(const DBParam& param, IDriver& driver, std::uint64_t generation, std::string& error) noexcept;
  std::unique_ptr<CConnect> TakeUnused() noexcept;
  void CloseOne(std::unique_ptr<CConnect> connection) noexcept;
  std::size_t CountWanted() const;
  std::size_t CountAllowed() const;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  DBParam param_;
  std::shared_ptr<IDriver> driver_;
  std::uint64_t generation_ = 0;
  bool closed_ = false;
  std::thread::id holder_;  // the default value: nobody
  std::size_t open_ = 0;    // idle, in use, and being opened
  // The connection that has been unused longest comes first. There is room for all that are open, so that giving one
  // back needs no memory.
  std::vector<Idle> idle_;
  std::uint64_t next_ticket_ = 0;
  std::deque<std::uint64_t> queue_;  // tickets of waiting callers, in the order in which they came
};

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_CONNECTION_POOL_H
