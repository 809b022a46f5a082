#include "Output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>

#include "Failure.h"
#include "HostSystem/Files.h"
#include "TansyBase/StringUtil.h"

using TansyBase::StringUtil;

namespace Tansy::Cli {
namespace details {
namespace {

std::mutex output_mutex;      // keeps lines whole; guards what follows
bool progress_shown = false;  // the terminal's last line shows progress

void HideProgress() {
  if (progress_shown) {
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
    progress_shown = false;
  }
}

void Write(std::FILE* stream, const char* data, std::size_t size) {
  if (std::fwrite(data, 1, size, stream) != size || std::fflush(stream) != 0) {
    const int error = errno;
    if (error == EPIPE) {
      // The reader has closed the pipe because it needs no more, as `head` does. That is nothing to report.
      throw CFailure(kExitFailed, "", "");
    }
    throw CFailure(HostSystem::IsNoSpace(error) ? kExitNoSpace : kExitFailed,
                   "standard output: " + HostSystem::ErrorText(error), "");
  }
}

// Gives the length of the UTF-8 sequence at the start of `text`, which is not empty; 0 when there is none.
std::size_t SequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0; };
  const unsigned first = byte(0);
  const std::size_t length = first < 0x80   ? 1
                             : first < 0xc2 ? 0
                             : first < 0xe0 ? 2
                             : first < 0xf0 ? 3
                             : first < 0xf5 ? 4
                                            : 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) {
      return 0;
    }
  }
  const bool overlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
  const bool surrogate = first == 0xed && byte(1) > 0x9f;
  const bool beyond = first == 0xf4 && byte(1) > 0x8f;
  return overlong || surrogate || beyond ? 0 : length;
}

}  // namespace
}  // namespace details

std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const char c = text[i];
    const std::size_t length = details::SequenceLength(text, i);
    if (length == 0) {
      quoted += "\\ufffd";
      ++i;
      continue;
    }
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      quoted += StringUtil::str_fmt("\\u%04x", static_cast<unsigned>(c));
    } else {
      quoted.append(text, i, length);
    }
    i += length;
  }
  return quoted + "\"";
}

CJsonLine& CJsonLine::AddRaw(const std::string& name, const std::string& value) {
  members_ += (members_.empty() ? "" : ", ") + JsonString(name) + ": " + value;
  return *this;
}

CJsonLine& CJsonLine::Add(const std::string& name, const std::string& value) {
  return AddRaw(name, JsonString(value));
}

CJsonLine& CJsonLine::Add(const std::string& name, std::int64_t value) {
  return AddRaw(name, std::to_string(value));
}

CJsonLine& CJsonLine::Add(const std::string& name, std::uint64_t value) {
  return AddRaw(name, std::to_string(value));
}

CJsonLine& CJsonLine::Add(const std::string& name, bool value) {
  return AddRaw(name, value ? "true" : "false");
}

CJsonLine& CJsonLine::AddSeconds(const std::string& name, double value) {
  return AddRaw(name, StringUtil::str_fmt("%.3f", value));
}

void PrintLine(const std::string& line) {
  const std::string text = line + "\n";
  PrintBytes(text.data(), text.size());
}

void PrintBytes(const char* data, std::size_t size) {
  const std::lock_guard lock(details::output_mutex);
  details::HideProgress();
  details::Write(stdout, data, size);
}

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line.append(widths[i] - row[i].size() + 2, ' ');
      }
    }
    PrintLine(line);
  }
}

void PrintNote(const std::string& line) {
  const std::lock_guard lock(details::output_mutex);
  details::HideProgress();
  std::fprintf(stderr, "%s\n", line.c_str());
}

void ShowProgress(const std::string& line) {
  const std::lock_guard lock(details::output_mutex);
  details::HideProgress();
  if (!line.empty()) {
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    details::progress_shown = true;
  }
}

std::string FormatBytes(std::uint64_t bytes) {
  static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) {
    return std::to_string(bytes) + " B";
  }
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // 1023.95 and more would be written as 1024.0, so they count in the next unit.
  while (value >= 1023.95) {
    value /= 1024;
    ++unit;
  }
  return StringUtil::str_fmt("%.1f %s", value, kUnits[unit]);
}

std::string FormatDuration(double seconds) {
  const auto whole = static_cast<long long>(std::clamp(seconds, 0.0, 359999.0));
  if (whole >= 3600) {
    return StringUtil::str_fmt("%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  }
  return StringUtil::str_fmt("%lld:%02lld", whole / 60, whole % 60);
}

std::string Printable(const std::string& text) {
  std::string printable;
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const std::size_t length = details::SequenceLength(text, i);
    // 0xc2 0x80 to 0xc2 0x9f are control characters too.
    const bool control =
        c < 0x20 || c == 0x7f || (c == 0xc2 && length == 2 && static_cast<unsigned char>(text[i + 1]) < 0xa0);
    printable += control || length == 0 ? "?" : text.substr(i, length);
    i += std::max<std::size_t>(length, 1);
  }
  return printable;
}

}  // namespace Tansy::Cli
