#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "ModuleLog.h"
#include "StorageClient/HostProgress.h"
#include "StorageClient/LocalFileErrors.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/ServerAddress.h"
#include "TansyBase/StringUtil.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint64_t kRangedDownloadFrom = 10485760;
constexpr std::uint64_t kRangeBytes = 1048576;
constexpr std::uint64_t kMaxRangeAnswerBytes = 2 * kRangeBytes;  // enough for one range or for any sensible error body

// These values of the status field are no HTTP status.
constexpr std::int32_t kNoAnswerYet = -1;
constexpr std::int32_t kFileNotOpen = -1001;
constexpr std::int32_t kWriteFailed = -1002;
constexpr std::int32_t kSystemErrorBase = 1000000;

constexpr std::int32_t kErrorNotEnoughMemory = 8;

// This much of an error's body is kept, to read the error's name from it.
constexpr std::size_t kMaxErrorBodyBytes = 4096;

bool IsRedirect(std::int32_t status) {
  return status == 301 || status == 302;
}

// Gives the number of bytes that may be read of a body: never more than was received, whatever length was announced.
std::uint64_t BodyLength(const CHttpClientResponse& rsp) {
  return std::min<std::uint64_t>(rsp.content_length, rsp.body.size());
}

bool Failed(const HttpClient::Error& error) {
  return error.kind != 0 || error.detail != 0;
}

}  // namespace
}  // namespace details

bool CObjectProtoClient::DownloadObject(char** data, unsigned int* size, const std::string& range,
                                        const std::string& url) {
  if (data == nullptr || size == nullptr) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s[%s(%d)]", url.c_str());
    conf_->last_error.Set(ClientError::kBadArgument, "no place for the object.");
    return false;
  }
  SHttpExchange exchange;
  if (!CheckPath(url) || !GetObjectBytes(exchange, url, range, kMaxDownloadBytes)) {
    return false;
  }
  const std::uint64_t length = details::BodyLength(exchange.rsp);
  char* const buffer = new (std::nothrow) char[length + 1];
  if (buffer == nullptr) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s[%s(%d)]", url.c_str());
    exchange.error = {HttpClient::kTooLarge, details::kErrorNotEnoughMemory};
    conf_->last_error.Set(FailureOfSend(exchange, "SendObjectMsg msg failed"));
    return false;
  }
  std::memcpy(buffer, exchange.rsp.body.data(), length);
  buffer[length] = '\0';
  *data = buffer;
  *size = static_cast<unsigned int>(length);
  return true;
}

bool CObjectProtoClient::GetObjectBytes(SHttpExchange& exchange, const std::string& url, const std::string& range,
                                        std::uint64_t max_answer_bytes) {
  if (!SendObjectMsg(exchange, download_base_, url, "GET", "", range, max_answer_bytes)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s[%s(%d)]", url.c_str());
    file_.Close();
    return false;
  }
  if (details::IsRedirect(exchange.rsp.status)) {
    return FollowRedirect(exchange, range, max_answer_bytes);
  }
  if (exchange.rsp.status != kHttpOk) {
    SetDownloadError(exchange);
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s, status code:%d, body:%s[%s(%d)]",
              download_base_.c_str(), exchange.rsp.status, exchange.rsp.body.c_str());
    return false;
  }
  return true;
}

void CObjectProtoClient::SetDownloadError(const SHttpExchange& exchange) {
  if (exchange.rsp.body.find("NoSuchBucket") != std::string::npos) {
    conf_->last_error.Set(FailureOfAnswer(exchange, ClientError::kNoSuchBucket, "NoSuchBucket"));
  } else if (exchange.rsp.body.find("NoSuchKey") != std::string::npos) {
    conf_->last_error.Set(FailureOfAnswer(exchange, ClientError::kNoSuchKey, "NoSuchKey"));
  } else {
    conf_->last_error.Set(FailureOfStatus(exchange, "DownloadObject rsp status code"));
  }
}

