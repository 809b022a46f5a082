// These calls that send are linked into a tansyd of its own. They end the process, or the connection, at one message to
// the database or to the pool, as the plan says that the environment variable MESSAGE_PLAN names.
//
// Messages to the database go through Unix sockets, those to a pool are sent by threads of librados; what clients get
// is neither. The program exports these names, so that the libraries call them too. The environment variable
// MESSAGE_PLANT names what is wrong with them on purpose: "no-kill" or "no-message".
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "MessagePlan.h"

namespace {

using prove::EMessage;
using prove::MessagePlan;

MessagePlan* OpenPlan() {
  const char* path = std::getenv("MESSAGE_PLAN");
  const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) {
    return nullptr;
  }
  void* memory = ::mmap(nullptr, sizeof(MessagePlan), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<MessagePlan*>(memory);
}

bool IsMessage(int socket) {
  int domain = 0;
  socklen_t size = sizeof domain;
  char thread[16] = {};
  return (::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX) ||
         (::pthread_getname_np(::pthread_self(), thread, sizeof thread) == 0 &&
          std::strncmp(thread, "msgr-worker", 11) == 0);
}

bool IsPlanted(const char* plant) {
  const char* planted = std::getenv("MESSAGE_PLANT");
  return planted != nullptr && std::strcmp(planted, plant) == 0;
}

// Says whether this is the message that the plan asks for.
bool IsItsTurn(int socket, EMessage& what) {
  static MessagePlan* const plan = OpenPlan();
  static const bool is_missed = IsPlanted("no-message");
  if (plan == nullptr || is_missed || plan->left <= 0 || !IsMessage(socket)) {
    return false;
  }
  what = plan->what;
  return --plan->left == 0;
}

void Die() {
  static const bool lives_on = IsPlanted("no-kill");
  if (lives_on) {
    return;
  }
  ::kill(::getpid(), SIGKILL);
  for (;;) {
    ::pause();
  }
}

// The function that would have been called without this one.
template <class Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

template <class Call>
ssize_t Send(int socket, const Call& call) {
  EMessage what = EMessage::kLost;
  if (!IsItsTurn(socket, what)) {
    return call();
  }
  if (what == EMessage::kDieBefore) {
    Die();
  }
  if (what == EMessage::kLost) {
    ::shutdown(socket, SHUT_RDWR);
    errno = ECONNRESET;
    return -1;
  }
  const ssize_t sent = call();
  if (what == EMessage::kDieAfter) {
    Die();
  }
  const int error = errno;
  ::shutdown(socket, SHUT_RDWR);
  errno = error;
  return sent;
}

}  // namespace

extern "C" {

ssize_t send(int socket, const void* data, std::size_t size, int flags) {
  static const auto next = Next<decltype(&send)>("send");
  return Send(socket, [&] { return next(socket, data, size, flags); });
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  static const auto next = Next<decltype(&sendmsg)>("sendmsg");
  return Send(socket, [&] { return next(socket, message, flags); });
}
}
