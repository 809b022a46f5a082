#include "HostSystem/Terminal.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>

namespace HostSystem {
namespace details {
namespace {

constexpr int kUsualWidth = 80;

HANDLE Handle(EStream stream) {
  switch (stream) {
    case EStream::kInput:
      return GetStdHandle(STD_INPUT_HANDLE);
    case EStream::kOutput:
      return GetStdHandle(STD_OUTPUT_HANDLE);
    case EStream::kError:
      break;
  }
  return GetStdHandle(STD_ERROR_HANDLE);
}

}  // namespace
}  // namespace details

bool IsTerminal(EStream stream) {
  DWORD mode = 0;
  return GetConsoleMode(details::Handle(stream), &mode) != 0;
}

int TerminalWidth() {
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  if (!GetConsoleScreenBufferInfo(details::Handle(EStream::kError), &info)) {
    return details::kUsualWidth;
  }
  return info.srWindow.Right - info.srWindow.Left + 1;
}

void MakeStreamsBinary() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
}

}  // namespace HostSystem
