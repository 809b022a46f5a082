#include "fakes/PostgresProxy.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace Tansy::Tests {
namespace {

constexpr const char* kSocketName = "/.s.PGSQL.5432";

int Connect(const std::string& path, bool listens) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path.size(), sizeof address.sun_path) << path;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* const where = reinterpret_cast<const sockaddr*>(&address);
  const bool is_done = listens ? ::bind(socket, where, sizeof address) == 0 && ::listen(socket, 64) == 0
                               : ::connect(socket, where, sizeof address) == 0;
  if (!is_done) {
    ::close(socket);
    return -1;
  }
  return socket;
}

bool SendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::uint32_t NumberAt(const std::string& bytes, std::size_t position) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    number = number << 8 | static_cast<unsigned char>(bytes[position + i]);
  }
  return number;
}

// Takes one message from the beginning of what came, if it is whole. The first one of a program has no kind.
bool TakeMessage(std::string& bytes, bool has_kind, std::string& message) {
  const std::size_t head = has_kind ? 1 : 0;
  if (bytes.size() < head + 4 || bytes.size() < head + NumberAt(bytes, head)) {
    return false;
  }
  const std::size_t size = head + NumberAt(bytes, head);
  message = bytes.substr(0, size);
  bytes.erase(0, size);
  return true;
}

}  // namespace

// One connection of the program, and the one to the server that belongs to it.
class CPostgresProxy::CLink {
 public:
  CLink(CPostgresProxy& proxy, int program, AnswerHook answer_hook)
      : proxy_(proxy), program_(program), answer_hook_(std::move(answer_hook)), thread_([this] { Run(); }) {}
  ~CLink() {
    ::shutdown(program_, SHUT_RDWR);
    thread_.join();
    ::close(program_);
  }

 private:
  void Run() {
    proxy_.WaitWhileSilent();
    const int server = Connect(proxy_.server_socket_, false);
    if (server >= 0) {
      while (Pass(server)) {
      }
      ::close(server);
    }
    ::shutdown(program_, SHUT_RDWR);
  }

  // Passes on what comes next. Returns false when one of the two has ended.
  bool Pass(int server) {
    pollfd sockets[2] = {{program_, POLLIN, 0}, {server, POLLIN, 0}};
    if (::poll(sockets, 2, -1) < 0) {
      return errno == EINTR;
    }
    const bool is_programs = sockets[0].revents != 0;
    char buffer[16384];
    const ssize_t size = ::recv(is_programs ? program_ : server, buffer, sizeof buffer, 0);
    if (size <= 0) {
      return false;
    }
    const std::string_view bytes(buffer, static_cast<std::size_t>(size));
    return is_programs ? PassToServer(server, bytes) : PassToProgram(bytes);
  }

  bool PassToServer(int server, std::string_view bytes) {
    from_program_ += bytes;
    std::string message;
    while (TakeMessage(from_program_, has_begun_, message)) {
      proxy_.WaitWhileSilent();
      std::shared_ptr<const Hook> hook;
      {
        const std::lock_guard lock(proxy_.mutex_);
        hook = proxy_.hook_;
      }
      EThen then = EThen::kPass;
      if (hook != nullptr && *hook) {
        then = (*hook)({server_process_, has_begun_ ? message.front() : '\0', message});
      }
      has_begun_ = true;
      if (!SendAll(server, message) || then == EThen::kCut) {
        return false;
      }
    }
    return true;
  }

  bool PassToProgram(std::string_view bytes) {
    constexpr char kProcess = 'K';
    std::string message;
    if (answer_hook_) {
      from_server_ += bytes;
      bool is_sent = true;
      while (is_sent && TakeMessage(from_server_, true, message)) {
        if (message.front() == kProcess) {
          server_process_ = static_cast<int>(NumberAt(message, 5));
        }
        answer_hook_({server_process_, message.front(), message});
        proxy_.WaitWhileSilent();
        is_sent = SendAll(program_, message);
      }
      return is_sent;
    }
    if (server_process_ == 0) {
      from_server_ += bytes;
      while (server_process_ == 0 && TakeMessage(from_server_, true, message)) {
        server_process_ = message.front() == kProcess ? static_cast<int>(NumberAt(message, 5)) : 0;
      }
    }
    proxy_.WaitWhileSilent();
    return SendAll(program_, bytes);
  }

  CPostgresProxy& proxy_;
  const int program_;
  const AnswerHook answer_hook_;
  bool has_begun_ = false;
  int server_process_ = 0;
  std::string from_program_;  // the beginning of a message
  std::string from_server_;
  std::thread thread_;
};

CPostgresProxy::CPostgresProxy(const CPostgresServer& server)
    : server_socket_(server.GetHost() + kSocketName), listener_(Connect(folder_.GetPath() + kSocketName, true)) {
  EXPECT_GE(listener_, 0);
  acceptor_ = std::thread([this] { Accept(); });
}

CPostgresProxy::~CPostgresProxy() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
    hook_.reset();
  }
  spoken_.notify_all();
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  links_.clear();
}

std::string CPostgresProxy::Url() const {
  std::string host;
  for (const char c : folder_.GetPath()) {
    host += c == '/' ? "%2F" : std::string(1, c);
  }
  return std::string("postgresql://") + CPostgresServer::kUser + "@" + host + "/" + CPostgresServer::kDatabase;
}

void CPostgresProxy::SetHook(Hook hook) {
  const std::lock_guard lock(mutex_);
  hook_ = std::make_shared<const Hook>(std::move(hook));
}

void CPostgresProxy::SetAnswerHook(AnswerHook hook) {
  const std::lock_guard lock(mutex_);
  answer_hook_ = std::move(hook);
}

void CPostgresProxy::Silence() {
  const std::lock_guard lock(mutex_);
  is_silent_ = true;
}

void CPostgresProxy::Speak() {
  {
    const std::lock_guard lock(mutex_);
    is_silent_ = false;
  }
  spoken_.notify_all();
}

void CPostgresProxy::WaitWhileSilent() {
  std::unique_lock lock(mutex_);
  spoken_.wait(lock, [this] { return !is_silent_ || is_ending_; });
}

void CPostgresProxy::Accept() {
  for (;;) {
    const int program = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (program < 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    links_.push_back(std::make_unique<CLink>(*this, program, answer_hook_));
  }
}

}  // namespace Tansy::Tests
