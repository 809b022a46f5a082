#include "App.h"

int main(int argc, char** argv) {
  return Tansy::Cli::Run(argc, argv);
}
