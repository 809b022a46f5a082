#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Commands.h"
#include "Connection.h"
#include "Content.h"
#include "Figures.h"
#include "Requests.h"

namespace TansyBench {
namespace {

using Clock = std::chrono::steady_clock;

// The work that all threads share.
class CSchedule {
 public:
  CSchedule(std::size_t requests, double seconds)
      : requests_(requests),
        is_timed_(seconds > 0),
        end_(Clock::now() + std::chrono::microseconds(std::int64_t(seconds * 1e6))) {}

  // Gives the number of the next request; false when there is none.
  bool Next(std::size_t& index) {
    index = next_.fetch_add(1, std::memory_order_relaxed);
    if (is_timed_) {
      index %= requests_;
      return Clock::now() < end_;
    }
    return index < requests_;
  }

 private:
  const std::size_t requests_;
  const bool is_timed_;
  const Clock::time_point end_;
  std::atomic<std::size_t> next_{0};
};

// One client: a connection, and the requests that it sends one after another.
class CClient {
 public:
  CClient(const RunOptions& options, const RequestList& list, CSchedule& schedule)
      : options_(options), list_(list), schedule_(schedule), address_(ParseAddress(options.url)) {}

  Figures Run() {
    try {
      for (std::size_t index = 0; schedule_.Next(index);) {
        const auto begin = Clock::now();
        Exchange(list_.requests[index]);
        const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
        figures_.latencies.push_back(static_cast<std::uint32_t>(time.count()));
      }
    } catch (const std::exception& failure) {
      ++figures_.errors;
      figures_.first_error = failure.what();
    }
    return std::move(figures_);
  }

 private:
  void Exchange(const Request& request) {
    if (connection_ == nullptr) {
      connection_ = std::make_unique<CConnection>(address_);
      figures_.security = connection_->Security();
    }
    const bool has_body = request.method == "PUT" || request.method == "POST";
    connection_->Send(Head(list_, request, address_.host + ":" + std::to_string(address_.port), options_.size));
    if (has_body) {
      SendBody(request);
    }
    const Answer answer = connection_->ReadHead();
    if (answer.status < 200 || answer.status > 299) {
      throw std::runtime_error("status " + std::to_string(answer.status) + " for " + request.method + " " +
                               request.path + ": " + connection_->ReadWholeBody(answer.size).substr(0, 300));
    }
    ReadBody(request, answer);
    if (!answer.keeps_connection) {
      connection_.reset();
    }
  }

  void SendBody(const Request& request) {
    if (!options_.body.empty()) {
      connection_->Send(options_.body);
    } else {
      const CContent content(request.path);
      for (std::uint64_t done = 0; done < options_.size;) {
        const std::string_view piece = content.At(done, options_.size - done);
        connection_->Send(piece);
        done += piece.size();
      }
    }
    figures_.bytes += options_.size;
  }

  void ReadBody(const Request& request, const Answer& answer) {
    if (request.method == "GET" && answer.size != options_.size) {
      throw std::runtime_error(request.path + " has " + std::to_string(answer.size) + " bytes");
    }
    if (request.method == "GET" && options_.verify) {
      CompareBody(CContent(request.path), request.path);
    } else {
      connection_->SkipBody(answer.size);
    }
    if (request.method == "GET") {
      figures_.bytes += answer.size;
    }
  }

  void CompareBody(const CContent& content, const std::string& path) {
    for (std::uint64_t done = 0; done < options_.size;) {
      std::string_view piece = connection_->ReadBody(options_.size - done);
      while (!piece.empty()) {
        const std::string_view expected = content.At(done, piece.size());
        if (piece.substr(0, expected.size()) != expected) {
          throw std::runtime_error(path + " came back different");
        }
        piece.remove_prefix(expected.size());
        done += expected.size();
      }
    }
  }

  const RunOptions& options_;
  const RequestList& list_;
  CSchedule& schedule_;
  const Address address_;
  std::unique_ptr<CConnection> connection_;
  Figures figures_;
};

}  // namespace

void RunRequests(const RunOptions& options) {
  const RequestList list = ReadRequests(options.requests);
  CSchedule schedule(list.requests.size(), options.seconds);
  std::mutex mutex;  // guards the figures
  Figures figures;
  const auto begin = Clock::now();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < options.connections; ++i) {
    threads.emplace_back([&] {
      Figures own = CClient(options, list, schedule).Run();
      const std::lock_guard lock(mutex);
      figures.Add(std::move(own));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Print(std::move(figures), Clock::now() - begin);
}

}  // namespace TansyBench
