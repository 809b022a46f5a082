#ifndef TANSY_HOST_EMBEDDED_FILE_H
#define TANSY_HOST_EMBEDDED_FILE_H

#include <string_view>
#include <vector>

namespace Tansy::Host {

// A file that the build has put into the program. All texts live as long as the process.
struct EmbeddedFile {
  std::string_view name;   // "app-1A2B.js", "fonts/a.woff2"
  std::string_view plain;  // its bytes
  std::string_view gzip;   // the same packed by gzip; empty when that is not smaller
};

// The files of the console's page, in the order of their names. The build writes this function.
const std::vector<EmbeddedFile>& ConsoleFiles();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_EMBEDDED_FILE_H
