#include <algorithm>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Commands.h"
#include "Connection.h"
#include "Content.h"
#include "Requests.h"

namespace TansyBench {
namespace {

constexpr std::uint64_t kAnnouncedBody = std::uint64_t{1} << 20;
constexpr std::uint64_t kSentBody = 1024;
constexpr int kSmallBuffer = 4096;

class CHolder {
 public:
  explicit CHolder(const HoldOptions& options)
      : address_(ParseAddress(options.url)),
        host_(address_.host + ":" + std::to_string(address_.port)),
        list_(ReadRequests(options.requests)) {
    if (list_.requests.size() != 3) {
      throw std::runtime_error("hold needs three requests");
    }
  }

  void AddIdle() {
    CConnection& connection = Open();
    connection.Send(HeadOf(0));
    const Answer answer = connection.ReadHead();
    if (answer.status != 200) {
      throw std::runtime_error("status " + std::to_string(answer.status));
    }
    connection.SkipBody(answer.size);
  }

  void AddHead() {
    const std::string head = HeadOf(0);
    Open().Send(std::string_view(head).substr(0, head.size() / 2));
  }

  void AddBody() {
    CConnection& connection = Open();
    connection.Send(HeadOf(1, kAnnouncedBody));
    connection.Send(CContent("").At(0, kSentBody));
  }

  void AddReader() { Open(kSmallBuffer).Send(HeadOf(2)); }

  std::size_t Count() const { return connections_.size(); }

  std::size_t CountClosed() const {
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [](const auto& connection) { return connection->IsClosed(); }));
  }

 private:
  CConnection& Open(int receive_buffer = 0) {
    return *connections_.emplace_back(std::make_unique<CConnection>(address_, receive_buffer));
  }

  std::string HeadOf(std::size_t index, std::uint64_t body_size = 0) const {
    return Head(list_, list_.requests[index], host_, body_size);
  }

  const Address address_;
  const std::string host_;
  const RequestList list_;
  std::vector<std::unique_ptr<CConnection>> connections_;
};

}  // namespace

void RunHold(const HoldOptions& options) {
  CHolder holder(options);
  for (unsigned i = 0; i < options.idle; ++i) {
    holder.AddIdle();
  }
  for (unsigned i = 0; i < options.heads; ++i) {
    holder.AddHead();
  }
  for (unsigned i = 0; i < options.bodies; ++i) {
    holder.AddBody();
  }
  for (unsigned i = 0; i < options.readers; ++i) {
    holder.AddReader();
  }
  std::printf("holding %zu\n", holder.Count());
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  const std::size_t closed = holder.CountClosed();
  if (closed > 0) {
    throw std::runtime_error("the server closed " + std::to_string(closed) + " of the held connections");
  }
}

}  // namespace TansyBench
