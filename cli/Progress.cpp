#include "Progress.h"

#include <algorithm>
#include <utility>

#include "HostSystem/Terminal.h"
#include "Output.h"
#include "TansyBase/StringUtil.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::chrono::milliseconds kRound{100};
constexpr std::size_t kLongestBar = 30;
constexpr std::size_t kShortestBar = 5;
constexpr std::size_t kLongestName = 30;

// Keeps the end of a long name, because it says more than the beginning.
std::string Shortened(const std::string& name) {
  std::string printable = Printable(name);
  if (printable.size() <= kLongestName) {
    return printable;
  }
  std::size_t at = printable.size() - kLongestName + 3;
  while (at < printable.size() && (static_cast<unsigned char>(printable[at]) & 0xc0) == 0x80) {
    ++at;
  }
  return "..." + printable.substr(at);
}

std::string Bar(std::size_t width, int percent) {
  const std::size_t full = width * static_cast<std::size_t>(percent) / 100;
  return "[" + std::string(full, '#') + std::string(width - full, '-') + "]";
}

}  // namespace
}  // namespace details

std::string RenderProgress(const ProgressState& state, std::size_t width) {
  std::string head = state.what + " ";
  head += state.name.empty() ? std::to_string(state.done) + " of " + std::to_string(state.files) + " files"
                             : details::Shortened(state.name);
  const double rate = state.seconds > 0 ? static_cast<double>(state.bytes) / state.seconds : 0;
  std::string tail = FormatBytes(static_cast<std::uint64_t>(rate)) + "/s";
  std::string bar;
  if (state.total == 0) {
    tail = FormatBytes(state.bytes) + "  " + tail;
  } else {
    const auto percent =
        static_cast<int>(std::min(state.bytes, state.total) * 100.0 / static_cast<double>(state.total));
    const double left = rate > 0 ? static_cast<double>(state.total - std::min(state.bytes, state.total)) / rate : 0;
    tail = TansyBase::StringUtil::str_fmt("%3d%%  ", percent) + tail +
           (rate > 0 ? "  " + FormatDuration(left) + " left" : "");
    const std::size_t used = head.size() + tail.size() + 6;
    if (used + details::kShortestBar <= width) {
      bar = details::Bar(std::min(width - used, details::kLongestBar), percent) + "  ";
    }
  }
  const std::string line = head + "  " + bar + tail;
  return line.size() <= width ? line : line.substr(0, width);
}

CProgress::CProgress(const Globals& globals, const std::string& what)
    : visible_(!globals.quiet && !globals.json && HostSystem::IsTerminal(HostSystem::EStream::kError)), what_(what) {
  if (visible_) {
    thread_ = std::thread([this] { Draw(); });
  }
}

CProgress::~CProgress() {
  if (!visible_) {
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  stopped_.notify_all();
  thread_.join();
  ShowProgress("");
}

std::size_t CProgress::Add(const std::string& name, std::uint64_t total) {
  const std::lock_guard lock(mutex_);
  if (!visible_) {
    return 0;
  }
  first_name_ = transfers_.empty() ? name : first_name_;
  transfers_.push_back({0, total});
  sum_.total += total;
  without_total_ += total == 0 ? 1 : 0;
  return transfers_.size() - 1;
}

void CProgress::Update(std::size_t number, std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  if (visible_) {
    sum_.bytes += bytes - std::exchange(transfers_[number].bytes, bytes);
  }
}

void CProgress::Finish(std::size_t number) {
  const std::lock_guard lock(mutex_);
  if (!visible_) {
    return;
  }
  Transfer& transfer = transfers_[number];
  const std::uint64_t bytes = std::max(transfer.bytes, transfer.total);
  sum_.bytes += bytes - std::exchange(transfer.bytes, bytes);
  without_total_ -= transfer.total == 0 ? 1 : 0;
  ++sum_.done;
}

ProgressState CProgress::State() const {
  ProgressState state = sum_;
  state.what = what_;
  state.files = transfers_.size();
  state.name = transfers_.size() == 1 ? first_name_ : "";
  state.total = without_total_ == 0 ? state.total : 0;
  state.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
  return state;
}

void CProgress::Draw() {
  std::unique_lock lock(mutex_);
  while (!stopped_.wait_for(lock, details::kRound, [this] { return stop_; })) {
    if (!transfers_.empty()) {
      // One column stays empty, because a full line would make the terminal scroll.
      const auto width = static_cast<std::size_t>(std::max(HostSystem::TerminalWidth() - 1, 1));
      ShowProgress(RenderProgress(State(), width));
    }
  }
}

}  // namespace Tansy::Cli