bool CObjectProtoClient::FollowRedirect(SHttpExchange& exchange, const std::string& range,
                                        std::uint64_t max_answer_bytes) {
  std::string base;
  std::string path;
  if (!SplitLocation(exchange, exchange.rsp.GetHeader("Location"), base, path)) {
    return false;
  }
  if (!SendObjectMsg(exchange, base, path, "GET", "", range, max_answer_bytes)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s[%s(%d)]",
              (base + path).c_str());
    return false;
  }
  if (exchange.rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send download object failed, redirect url:%s, status code:%d, body:%s[%s(%d)]",
              (base + path).c_str(), exchange.rsp.status, exchange.rsp.body.c_str());
    // The message names the status that was expected; the status that came is in the log line above and in the record.
    conf_->last_error.Set(FailureOfAnswer(exchange, ClientError::kUnexpectedAnswer,
                                          StringUtil::str_fmt("DownloadObject rsp status code[%d].", kHttpOk)));
    return false;
  }
  return true;
}

bool CObjectProtoClient::SplitLocation(const SHttpExchange& exchange, const std::string& location, std::string& base,
                                       std::string& path) {
  const std::string scheme = Scheme(conf_->config);
  const std::size_t start = location.find(scheme);
  const std::size_t slash = start == std::string::npos ? start : location.find('/', start + scheme.size());
  if (slash == std::string::npos) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, invalid new Location:%s[%s(%d)]",
              location.c_str());
    conf_->last_error.Set(FailureOfAnswer(exchange, ClientError::kBadRedirect,
                                          StringUtil::str_fmt("redirect url error[%s].", location.c_str())));
    return false;
  }
  base = location.substr(0, slash);
  path = location.substr(slash);
  return true;
}

bool CObjectProtoClient::DownloadObject(const std::string& local_path, const std::string& url) {
  if (local_path.empty()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s,file part empty.[%s(%d)]", url.c_str());
    conf_->last_error.Set(ClientError::kBadArgument, "file path is empty.");
    return false;
  }
  if (!CheckPath(url)) {
    return false;
  }
  local_path_ = local_path;
  try {
    if (!DownloadIntoFile(url)) {
      return false;
    }
  } catch (...) {
    // A progress function that throws ends the download. The file is closed, so that it is free for another attempt.
    file_.Close();
    throw;
  }
  file_.Close();
  CLOUD_LOG(logging::kNotable, "[%s][Client]download object[%s] success[%s(%d)]", url.c_str());
  return true;
}

bool CObjectProtoClient::DownloadIntoFile(const std::string& url) {
  SObjectVersion version;
  SClientFailure not_told;  // not reported: when the server does not say the size, the object is requested all the same
  GetObjectSize(version, not_told, download_base_, url);
  return version.size < details::kRangedDownloadFrom ? DownloadByStream(url) : DownloadByRanges(url, version);
}

bool CObjectProtoClient::DownloadByStream(const std::string& url) {
  if (!SendStreamRequest(download_base_, url)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s, error[%d,%d][%s(%d)]", url.c_str(),
              stream_.error.kind, stream_.error.detail);
    SetStreamNotSent();
    file_.Close();
    return false;
  }
  if (file_status_ == kHttpOk) {
    return true;
  }
  if (details::IsRedirect(file_status_)) {
    return RedirectStream(url);
  }
  CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s, error[%d][%s(%d)]", url.c_str(),
            file_status_);
  SetStreamStatus();
  file_.Close();
  return false;
}

bool CObjectProtoClient::RedirectStream(const std::string& url) {
  std::string base;
  std::string path;
  if (!SplitLocation(stream_, redirect_location_, base, path)) {
    file_.Close();
    return false;
  }
  file_status_ = details::kNoAnswerYet;
  if (!SendStreamRequest(base, url)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s[%s(%d)]",
              (base + url).c_str());
    SetStreamNotSent();
    file_.Close();
    return false;
  }
  if (file_status_ != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s, status code:%d[%s(%d)]",
              (base + url).c_str(), file_status_);
    SetStreamStatus();
    file_.Close();
    return false;
  }
  return true;
}

