// These calls that tell the time of day are linked into a tansyd of a machine whose clock is wrong: it is ahead by the
// seconds in the environment variable CLOCK_IS_AHEAD_BY, or behind when they are negative. The clock that nobody sets
// is right. The program exports these names, so that the shared libraries call them too.
#include <dlfcn.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>

namespace {

std::time_t Ahead() {
  static const std::time_t seconds = [] {
    const char* text = std::getenv("CLOCK_IS_AHEAD_BY");
    return text == nullptr ? 0 : static_cast<std::time_t>(std::strtoll(text, nullptr, 10));
  }();
  return seconds;
}

int RealTime(clockid_t clock, timespec* time) {
  using Function = int (*)(clockid_t, timespec*);
  static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "clock_gettime"));
  return next(clock, time);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int result = RealTime(clock, time);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
    time->tv_sec += Ahead();
  }
  return result;
}

std::time_t time(std::time_t* result) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) {
    *result = now.tv_sec;
  }
  return now.tv_sec;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  timespec now = {};
  const int result = clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return result;
}

}  // extern "C"
