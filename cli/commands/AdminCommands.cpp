#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AdminLink.h"
#include "Commands.h"
#include "Duration.h"
#include "Failure.h"
#include "HostSystem/Terminal.h"
#include "Output.h"
#include "Settings.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

constexpr std::chrono::milliseconds kBetweenLooks{250};
constexpr std::int64_t kUsualInterval = 2;   // seconds
constexpr std::size_t kMostOperations = 15;  // that are shown
constexpr std::size_t kMostRequests = 10;
constexpr const char* kClearScreen = "\x1b[H\x1b[J";

CRapidJsonProto Ask(const CAdminLink& link, const std::string& method, const std::string& path,
                    const std::string& body = {}) {
  CRapidJsonProto json;
  if (!json.Parse(link.Request(method, path, body))) {
    throw CFailure(kExitFailed, "the server's answer makes no sense", "is this the admin port of a tansyd?");
  }
  return json;
}

std::string Item(const char* list, std::size_t index) {
  return std::string(list) + "[" + std::to_string(index + 1) + "]";
}

std::uint64_t Number(const CRapidJsonProto& json, const std::string& at) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(json.GetInt(at, 0), 0));
}

std::string Share(const CRapidJsonProto& json, const std::string& part, const std::string& whole) {
  return std::to_string(Number(json, part)) + " of " + std::to_string(Number(json, whole));
}

// "well", or what is wrong with which part.
std::string StateOf(const CRapidJsonProto& info) {
  std::string state;
  for (const auto& [part, trouble] : info.GetMembers("/parts")) {
    if (trouble != "well") {
      state += (state.empty() ? "" : "; ") + Printable(part) + ": " + Printable(trouble);
    }
  }
  if (!state.empty()) {
    return state;
  }
  return info.GetString("/ready") == "true" ? "well" : "not ready";
}

struct Totals {
  std::uint64_t requests = 0;
  std::uint64_t errors = 0;
  std::uint64_t microseconds = 0;
  std::uint64_t bytes_in = 0;
  std::uint64_t bytes_out = 0;
};

Totals operator-(const Totals& now, const Totals& before) {
  return {now.requests - before.requests, now.errors - before.errors, now.microseconds - before.microseconds,
          now.bytes_in - before.bytes_in, now.bytes_out - before.bytes_out};
}

using TotalsByName = std::map<std::string, Totals>;

TotalsByName TotalsOf(const CRapidJsonProto& info) {
  TotalsByName all;
  for (std::size_t i = 0; info.Has(Item("/operations", i)); ++i) {
    const std::string at = Item("/operations", i);
    all[info.GetString(at + "/service") + " " + info.GetString(at + "/operation")] = {
        Number(info, at + "/requests"), Number(info, at + "/errors"), Number(info, at + "/microseconds"),
        Number(info, at + "/bytes_in"), Number(info, at + "/bytes_out")};
  }
  return all;
}

Totals SumOf(const TotalsByName& all) {
  Totals sum;
  for (const auto& [name, each] : all) {
    sum = {sum.requests + each.requests, sum.errors + each.errors, sum.microseconds + each.microseconds,
           sum.bytes_in + each.bytes_in, sum.bytes_out + each.bytes_out};
  }
  return sum;
}

int RunInfo(const CommandCall& call) {
  const CAdminLink link(UseSettings(call.globals));
  const CRapidJsonProto info = Ask(link, "GET", "info");
  if (call.globals.json) {
    PrintLine(info.Serialize());
    return kExitDone;
  }
  const Totals sum = SumOf(TotalsOf(info));
  PrintTable(
      {{"version", Printable(info.GetString("/version"))},
       {"up for", FormatDuration(static_cast<double>(Number(info, "/uptime")))},
       {"state", StateOf(info)},
       {"buckets", std::to_string(Number(info, "/catalogue/buckets"))},
       {"objects",
        std::to_string(Number(info, "/catalogue/objects")) + ", " + FormatBytes(Number(info, "/catalogue/bytes"))},
       {"open uploads", std::to_string(Number(info, "/catalogue/uploads"))},
       {"requests", std::to_string(sum.requests) + ", " + std::to_string(sum.errors) + " failed"},
       {"received, sent", FormatBytes(sum.bytes_in) + ", " + FormatBytes(sum.bytes_out)},
       {"connections", Share(info, "/connections/open", "/connections/limit")},
       {"tasks", Share(info, "/tasks/running", "/tasks/limit")},
       {"memory", FormatBytes(Number(info, "/memory/used")) + " of " + FormatBytes(Number(info, "/memory/limit"))}});
  return kExitDone;
}