void CObjectProtoClient::SetStreamNotSent() {
  conf_->last_error.Set(FailureOfSend(stream_, "Send download big object msg failed"), stream_.error.detail);
}

void CObjectProtoClient::SetStreamStatus() {
  // Whatever happened, GetLastError gives the code 5 and the status field as its second code.
  SLastErrorTexts texts;
  texts.code = ClientError::kUnexpectedAnswer;
  texts.second = file_status_;
  texts.message = StringUtil::str_fmt("DownloadBigObject rsp status code[%d].", file_status_);
  if (file_failure_.code != ClientError::kNone) {
    conf_->last_error.Set(file_failure_, std::move(texts));
  } else {
    conf_->last_error.Set(FailureOfAnswer(stream_, texts.code, texts.message), texts.second);
  }
}

bool CObjectProtoClient::SendStreamRequest(const std::string& base, const std::string& url) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  stream_ = {SignRequest(std::move(parts), base, url)};
  stream_.request.receive_timeout_ms = conf_->receive_timeout_ms;
  stream_.request.send_timeout_ms = conf_->send_timeout_ms;
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", stream_.request.url.c_str());
  const bool sent = HttpClient().SendForBigRsp(
      stream_.request, [this](const CHttpClientResponse& rsp, const char* data, unsigned int size,
                              HttpClient::Error error, bool last) { RecvMsgCallback(rsp, data, size, error, last); });
  return sent && !details::Failed(stream_.error);
}

void CObjectProtoClient::RecvMsgCallback(const CHttpClientResponse& rsp, const char* data, unsigned int len,
                                         HttpClient::Error error, bool last) {
  if (file_status_ == details::kNoAnswerYet) {
    file_status_ = rsp.status;
    stream_.rsp.status = rsp.status;
    total_size_ = HeaderNumber(rsp, "Content-Length");
  }
  if (details::Failed(error)) {
    stream_.error = error;
    return;
  }
  // The field may hold a file error too: the first error counts, and what still arrives after it is dropped.
  if (file_status_ != kHttpOk) {
    if (details::IsRedirect(file_status_)) {
      redirect_location_ = rsp.GetHeader("Location");
    }
    KeepErrorBody(data, len);
    return;
  }
  if (data != nullptr && len > 0) {
    if (written_size_ == 0 && !CreateLocalFile()) {
      return;
    }
    if (!WriteLocalFile(data, len)) {
      return;
    }
  }
  if (last && file_.IsOpen()) {
    file_.Close();
  }
}

void CObjectProtoClient::KeepErrorBody(const char* data, std::size_t size) {
  std::string& body = stream_.rsp.body;
  if (data != nullptr && body.size() < details::kMaxErrorBodyBytes) {
    body.append(data, std::min(size, details::kMaxErrorBodyBytes - body.size()));
  }
}

bool CObjectProtoClient::CreateLocalFile() {
  const std::uint32_t error = file_.OpenAlways(local_path_);
  if (error != 0) {
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, open file failed:%s,%s, error[%d][%s(%d)]", local_path_.c_str(),
              StringUtil::UTF8ToLocal(local_path_).c_str(), error);
    SetFileFailure(details::kSystemErrorBase + static_cast<std::int32_t>(error), "open", error);
    return false;
  }
  return true;
}

bool CObjectProtoClient::WriteLocalFile(const char* data, std::uint32_t size) {
  if (!file_.IsOpen()) {
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, open file failed:%s[%s(%d)]", local_path_.c_str());
    SetFileFailure(details::kFileNotOpen, "write", kErrorInvalidHandle);
    return false;
  }
  std::uint32_t done = 0;
  const std::uint32_t error = file_.Write(data, size, done);
  if (error != 0 || done < size) {
    file_.Close();
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, write failed:%s, error:%d[%s(%d)]", local_path_.c_str(), error);
    SetFileFailure(details::kWriteFailed, "write", error != 0 ? error : kErrorDiskFull);
    return false;
  }
  written_size_ += size;
  ReportDownloadProgress();
  return true;
}

