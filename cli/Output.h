// What the program writes on standard output, and numbers in a form for people.
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
  CJsonLine& AddSeconds(const std::string& name, double value);  // three digits behind the point
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  CJsonLine& AddRaw(const std::string& name, const std::string& value);

  std::string members_;
};

// `text` between quotes. Bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string& text);

// Writes a line, or bytes, at once; lines of several threads stay whole. Throws CFailure when standard output takes
// nothing more.
void PrintLine(const std::string& line);
void PrintBytes(const char* data, std::size_t size);

// Rows with columns under each other; nothing for no rows.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

// A line that is only for people, on standard error.
void PrintNote(const std::string& line);
// Puts a line of progress in the place of the last one, without ending it; "" takes it away. Whatever else is printed
// takes it away too, so that it never mixes with results.
void ShowProgress(const std::string& line);

// "512 B", "1.5 KiB", "3.2 GiB"
std::string FormatBytes(std::uint64_t bytes);
// "0:07", "12:30", "3:05:00"
std::string FormatDuration(double seconds);
// `text` without anything that a terminal would act on.
std::string Printable(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_OUTPUT_H
