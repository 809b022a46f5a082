#include <cstdlib>

#include "Host.h"
#include "HostSystem/Process.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

int main(int argc, char** argv) {
  const int exit_code = Tansy::Host::Run(argc, HostSystem::ArgumentsInUtf8(argc, argv));
#if defined(__SANITIZE_ADDRESS__)
  __lsan_do_leak_check();
#endif
  // Threads of the module may still be at work, because the module never ends them. So the objects that they use must
  // not be destroyed.
  std::_Exit(exit_code);
}
