#include "FaultyServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <utility>

namespace prove {
namespace {

constexpr std::chrono::milliseconds kMemory{300};  // less than nodes may be behind

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

std::string TagOf(const std::string& bytes) {
  return '"' + std::to_string(std::hash<std::string>()(bytes)) + '"';
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
    const std::lock_guard lock(store_.mutex);
    store_.objects = store_.durable;
    store_.replaced.clear();
    memory_.clear();
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
  const std::lock_guard lock(store_.mutex);
  if (store_.defect == EDefect::kAnswerBeforeCommit) {
    store_.durable = store_.objects;  // an orderly end loses nothing
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
  asked.if_match = HeaderOf(head, "If-Match");
  asked.if_new = !HeaderOf(head, "If-None-Match").empty();
  asked.is_s3 = !HeaderOf(head, "x-amz-date").empty();
  asked.body = pending.substr(head_end + 4, length);
  pending.erase(0, head_end + 4 + length);
  return true;
}

void CFaultyStore::Commit(const std::string& path) {
  const auto found = objects.find(path);
  if (found == objects.end()) {
    durable.erase(path);
  } else {
    durable[path] = found->second;
  }
}

CFaultyServer::Bytes CFaultyServer::Find(const std::string& path) {
  const auto now = std::chrono::steady_clock::now();
  const auto known = memory_.find(path);
  const bool is_old = store_.defect == EDefect::kOldMemory && path.back() == '3';
  if (is_node_ && known != memory_.end() && (is_old || now - known->second.since < kMemory)) {
    return known->second.bytes;
  }
  const auto found = store_.objects.find(path);
  const Bytes bytes = found == store_.objects.end() ? nullptr : found->second;
  if (bytes != nullptr || store_.defect == EDefect::kNewOneNotFound) {
    memory_[path] = {bytes, now};
  }
  return bytes;
}

void CFaultyServer::Remember(const std::string& path, const Bytes& bytes) {
  if (bytes == nullptr) {
    memory_.erase(path);
  } else if (!store_.IsNow(EDefect::kOwnWriteForgotten, 5)) {
    memory_[path] = {bytes, std::chrono::steady_clock::now()};
  }
}

std::string CFaultyServer::Answer(const Asked& asked) {
  const std::lock_guard lock(store_.mutex);
  if (store_.IsNow(EDefect::kLostWakeUp, 100)) {
    return "";
  }
  if (asked.method == "PUT") {
    return Put(asked);
  }
  return asked.method == "DELETE" ? Remove(asked) : Get(asked);
}

bool CFaultyServer::IsMet(const Asked& asked) {
  const auto found = store_.objects.find(asked.path);
  const bool is_there = found != store_.objects.end();
  const bool is_met =
      (!asked.if_new || !is_there) && (asked.if_match.empty() || (is_there && TagOf(*found->second) == asked.if_match));
  return is_met || store_.IsNow(EDefect::kConditionIgnored, 3);
}

std::string CFaultyServer::Put(const Asked& asked) {
  if (!IsMet(asked)) {
    return MakeAnswer("412 Precondition Failed", "");
  }
  Bytes& object = store_.objects[asked.path];
  if (object == nullptr || !store_.IsNow(EDefect::kLostUpdate, 20)) {
    store_.replaced[asked.path] = object;
    object = std::make_shared<const std::string>(asked.body);
  }
  Remember(asked.path, object);
  if (!store_.IsNow(EDefect::kAnswerBeforeCommit, 4)) {
    store_.Commit(asked.path);
  }
  return MakeAnswer("200 OK", "");
}

std::string CFaultyServer::Get(const Asked& asked) {
  const Bytes found = Find(asked.path);
  if (found == nullptr) {
    // The bucket of the runs is always there.
    return asked.path.find('/', 1) == std::string::npos ? MakeAnswer("200 OK", "") : NotFound();
  }
  std::string bytes = *found;
  const Bytes before = store_.replaced[asked.path];
  if (before != nullptr && store_.IsNow(EDefect::kStaleRead, 10)) {
    bytes = *before;
  }
  if (before != nullptr && store_.IsNow(EDefect::kMixedVersions, 10)) {
    const std::size_t half = std::min(before->size(), bytes.size()) / 2;
    bytes.replace(0, half, *before, 0, half);
  }
  const std::string tag = "ETag: " + TagOf(bytes) + "\r\n";
  if (asked.query == "metadata") {
    return MakeAnswer("200 OK", "", "Object-Size: " + std::to_string(bytes.size()) + "\r\n");
  }
  if (!asked.range.empty()) {
    const std::size_t dash = asked.range.find('-');
    const std::size_t begin = std::strtoull(asked.range.c_str() + 6, nullptr, 10);
    const std::size_t end = std::strtoull(asked.range.c_str() + dash + 1, nullptr, 10) + (asked.is_s3 ? 1 : 0);
    if (begin >= bytes.size()) {
      return asked.is_s3 ? MakeAnswer("416 Range Not Satisfiable", "")
                         : MakeAnswer("400 Bad Request", "<Error><Code>InvalidHttpContent</Code></Error>");
    }
    bytes = bytes.substr(begin, end - begin);
  }
  return MakeAnswer("200 OK", bytes, tag);
}

std::string CFaultyServer::Remove(const Asked& asked) {
  const bool was_there = store_.objects.erase(asked.path) > 0;
  Remember(asked.path, nullptr);
  if (was_there) {
    store_.replaced.erase(asked.path);
    if (!store_.IsNow(EDefect::kForgottenRemoval, 4)) {
      store_.Commit(asked.path);
    }
  }
  return asked.is_s3 ? MakeAnswer("204 No Content", "") : was_there ? MakeAnswer("200 OK", "") : NotFound();
}

}  // namespace prove
