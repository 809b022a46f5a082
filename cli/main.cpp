#include "App.h"
#include "HostSystem/Process.h"

int main(int argc, char** argv) {
  return Tansy::Cli::Run(argc, HostSystem::ArgumentsInUtf8(argc, argv));
}
