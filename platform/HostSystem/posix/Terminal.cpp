#include "HostSystem/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

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

void MakeStreamsBinary() {}

}  // namespace HostSystem
