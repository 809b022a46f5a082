#include "ModuleClient.h"

#include <cstdio>

#include "ClientRecord.h"
#include "Output.h"
#include "ServerLink.h"

namespace Tansy::Cli {
namespace details {
namespace {

// Codes of the client's last error.
enum EClientError {
  kBadArgument = 2,
  kLocalFile = 3,
  kNotSent = 4,
  kUnexpectedAnswer = 5,
  kNoSpace = 7,
  kNoSuchBucket = 8,
  kNoSuchKey = 9
};

constexpr int kFileNotOpen = -1001;
constexpr int kWriteFailed = -1002;
constexpr int kSystemErrorBase = 1000000;

// What a local file's error number means; the numbers are the same on every system.
CFailure FailureOfFile(int error) {
  switch (error) {
    case 2:
    case 3:
      return {kExitFailed, "the path does not exist", "check it"};
    case 5:
    case 19:
      return {kExitDenied, "the local file or folder does not allow it", "check its permissions"};
    case 32:
      return {kExitFailed, "the file is open in another program", "try again when that is done"};
    case 38:
      return {kExitFailed, "the file became shorter while it was read", "try again when nobody writes it"};
    case 112:
      return {kExitNoSpace, "the local disk is full", "make room, or choose another folder"};
    case 223:
      return {kExitFailed, "the file is too large", "objects are smaller than 4 GiB"};
    default:
      return {kExitFailed, "local file error " + std::to_string(error), ""};
  }
}

// The numbers between the last brackets of "... failed[3:111]." or "... code[404].".
int NumbersOf(const std::string& message, int& first, int& second) {
  const std::size_t bracket = message.rfind('[');
  return bracket == std::string::npos ? 0 : std::sscanf(message.c_str() + bracket, "[%d:%d]", &first, &second);
}

// A status is told by its number alone: the answer's body is in the module's log only.
CFailure FailureOfStatus(int status, const std::string& server) {
  if (status == 404) {
    return {kExitNotFound, "there is no such bucket or object (" + server + ")",
            "'tansy buckets' lists the buckets, 'tansy mb BUCKET' makes one"};
  }
  const char* code = status == 403 ? "AccessDenied" : "";
  return FailureOfAnswer(status, std::string("<Error><Code>") + code + "</Code></Error>", server);
}

}  // namespace
}  // namespace details

CloudStorage::CObjectClient MakeObjectClient(const Settings& settings, const std::string& bucket,
                                             const std::function<void(int percent)>& progress) {
  CloudStorage::SStorageServerConfig config = MakeClientRecord(settings, settings.object_server, bucket);
  if (progress) {
    config.callback = [progress](CloudStorage::UploadProgress now) { progress(now.percent); };
  }
  return CloudStorage::CObjectClient(config);
}

CFailure FailureOfClient(CloudStorage::CObjectClient& client, const std::string& server) {
  int code = 0;
  int second = 0;
  std::string message;
  client.GetLastError(code, second, message);
  int first_number = 0;
  int second_number = 0;
  const int numbers = details::NumbersOf(message, first_number, second_number);
  switch (code) {
    case details::kLocalFile:
      return details::FailureOfFile(numbers > 0 ? first_number : 0);
    case details::kNotSent:
      return FailureOfExchange({first_number, second_number}, server);
    case details::kUnexpectedAnswer:
      if (numbers > 0 && first_number == details::kWriteFailed) {
        return details::FailureOfFile(112);
      }
      if (numbers > 0 && first_number > details::kSystemErrorBase) {
        return details::FailureOfFile(first_number - details::kSystemErrorBase);
      }
      if (numbers == 1 && first_number > 200 && first_number < 600) {
        return details::FailureOfStatus(first_number, server);
      }
      return {kExitFailed, server + " answered something unexpected", "look into the server's log"};
    case details::kNoSpace:
      return FailureOfAnswer(500, "<Error><Code>NotEnoughSpace</Code></Error>", server);
    case details::kNoSuchBucket:
      return FailureOfAnswer(404, "<Error><Code>NoSuchBucket</Code></Error>", server);
    case details::kNoSuchKey:
      return FailureOfAnswer(404, "<Error><Code>NoSuchKey</Code></Error>", server);
    default:
      return {code == details::kBadArgument ? kExitUsage : kExitFailed,
              message.empty() ? server + ": the transfer failed" : Printable(message), ""};
  }
}

}  // namespace Tansy::Cli
