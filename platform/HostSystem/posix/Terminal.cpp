#include "HostSystem/Terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace HostSystem {
namespace details {
namespace {

constexpr int kUsualWidth = 80;

int Descriptor(EStream stream) {
  switch (stream) {
    case EStream::kInput:
      return STDIN_FILENO;
    case EStream::kOutput:
      return STDOUT_FILENO;
    case EStream::kError:
      break;
  }
  return STDERR_FILENO;
}

}  // namespace
}  // namespace details

bool IsTerminal(EStream stream) {
  return ::isatty(details::Descriptor(stream)) == 1;
}

int TerminalWidth() {
  winsize size = {};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : details::kUsualWidth;
}

void MakeStreamsBinary() {
  // A stream that the caller has closed is replaced by one on which every use fails. Otherwise the next file or
  // connection would get the stream's number, and what is meant for the stream would end up there.
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF &&
        ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) {
      return;  // when even this cannot be opened, nothing else can
    }
  }
}

}  // namespace HostSystem
