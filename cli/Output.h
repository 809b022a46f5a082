// Writes results on standard output, and numbers in a form for people.
#ifndef TANSY_CLI_OUTPUT_H
#define TANSY_CLI_OUTPUT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Tansy::Cli {

// One JSON object on one line.
class CJsonLine {
 public:
  CJsonLine& Add(const std::string& name, const std::string& value);
  CJsonLine& Add(const std::string& name, const char* value) { return Add(name, std::string(value)); }
  CJsonLine& Add(const std::string& name, std::int64_t value);
  CJsonLine& Add(const std::string& name, std::uint64_t value);
  CJsonLine& Add(const std::string& name, bool value);
  CJsonLine& AddSeconds(const std::string& name, double value);  // with three digits behind the point
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  CJsonLine& AddRaw(const std::string& name, const std::string& value);

  std::string members_;
};

// Writes `text` between quotes. Bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string& text);

// Print a line, or bytes, at once; lines of several threads stay whole. They throw CFailure when standard output
// accepts nothing more.
void PrintLine(const std::string& line);
void PrintBytes(const char* data, std::size_t size);

// Prints rows with their columns aligned; it prints nothing when there are no rows.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

// Prints a line that is only for people, on standard error.
void PrintNote(const std::string& line);
// Replaces the last line of progress by this one and does not end it; "" removes it. Everything else that is printed
// removes it too, so that progress never mixes with results.
void ShowProgress(const std::string& line);

// Writes sizes like "512 B", "1.5 KiB", "3.2 GiB".
std::string FormatBytes(std::uint64_t bytes);
// Writes durations like "0:07", "12:30", "3:05:00".
std::string FormatDuration(double seconds);
// Gives `text` without anything that a terminal would act on.
std::string Printable(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OUTPUT_H
