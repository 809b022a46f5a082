#include "ByteCount.h"

#include <charconv>
#include <utility>

#include "Failure.h"
#include "Output.h"

namespace Tansy::Cli {

std::uint64_t ParseByteCount(const std::string& option, const std::string& text) {
  static constexpr std::pair<const char*, int> kUnits[] = {{"", 0},     {"K", 10}, {"KiB", 10}, {"M", 20},
                                                           {"MiB", 20}, {"G", 30}, {"GiB", 30}};
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  const std::string unit(position, end);
  for (const auto& [name, shift] : kUnits) {
    if (error == std::errc{} && unit == name && number > 0 && number <= (std::uint64_t{1} << 52) >> shift) {
      return number << shift;
    }
  }
  throw CFailure(kExitUsage, option + " \"" + Printable(text) + "\" is no number of bytes",
                 "give a number, also with K, M or G, such as 500, 64K, 10M or 1G");
}

}  // namespace Tansy::Cli
