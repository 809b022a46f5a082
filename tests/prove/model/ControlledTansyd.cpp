// Linked into a tansyd of its own: what no request can do, for a program that sends a word to a socket.
//
// The environment variable CONTROL_SOCKET names the socket. One command per connection, a line:
//
//   clock SECONDS      the time of day is the machine's and this number from now on
//   uptime SECONDS     the same for the clock that nobody sets: this time has passed besides
//   remove BUCKET      removes the bucket and its objects
//   rename BUCKET NEW
//
// The answer is "done" or "refused". CONTROL_CLOCK and CONTROL_UPTIME give the seconds that the server starts with.
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>

#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/Catalogue.h"

namespace {

using Tansy::CloudStorage::BucketInfo;

std::atomic<std::int64_t> g_clock{0};
std::atomic<std::int64_t> g_uptime{0};

std::time_t SteppedClock() {
  return std::time(nullptr) + g_clock;
}

std::int64_t SteppedUptime() {
  const auto since_zero = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(since_zero).count() + g_uptime;
}

bool Remove(const std::string& name) {
  BucketInfo bucket;
  return Tansy::CloudStorage::GetBucketByName(bucket, name) && Tansy::CloudStorage::DeleteBucket(bucket.id);
}

bool Rename(const std::string& name, const std::string& new_name) {
  BucketInfo bucket;
  if (!Tansy::CloudStorage::GetBucketByName(bucket, name)) {
    return false;
  }
  bucket.name = new_name;
  return Tansy::CloudStorage::ModifyBucket(bucket);
}

bool Obey(const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::string first;
  std::string second;
  words >> command >> first >> second;
  if (command == "clock") {
    g_clock = std::strtoll(first.c_str(), nullptr, 10);
    return true;
  }
  if (command == "uptime") {
    g_uptime = std::strtoll(first.c_str(), nullptr, 10);
    return true;
  }
  return (command == "remove" && Remove(first)) || (command == "rename" && Rename(first, second));
}

std::string ReadLine(int connection) {
  std::string line;
  for (char c = 0; ::read(connection, &c, 1) == 1 && c != '\n';) {
    line += c;
  }
  return line;
}

void Serve(int listener) {
  for (;;) {
    const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      continue;
    }
    const std::string answer = Obey(ReadLine(connection)) ? "done\n" : "refused\n";
    ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    ::close(connection);
  }
}

std::int64_t SecondsFrom(const char* name) {
  const char* text = std::getenv(name);
  return text == nullptr ? 0 : std::strtoll(text, nullptr, 10);
}

int Listen(const char* path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  ::unlink(path);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool is_listening =
      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && ::listen(listener, 16) == 0;
  return is_listening ? listener : -1;
}

// Begins before main does, so that the program itself is that of the product.
const bool g_begun = [] {
  const char* path = std::getenv("CONTROL_SOCKET");
  const int listener = path == nullptr ? -1 : Listen(path);
  if (listener < 0) {
    return false;
  }
  g_clock = SecondsFrom("CONTROL_CLOCK");
  g_uptime = SecondsFrom("CONTROL_UPTIME");
  TansyBase::TimeUtil::SetClock(&SteppedClock);
  TansyBase::TimeUtil::SetUptimeClock(&SteppedUptime);
  // Signals are for the threads that the program makes.
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread(&Serve, listener).detach();
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return true;
}();

}  // namespace
