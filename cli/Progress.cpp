#include "Progress.h"

#include <algorithm>

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
  transfers_.push_back({name, 0, total, false});
  return transfers_.size() - 1;
}

void CProgress::Update(std::size_t number, std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  transfers_[number].bytes = bytes;
}

void CProgress::Finish(std::size_t number) {
  const std::lock_guard lock(mutex_);
  transfers_[number].bytes = std::max(transfers_[number].bytes, transfers_[number].total);
  transfers_[number].finished = true;
}

ProgressState CProgress::State() const {
  ProgressState state;
  state.what = what_;
  state.files = transfers_.size();
  state.name = transfers_.size() == 1 ? transfers_.front().name : "";
  bool total_known = true;
  for (const Transfer& transfer : transfers_) {
    state.done += transfer.finished ? 1 : 0;
    state.bytes += transfer.bytes;
    state.total += transfer.total;
    total_known = total_known && (transfer.total > 0 || transfer.finished);
  }
  state.total = total_known ? state.total : 0;
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