std::string OneDigit(double value) {
  const auto tenths = static_cast<long long>(value * 10 + 0.5);
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

// What was done between two looks, the busiest operations first.
void PrintRates(const TotalsByName& before, const TotalsByName& now, double seconds) {
  std::vector<std::pair<std::string, Totals>> busy;
  for (const auto& [name, totals] : now) {
    const auto found = before.find(name);
    const Totals done = found == before.end() ? totals : totals - found->second;
    if (done.requests > 0) {
      busy.emplace_back(name, done);
    }
  }
  std::stable_sort(busy.begin(), busy.end(),
                   [](const auto& left, const auto& right) { return left.second.requests > right.second.requests; });
  busy.resize(std::min(busy.size(), kMostOperations));
  std::vector<std::vector<std::string>> rows = {{"operation", "per s", "failed", "ms each", "in per s", "out per s"}};
  for (const auto& [name, done] : busy) {
    const auto per_second = [seconds](std::uint64_t bytes) {
      return FormatBytes(static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds));
    };
    rows.push_back({Printable(name), OneDigit(static_cast<double>(done.requests) / seconds),
                    std::to_string(done.errors),
                    OneDigit(static_cast<double>(done.microseconds) / 1000 / static_cast<double>(done.requests)),
                    per_second(done.bytes_in), per_second(done.bytes_out)});
  }
  PrintTable(rows);
}

void PrintRunning(const CRapidJsonProto& requests) {
  std::vector<std::vector<std::string>> rows = {{"running", "phase", "ms", "from"}};
  for (std::size_t i = 0; i < kMostRequests && requests.Has(Item("/requests", i)); ++i) {
    const std::string at = Item("/requests", i);
    rows.push_back({Printable(requests.GetString(at + "/request")), Printable(requests.GetString(at + "/phase")),
                    std::to_string(Number(requests, at + "/age_ms")), Printable(requests.GetString(at + "/peer"))});
  }
  if (rows.size() > 1) {
    PrintLine("");
    PrintTable(rows);
  }
}

std::int64_t CountOf(const CommandCall& call) {
  if (!call.Has("--count")) {
    return 0;
  }
  const std::string text = call.Option("--count");
  if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos || text == "0") {
    throw CFailure(kExitUsage, "--count must be a number from 1 on", "");
  }
  return std::stoll(text);
}

void PrintFrame(const TotalsByName& before, const CRapidJsonProto& info, const CRapidJsonProto& requests,
                double seconds) {
  PrintLine("tansyd " + Printable(info.GetString("/version")) + ", up for " +
            FormatDuration(static_cast<double>(Number(info, "/uptime"))) + ", " + StateOf(info));
  PrintLine("connections " + Share(info, "/connections/busy", "/connections/open") + " busy, tasks " +
            Share(info, "/tasks/running", "/tasks/limit") + ", memory " + FormatBytes(Number(info, "/memory/used")) +
            ", objects " + std::to_string(Number(info, "/catalogue/objects")));
  PrintLine("");
  PrintRates(before, TotalsOf(info), seconds);
  PrintRunning(requests);
}

// A server that was started again in between has counted from the beginning.
bool IsSameRun(const TotalsByName& before, const TotalsByName& now) {
  return std::all_of(before.begin(), before.end(), [&now](const auto& each) {
    const auto found = now.find(each.first);
    return found != now.end() && found->second.requests >= each.second.requests;
  });
}

