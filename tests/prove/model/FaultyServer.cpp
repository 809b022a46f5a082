#include "FaultyServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace prove {
namespace {

std::string HeaderOf(const std::string& head, const std::string& name) {
  const std::size_t begin = head.find("\r\n" + name + ": ");
  const std::size_t value = begin + name.size() + 4;
  return begin == std::string::npos ? "" : head.substr(value, head.find("\r\n", value) - value);
}

std::string MakeAnswer(const std::string& status, const std::string& body, const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body;
}

bool ReadMore(int socket, std::string& pending) {
  char buffer[65536];
  const ssize_t size = ::recv(socket, buffer, sizeof buffer, 0);
  pending.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  return size > 0;
}

std::string NotFound() {
  return MakeAnswer("404 Not Found", "<Error><Code>NoSuchKey</Code></Error>");
}

}  // namespace

bool CFaultyServer::Start() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port_);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), size) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return false;
  }
  port_ = ntohs(address.sin_port);
  {
    const std::lock_guard lock(mutex_);
    objects_ = durable_;
    replaced_.clear();
  }
  acceptor_ = std::thread([this] { Listen(); });
  return true;
}

void CFaultyServer::Kill() {
  if (listener_ < 0) {
    return;
  }
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(mutex_);
    // Closing resets the connections, as the end of a process does: a client in the middle of a body learns of it at
    // once.
    const linger reset = {1, 0};
    for (const int socket : sockets_) {
      ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      ::shutdown(socket, SHUT_RD);
    }
    threads.swap(threads_);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const int socket : std::exchange(sockets_, {})) {
    ::close(socket);
  }
  ::close(listener_);
  listener_ = -1;
}

bool CFaultyServer::Stop() {
  Kill();
  const std::lock_guard lock(mutex_);
  if (defect_ == EDefect::kAnswerBeforeCommit) {
    durable_ = objects_;  // an orderly end loses nothing
  }
  return true;
}

void CFaultyServer::Listen() {
  for (;;) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    sockets_.push_back(socket);
    threads_.emplace_back([this, socket] { Serve(socket); });
  }
}

void CFaultyServer::Serve(int socket) {
  std::string pending;
  for (Asked asked; ReadRequest(socket, pending, asked); asked = {}) {
    const std::string answer = Answer(asked);
    for (std::size_t sent = 0; sent < answer.size();) {
      const ssize_t size = ::send(socket, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
      if (size <= 0) {
        return;
      }
      sent += static_cast<std::size_t>(size);
    }
  }
}

bool CFaultyServer::ReadRequest(int socket, std::string& pending, Asked& asked) {
  std::size_t head_end = std::string::npos;
  while ((head_end = pending.find("\r\n\r\n")) == std::string::npos) {
    if (!ReadMore(socket, pending)) {
      return false;
    }
  }
  const std::string head = pending.substr(0, head_end + 2);
  const std::size_t length = std::strtoull(HeaderOf(head, "Content-Length").c_str(), nullptr, 10);
  while (pending.size() < head_end + 4 + length) {
    if (!ReadMore(socket, pending)) {
      return false;
    }
  }
  const std::size_t target = head.find(' ') + 1;
  const std::string text = head.substr(target, head.find(' ', target) - target);
  asked.method = head.substr(0, target - 1);
  asked.path = text.substr(0, text.find('?'));
  asked.query = text.find('?') == std::string::npos ? "" : text.substr(text.find('?') + 1);
  asked.range = HeaderOf(head, "Range");
  asked.body = pending.substr(head_end + 4, length);
  pending.erase(0, head_end + 4 + length);
  return true;
}

bool CFaultyServer::IsNow(EDefect defect, int one_in) {
  return defect == defect_ && ++counter_ % one_in == 0;
}

void CFaultyServer::Commit(const std::string& path) {
  const auto found = objects_.find(path);
  if (found == objects_.end()) {
    durable_.erase(path);
  } else {
    durable_[path] = found->second;
  }
}

std::string CFaultyServer::Answer(const Asked& asked) {
  const std::lock_guard lock(mutex_);
  if (IsNow(EDefect::kLostWakeUp, 100)) {
    return "";
  }
  if (asked.method == "PUT") {
    return Put(asked);
  }
  return asked.method == "DELETE" ? Remove(asked) : Get(asked);
}

std::string CFaultyServer::Put(const Asked& asked) {
  Bytes& object = objects_[asked.path];
  if (object == nullptr || !IsNow(EDefect::kLostUpdate, 20)) {
    replaced_[asked.path] = object;
    object = std::make_shared<const std::string>(asked.body);
  }
  if (!IsNow(EDefect::kAnswerBeforeCommit, 4)) {
    Commit(asked.path);
  }
  return MakeAnswer("200 OK", "");
}

std::string CFaultyServer::Get(const Asked& asked) {
  const auto found = objects_.find(asked.path);
  if (found == objects_.end()) {
    // The bucket of the runs is always there.
    return asked.path.find('/', 1) == std::string::npos ? MakeAnswer("200 OK", "") : NotFound();
  }
  std::string bytes = *found->second;
  const Bytes before = replaced_[asked.path];
  if (before != nullptr && IsNow(EDefect::kStaleRead, 10)) {
    bytes = *before;
  }
  if (before != nullptr && IsNow(EDefect::kMixedVersions, 10)) {
    const std::size_t half = std::min(before->size(), bytes.size()) / 2;
    bytes.replace(0, half, *before, 0, half);
  }
  if (asked.query == "metadata") {
    return MakeAnswer("200 OK", "", "Object-Size: " + std::to_string(bytes.size()) + "\r\n");
  }
  if (!asked.range.empty()) {
    const std::size_t dash = asked.range.find('-');
    const std::size_t begin = std::strtoull(asked.range.c_str() + 6, nullptr, 10);
    const std::size_t end = std::strtoull(asked.range.c_str() + dash + 1, nullptr, 10);
    if (begin >= bytes.size()) {
      return MakeAnswer("400 Bad Request", "<Error><Code>InvalidHttpContent</Code></Error>");
    }
    bytes = bytes.substr(begin, end - begin);
  }
  return MakeAnswer("200 OK", bytes);
}

std::string CFaultyServer::Remove(const Asked& asked) {
  if (objects_.erase(asked.path) == 0) {
    return NotFound();
  }
  replaced_.erase(asked.path);
  if (!IsNow(EDefect::kForgottenRemoval, 4)) {
    Commit(asked.path);
  }
  return MakeAnswer("200 OK", "");
}

}  // namespace prove
