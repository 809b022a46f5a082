#include "CheckRequest.h"

#include <openssl/rand.h>

#include <cerrno>
#include <chrono>
#include <ostream>
#include <sstream>
#include <thread>

#include "Catalogue.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "StoredName.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kRequestFile = "check.request";
constexpr const char* kAnswerFile = "check.answer";
constexpr std::chrono::milliseconds kLookAgain{100};
// The server takes the request away just before it writes the answer, and that takes no longer than so many looks.
constexpr int kLooksWithoutRequest = 50;
constexpr std::size_t kMostRequest = 1000;
constexpr std::size_t kMostAnswer = std::size_t{1} << 30;
constexpr const char* kForce = "force";
constexpr const char* kRepair = "repair";

// The mark tells this answer from an answer to an earlier command.
std::string NewMark() {
  unsigned char bytes[16] = {};
  RAND_bytes(bytes, sizeof bytes);  // any number will do
  return HexText(bytes, sizeof bytes);
}

bool Frees(const std::vector<std::string>& urls, std::set<std::string>& given_up) {
  std::int64_t now = 0;
  return GetRunningSeconds(now) && GiveUpUnnamed(urls, now, given_up) == EGiveUp::kDone;
}

// The first line holds the mark and the exit code; the text of the check follows.
bool ParseAnswer(const std::string& text, const std::string& mark, int& exit_code, std::string& output) {
  std::istringstream stream(text);
  std::string answered;
  if (!(stream >> answered >> exit_code) || answered != mark) {
    return false;
  }
  const std::size_t end = text.find('\n');
  output = end == std::string::npos ? "" : text.substr(end + 1);
  return end != std::string::npos;
}

void ExpectNoOthers(const std::function<bool(std::vector<std::string>& names)>& find_others) {
  std::vector<std::string> others;
  if (find_others && !find_others(others)) {
    throw CStartFailure(kExitFailed, "the database does not say whether other nodes run: see the log");
  }
  if (!others.empty()) {
    throw CStartFailure(kExitFailed, "node " + others.front() +
                                         " runs on the same storage, and only it knows what it is writing: stop all "
                                         "nodes but one to repair something");
  }
}

}  // namespace
}  // namespace details

int AskForCheck(const CheckOptions& options, const std::function<bool()>& is_running, std::ostream& out) {
  const auto fail = [](const std::string& what) { throw CStartFailure(kExitFailed, what); };
  if (HostSystem::GetPathKind(details::kRequestFile) != HostSystem::EPathKind::kMissing) {
    fail("the running tansyd is at another check; try again when that has ended");
  }
  const std::string mark = details::NewMark();
  const std::string request =
      mark + " " + (options.force ? details::kForce : "-") + " " + (options.repair ? details::kRepair : "-") + "\n";
  if (const int error = HostSystem::ReplaceFile(details::kRequestFile, request)) {
    fail(std::string(details::kRequestFile) + " cannot be written: " + HostSystem::ErrorText(error));
  }
  int exit_code = kExitFailed;
  std::string text;
  std::string output;
  int looks_without_request = 0;
  while (HostSystem::ReadWholeFile(details::kAnswerFile, details::kMostAnswer, text) != 0 ||
         !details::ParseAnswer(text, mark, exit_code, output)) {
    if (!is_running()) {
      TansyBase::FileUtil::RemoveFile(details::kRequestFile);
      fail("the running tansyd ended before it had answered");
    }
    if (HostSystem::GetPathKind(details::kRequestFile) != HostSystem::EPathKind::kMissing) {
      looks_without_request = 0;
    } else if (++looks_without_request > details::kLooksWithoutRequest) {
      fail("the running tansyd gave no answer: see its log, then try again");
    }
    std::this_thread::sleep_for(details::kLookAgain);
  }
  TansyBase::FileUtil::RemoveFile(details::kAnswerFile);
  out << output;
  return exit_code;
}

void AnswerCheckRequest(IObjectStore& store, const db_layer::DBParam& database,
                        const std::function<bool(std::vector<std::string>& names)>& find_others,
                        const std::function<bool()>& is_stopping) {
  std::string request;
  if (HostSystem::GetPathKind(details::kRequestFile) == HostSystem::EPathKind::kMissing ||
      HostSystem::ReadWholeFile(details::kRequestFile, details::kMostRequest, request) != 0) {
    return;
  }
  std::istringstream words(request);
  std::string mark;
  std::string force;
  std::string repair;
  words >> mark >> force >> repair;
  CheckOptions options;
  options.repair = repair == details::kRepair;
  options.force = force == details::kForce;
  options.give_up = &details::Frees;
  options.is_stopping = is_stopping;
  std::ostringstream out;
  int exit_code = kExitFailed;
  try {
    if (options.repair) {
      details::ExpectNoOthers(find_others);
    }
    exit_code = RunCheck(store, database, options, out);
  } catch (const std::exception& error) {
    out << "check: " << error.what() << '\n';
  }
  const std::string answer = mark + " " + std::to_string(exit_code) + "\n" + out.str();
  TansyBase::FileUtil::RemoveFile(details::kRequestFile);
  if (const int error = HostSystem::ReplaceFile(details::kAnswerFile, answer)) {
    HOST_LOG(logging::kError, "[%s]%s cannot be written: %s.[%s(%d)]", details::kAnswerFile,
             HostSystem::ErrorText(error).c_str());
  }
}

void ForgetCheckRequests() {
  TansyBase::FileUtil::RemoveFile(details::kRequestFile);
  TansyBase::FileUtil::RemoveFile(details::kAnswerFile);
}

}  // namespace Tansy::Host
