#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
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

// Sends a POST with the bytes of an object from an offset on, and returns the answer's body.
std::string Post(CConnection& connection, const Address& address, const std::string& path, const std::string& text,
                 std::uint64_t offset = 0, std::uint64_t size = 0) {
  const RequestList list = SignOne("POST", path);
  const std::string host = address.host + ":" + std::to_string(address.port);
  connection.Send(Head(list, list.requests.front(), host, text.size() + size) + text);
  const CContent content(path);
  for (std::uint64_t done = 0; done < size;) {
    const std::string_view piece = content.At(offset + done, size - done);
    connection.Send(piece);
    done += piece.size();
  }
  const Answer answer = connection.ReadHead();
  const std::string body = connection.ReadWholeBody(answer.size);
  if (answer.status != 200) {
    throw std::runtime_error("status " + std::to_string(answer.status) + " for POST " + path + ": " + body);
  }
  return body;
}

std::string Between(const std::string& text, const std::string& begin, const std::string& end) {
  const std::size_t from = text.find(begin);
  const std::size_t to = text.find(end, from);
  if (from == std::string::npos || to == std::string::npos) {
    throw std::runtime_error("no " + begin + " in " + text);
  }
  return text.substr(from + begin.size(), to - from - begin.size());
}

class CMultipart {
 public:
  explicit CMultipart(const MultipartOptions& options)
      : options_(options),
        address_(ParseAddress(options.url)),
        parts_((options.size + options.part_size - 1) / options.part_size) {}

  void Run() {
    CConnection connection(address_);
    upload_ = Between(Post(connection, address_, options_.path + "?uploads", ""), "<UploadId>", "</UploadId>");
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options_.connections; ++i) {
      threads.emplace_back([this] { SendParts(); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    if (failure_ != nullptr) {
      std::rethrow_exception(failure_);
    }
    Post(connection, address_, options_.path + "?upload_id=" + upload_, Completion());
  }

 private:
  void SendParts() {
    try {
      CConnection connection(address_);
      for (std::uint64_t part = next_++; part < parts_; part = next_++) {
        Post(connection, address_, options_.path + "?upload_id=" + upload_ + "&part_number=" + std::to_string(part + 1),
             "", part * options_.part_size, SizeOf(part));
      }
    } catch (...) {
      const std::lock_guard lock(mutex_);
      failure_ = std::current_exception();
    }
  }

  std::uint64_t SizeOf(std::uint64_t part) const {
    return std::min(options_.part_size, options_.size - part * options_.part_size);
  }

  std::string Completion() const {
    std::string xml = "<CompleteMultipartUpload><TotalPartNum>" + std::to_string(parts_) + "</TotalPartNum>";
    for (std::uint64_t part = 0; part < parts_; ++part) {
      xml += "<Part><PartNumber>" + std::to_string(part + 1) + "</PartNumber><PartSize>" +
             std::to_string(SizeOf(part)) + "</PartSize></Part>";
    }
    return xml + "</CompleteMultipartUpload>";
  }

  const MultipartOptions& options_;
  const Address address_;
  const std::uint64_t parts_;
  std::string upload_;
  std::atomic<std::uint64_t> next_{0};
  std::mutex mutex_;  // guards the failure
  std::exception_ptr failure_;
};

}  // namespace

void RunMultipart(const MultipartOptions& options) {
  const auto begin = Clock::now();
  CMultipart(options).Run();
  const auto time = Clock::now() - begin;
  Figures figures;
  figures.bytes = options.size;
  figures.latencies.push_back(
      static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count()));
  Print(std::move(figures), time);
}

}  // namespace TansyBench