void CObjectProtoClient::SetFileFailure(std::int32_t status, const char* operation, std::uint32_t error) {
  file_status_ = status;
  file_failure_ = FailureOfFile(operation, local_path_, error);
}

void CObjectProtoClient::ReportDownloadProgress() {
  if (total_size_ == 0) {
    return;  // the server announced no length
  }
  const auto percent = static_cast<std::int32_t>(written_size_ * 100 / total_size_);
  if (percent > reported_percent_) {
    reported_percent_ = percent;
    ReportProgress(conf_->config, percent);
  }
}

bool CObjectProtoClient::DownloadByRanges(const std::string& url, const SObjectVersion& version) {
  total_size_ = version.size;
  if (!CreateLocalFile()) {
    conf_->last_error.Set(file_failure_, file_status_);
    return false;
  }
  std::string etag = version.etag;
  bool is_size_pinned = !etag.empty();
  for (std::uint64_t start = 0; start < total_size_; start += details::kRangeBytes) {
    const std::uint64_t end = std::min(start + details::kRangeBytes, total_size_);
    const std::string range = std::to_string(start) + "-" + std::to_string(end);
    SHttpExchange exchange;
    // A range with a bad status or redirect leaves the file open, and the destructor leaves it open too, so the next
    // attempt finds it in use. ObjectClient.h tells callers so, and they rely on it.
    if (!GetObjectBytes(exchange, url, range, details::kMaxRangeAnswerBytes)) {
      return false;
    }
    // A server that is redirected to may name the same version in another way.
    if (start == 0 && (!is_size_pinned || exchange.request.url != download_base_ + url)) {
      etag = exchange.rsp.GetHeader("ETag");
      is_size_pinned = false;
    }
    if (!CheckTag(exchange, etag) || !AppendRange(exchange, end - start)) {
      return false;
    }
  }
  return is_size_pinned || CheckSizeAgain(url);
}

bool CObjectProtoClient::CheckTag(const SHttpExchange& exchange, const std::string& etag) {
  const std::string now = exchange.rsp.GetHeader("ETag");
  if (now == etag) {
    return true;
  }
  file_.Close();
  CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, object changed, tag[%s] instead of [%s][%s(%d)]",
            now.c_str(), etag.c_str());
  conf_->last_error.Set(FailureOfAnswer(exchange, ClientError::kObjectChanged, "object changed while it was read."));
  return false;
}

// Needed when no tag proves that the ranges are of the version whose size was told before them.
bool CObjectProtoClient::CheckSizeAgain(const std::string& url) {
  SObjectVersion version;
  if (!ConfirmVersion(version, download_base_, url)) {
    file_.Close();
    return false;
  }
  if (version.size != total_size_) {
    file_.Close();
    CLOUD_LOG(logging::kError,
              "[%s][Client]send download object failed, object changed, [%llu] bytes instead of [%llu][%s(%d)]",
              static_cast<unsigned long long>(version.size), static_cast<unsigned long long>(total_size_));
    conf_->last_error.Set(ClientError::kObjectChanged, "object changed while it was read.");
    return false;
  }
  return true;
}

bool CObjectProtoClient::AppendRange(const SHttpExchange& exchange, std::uint64_t expected_size) {
  const std::uint64_t length = details::BodyLength(exchange.rsp);
  if (length != expected_size) {
    // After a range of another length, everything behind it would stand at the wrong place of a file that looks whole.
    file_.Close();
    conf_->last_error.Set(FailureOfStatus(exchange, "DownloadObject rsp status code"));
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, range of %llu bytes instead of %llu[%s(%d)]",
              static_cast<unsigned long long>(length), static_cast<unsigned long long>(expected_size));
    return false;
  }
  if (!WriteLocalFile(exchange.rsp.body.data(), static_cast<std::uint32_t>(length))) {
    conf_->last_error.Set(file_failure_, file_status_);
    return false;
  }
  return true;
}

}  // namespace Tansy::CloudStorage