int RunTop(const CommandCall& call) {
  const std::int64_t interval =
      call.Has("--interval") ? std::max<std::int64_t>(ParseDuration(call.Option("--interval")), 1) : kUsualInterval;
  const std::int64_t count = CountOf(call);
  const bool is_live = !call.globals.json && HostSystem::IsTerminal(HostSystem::EStream::kOutput);
  const CAdminLink link(UseSettings(call.globals));
  using Clock = std::chrono::steady_clock;
  TotalsByName before = TotalsOf(Ask(link, "GET", "info"));
  auto begin = Clock::now();
  for (std::int64_t shown = 0; count == 0 || shown < count; ++shown) {
    std::this_thread::sleep_until(begin + std::chrono::seconds(interval));
    const auto now = Clock::now();
    const CRapidJsonProto info = Ask(link, "GET", "info");
    const CRapidJsonProto requests = Ask(link, "GET", "requests");
    if (call.globals.json) {
      PrintLine(info.Serialize());
    } else {
      if (is_live) {
        PrintBytes(kClearScreen, std::char_traits<char>::length(kClearScreen));
      } else if (shown > 0) {
        PrintLine("");
      }
      PrintFrame(IsSameRun(before, TotalsOf(info)) ? before : TotalsByName(), info, requests,
                 std::chrono::duration<double>(now - begin).count());
    }
    before = TotalsOf(info);
    begin = now;
  }
  return kExitDone;
}

int WaitForCheck(const CommandCall& call, bool repair) {
  const CAdminLink link(UseSettings(call.globals));
  CRapidJsonProto order;
  order.SetBool("/repair", repair);
  order.SetBool("/force", repair && call.Has("--force"));
  CRapidJsonProto state = Ask(link, "POST", "check", order.Serialize());
  const std::string id = state.GetString("/id");
  while (state.GetString("/running") == "true") {
    std::this_thread::sleep_for(kBetweenLooks);
    state = Ask(link, "GET", "check");
    if (state.GetString("/id") != id) {
      throw CFailure(kExitFailed, "the server knows nothing of this check any more",
                     "it was started again, or somebody has begun another check: try again");
    }
  }
  if (call.globals.json) {
    PrintLine(state.Serialize());
  } else {
    const std::string output = state.GetString("/output");
    PrintBytes(output.data(), output.size());
  }
  // 3: the server has found something, as with tansyd --check.
  return state.GetInt("/exit", kExitFailed) == 0 ? kExitDone : kExitFailed;
}

int RunAdminCheck(const CommandCall& call) {
  return WaitForCheck(call, false);
}

int RunRepair(const CommandCall& call) {
  return WaitForCheck(call, true);
}

}  // namespace
}  // namespace details

CommandSpec AdminInfoCommand() {
  return {"admin",
          "info",
          "tell how a server is, what it holds and what it has done",
          "Prints version, state, objects, requests since the start, and what is in use of connections, tasks and "
          "memory. The request goes to the server's admin port and needs the server's own keys, as all commands of "
          "'tansy admin' do.",
          {},
          {},
          {{"tansy admin info", "look at the server"}, {"tansy --json admin info", "the same for a program"}},
          details::RunInfo};
}

CommandSpec AdminTopCommand() {
  return {"admin",
          "top",
          "show live what a server does",
          "Shows again and again, until it is interrupted, which operations run how often and how long they take, and "
          "the requests that run now, the oldest first. On a terminal each picture takes the place of the one before.",
          {},
          {{"--interval", "TIME", "the time between two pictures, such as 5s; 2s when it is not given"},
           {"--count", "N", "end after this number of pictures"}},
          {{"tansy admin top", "watch the server"}, {"tansy admin top --interval 60s", "slowly"}},
          details::RunTop};
}

CommandSpec AdminCheckCommand() {
  return {"admin",
          "check",
          "compare a running server's catalogue with its bytes",
          "Has the server look for objects without bytes and for bytes without objects, waits for the end, and prints "
          "what 'tansyd --check' prints. Nothing is changed. The exit code is 0 when nothing was found.",
          {},
          {},
          {{"tansy admin check", "look"}},
          details::RunAdminCheck};
}

CommandSpec AdminRepairCommand() {
  return {"admin",
          "repair",
          "free stored bytes that no object of a running server has",
          "Does what 'tansy admin check' does, and frees the bytes that nothing refers to. It refuses when that would "
          "be more than a tenth of all bytes, because then the catalogue is more likely the wrong one.",
          {},
          {{"--force", nullptr, "free them even when they are more than a tenth of all"}},
          {{"tansy admin repair", "free what nothing refers to"}},
          details::RunRepair};
}

}  // namespace Tansy::Cli
