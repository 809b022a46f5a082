#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "ModuleLog.h"
#include "StorageClient/ObjectProtoClient.h"
#include "TansyBase/StringUtil.h"

using TansyBase::StringUtil;
using TansyNet::CHttpClientRequest;
using TansyNet::CHttpClientResponse;
using TansyNet::HttpClient;

namespace Tansy::CloudStorage {

namespace details {
namespace {

constexpr std::uint64_t kRangedDownloadFrom = 10485760;
constexpr std::uint64_t kRangeBytes = 1048576;
constexpr std::uint64_t kMaxRangeAnswerBytes = 2 * kRangeBytes;  // one range, or an error body of any sensible length

// Values of the status field that are no HTTP status.
constexpr std::int32_t kNoAnswerYet = -1;
constexpr std::int32_t kFileNotOpen = -1001;
constexpr std::int32_t kWriteFailed = -1002;
constexpr std::int32_t kSystemErrorBase = 1000000;

constexpr std::int32_t kErrorNotEnoughMemory = 8;

bool IsRedirect(std::int32_t status) {
  return status == 301 || status == 302;
}

// The number at the start of a header's value; 0 when there is none or it is negative.
std::uint64_t HeaderNumber(const CHttpClientResponse& rsp, const std::string& name) {
  const std::string value = rsp.GetHeader(name);
  const long long number = std::strtoll(value.c_str(), nullptr, 10);
  return number > 0 ? static_cast<std::uint64_t>(number) : 0;
}

// What may be read of a body: never more than was received, whatever length was announced.
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
  CHttpClientResponse rsp;
  if (!GetObjectBytes(rsp, url, range, kMaxDownloadBytes)) {
    return false;
  }
  const std::uint64_t length = details::BodyLength(rsp);
  char* const buffer = new (std::nothrow) char[length + 1];
  if (buffer == nullptr) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s[%s(%d)]", url.c_str());
    conf_->last_error.Set(
        ClientError::kNotSent,
        StringUtil::str_fmt("SendObjectMsg msg failed[%d:%d].", HttpClient::kTooLarge, details::kErrorNotEnoughMemory));
    return false;
  }
  std::memcpy(buffer, rsp.body.data(), length);
  buffer[length] = '\0';
  *data = buffer;
  *size = static_cast<unsigned int>(length);
  return true;
}

bool CObjectProtoClient::GetObjectBytes(CHttpClientResponse& rsp, const std::string& url, const std::string& range,
                                        std::uint64_t max_answer_bytes) {
  if (!SendObjectMsg(rsp, download_base_, url, "GET", "", range, max_answer_bytes)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s[%s(%d)]", url.c_str());
    if (file_.IsOpen()) {
      file_.Close();
    }
    return false;
  }
  if (details::IsRedirect(rsp.status)) {
    return FollowRedirect(rsp, range, max_answer_bytes);
  }
  if (rsp.status != kHttpOk) {
    SetDownloadError(rsp);
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s, status code:%d, body:%s[%s(%d)]",
              download_base_.c_str(), rsp.status, rsp.body.c_str());
    return false;
  }
  return true;
}

void CObjectProtoClient::SetDownloadError(const CHttpClientResponse& rsp) {
  if (rsp.body.find("NoSuchBucket") != std::string::npos) {
    conf_->last_error.Set(ClientError::kNoSuchBucket, "NoSuchBucket");
  } else if (rsp.body.find("NoSuchKey") != std::string::npos) {
    conf_->last_error.Set(ClientError::kNoSuchKey, "NoSuchKey");
  } else {
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("DownloadObject rsp status code[%d].", rsp.status));
  }
}

bool CObjectProtoClient::FollowRedirect(CHttpClientResponse& rsp, const std::string& range,
                                        std::uint64_t max_answer_bytes) {
  std::string base;
  std::string path;
  if (!SplitLocation(rsp.GetHeader("Location"), base, path)) {
    return false;
  }
  rsp = {};
  if (!SendObjectMsg(rsp, base, path, "GET", "", range, max_answer_bytes)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s[%s(%d)]",
              (base + path).c_str());
    return false;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError,
              "[%s][Client]send download object failed, redirect url:%s, status code:%d, body:%s[%s(%d)]",
              (base + path).c_str(), rsp.status, rsp.body.c_str());
    // The message names the status that was wanted; the one that came is in the line above.
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("DownloadObject rsp status code[%d].", kHttpOk));
    return false;
  }
  return true;
}

bool CObjectProtoClient::SplitLocation(const std::string& location, std::string& base, std::string& path) {
  const std::string scheme = conf_->config.is_https ? "https://" : "http://";
  const std::size_t start = location.find(scheme);
  const std::size_t slash = start == std::string::npos ? start : location.find('/', start + scheme.size());
  if (slash == std::string::npos) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, invalid new Location:%s[%s(%d)]",
              location.c_str());
    conf_->last_error.Set(ClientError::kBadRedirect, StringUtil::str_fmt("redirect url error[%s].", location.c_str()));
    return false;
  }
  base = location.substr(0, slash);
  path = location.substr(slash);
  return true;
}

bool CObjectProtoClient::DownloadObject(const std::string& local_path, const std::string& url) {
  if (local_path.empty()) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s,file part empty.[%s(%d)]", url.c_str());
    return false;
  }
  local_path_ = local_path;
  total_size_ = GetObjectSize(url);
  const bool downloaded = total_size_ < details::kRangedDownloadFrom ? DownloadByStream(url) : DownloadByRanges(url);
  if (!downloaded) {
    return false;
  }
  file_.Close();
  CLOUD_LOG(logging::kNotable, "[%s][Client]download object[%s] success[%s(%d)]", url.c_str());
  return true;
}

std::uint64_t CObjectProtoClient::GetObjectSize(const std::string& url) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  parts.content_type = kXmlContentType;
  const CHttpClientRequest request = SignRequest(std::move(parts), download_base_, url + "?metadata");
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());

  CHttpClientResponse rsp;
  HttpClient::Error error;
  if (!HttpClient().Send(request, &rsp, &error)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send get metadata failed, error[%d:%d][%s(%d)]", error.kind, error.detail);
    return 0;
  }
  if (rsp.status != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]get best node failed, error[%d:%s][%s(%d)]", rsp.status, rsp.body.c_str());
    return 0;
  }
  return details::HeaderNumber(rsp, "Object-Size");
}

bool CObjectProtoClient::DownloadByStream(const std::string& url) {
  if (!SendStreamRequest(download_base_, url)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, url:%s, error[%d,%d][%s(%d)]", url.c_str(),
              stream_error_.kind, stream_error_.detail);
    conf_->last_error.Set(
        ClientError::kNotSent, stream_error_.detail,
        StringUtil::str_fmt("Send download big object msg failed[%d:%d].", stream_error_.kind, stream_error_.detail));
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
  const std::string message = StringUtil::str_fmt("DownloadBigObject rsp status code[%d].", file_status_);
  if (file_status_ < 0) {
    conf_->last_error.Set(ClientError::kLocalFile, file_status_, message);
  }
  // Replaces the one above in every case: callers see 5, and what happened in the second code.
  conf_->last_error.Set(ClientError::kUnexpectedAnswer, file_status_, message);
  file_.Close();
  return false;
}

bool CObjectProtoClient::RedirectStream(const std::string& url) {
  std::string base;
  std::string path;
  if (!SplitLocation(redirect_location_, base, path)) {
    file_.Close();
    return false;
  }
  file_status_ = details::kNoAnswerYet;
  if (!SendStreamRequest(base, url)) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s[%s(%d)]",
              (base + url).c_str());
    conf_->last_error.Set(
        ClientError::kNotSent, stream_error_.detail,
        StringUtil::str_fmt("Send download big object msg failed[%d:%d].", stream_error_.kind, stream_error_.detail));
    file_.Close();
    return false;
  }
  if (file_status_ != kHttpOk) {
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, redirect url:%s, status code:%d[%s(%d)]",
              (base + url).c_str(), file_status_);
    conf_->last_error.Set(ClientError::kUnexpectedAnswer, file_status_,
                          StringUtil::str_fmt("DownloadBigObject rsp status code[%d].", file_status_));
    file_.Close();
    return false;
  }
  return true;
}

bool CObjectProtoClient::SendStreamRequest(const std::string& base, const std::string& url) {
  SRequestParts parts;
  parts.method = "GET";
  parts.host = host_;
  CHttpClientRequest request = SignRequest(std::move(parts), base, url);
  request.receive_timeout_ms = conf_->receive_timeout_ms;
  request.send_timeout_ms = conf_->send_timeout_ms;
  CLOUD_LOG(logging::kTrace, "[%s][Client]send url[%s][%s(%d)]", request.url.c_str());
  const bool sent = HttpClient().SendForBigRsp(
      request, [this](const CHttpClientResponse& rsp, const char* data, unsigned int size, HttpClient::Error error,
                      bool last) { RecvMsgCallback(rsp, data, size, error, last); });
  return sent && !details::Failed(stream_error_);
}

void CObjectProtoClient::RecvMsgCallback(const CHttpClientResponse& rsp, const char* data, unsigned int len,
                                         HttpClient::Error error, bool last) {
  if (file_status_ == details::kNoAnswerYet) {
    file_status_ = rsp.status;
    total_size_ = details::HeaderNumber(rsp, "Content-Length");
  }
  if (details::Failed(error)) {
    stream_error_ = error;
    return;
  }
  // A file error stands here too: the first one counts, and what still arrives after it is dropped.
  if (file_status_ != kHttpOk) {
    if (details::IsRedirect(file_status_)) {
      redirect_location_ = rsp.GetHeader("Location");
    }
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

bool CObjectProtoClient::CreateLocalFile() {
  const std::uint32_t error = file_.OpenAlways(local_path_);
  if (error != 0) {
    file_status_ = details::kSystemErrorBase + static_cast<std::int32_t>(error);
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, open file failed:%s,%s, error[%d][%s(%d)]", local_path_.c_str(),
              StringUtil::UTF8ToLocal(local_path_).c_str(), error);
    return false;
  }
  return true;
}

bool CObjectProtoClient::WriteLocalFile(const char* data, std::uint32_t size) {
  if (!file_.IsOpen()) {
    file_status_ = details::kFileNotOpen;
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, open file failed:%s[%s(%d)]", local_path_.c_str());
    return false;
  }
  std::uint32_t done = 0;
  const std::uint32_t error = file_.Write(data, size, done);
  if (error != 0 || done < size) {
    file_.Close();
    file_status_ = details::kWriteFailed;
    CLOUD_LOG(logging::kError, "[%s][Client]recv file, write failed:%s, error:%d[%s(%d)]", local_path_.c_str(), error);
    return false;
  }
  written_size_ += size;
  ReportDownloadProgress();
  return true;
}

void CObjectProtoClient::ReportDownloadProgress() {
  if (total_size_ == 0) {
    return;  // a length that nobody announced
  }
  const auto percent = static_cast<std::int32_t>(written_size_ * 100 / total_size_);
  if (percent > reported_percent_) {
    reported_percent_ = percent;
    ReportProgress(conf_->config, percent);
  }
}

bool CObjectProtoClient::DownloadByRanges(const std::string& url) {
  if (!CreateLocalFile()) {
    return false;
  }
  const std::uint64_t chunks = total_size_ / details::kRangeBytes + (total_size_ % details::kRangeBytes != 0 ? 1 : 0);
  for (std::uint64_t i = 0; i < chunks; ++i) {
    const std::uint64_t start = i * details::kRangeBytes;
    const std::uint64_t end = std::min(start + details::kRangeBytes, total_size_);
    CHttpClientResponse rsp;
    // An answer with a bad status or redirect leaves the file open, as does the end of this object: an attempt that
    // follows finds it held.
    if (!GetObjectBytes(rsp, url, std::to_string(start) + "-" + std::to_string(end), details::kMaxRangeAnswerBytes) ||
        !AppendRange(rsp, end - start)) {
      return false;
    }
  }
  return true;
}

bool CObjectProtoClient::AppendRange(const CHttpClientResponse& rsp, std::uint64_t expected_size) {
  const std::uint64_t length = details::BodyLength(rsp);
  if (length != expected_size) {
    // Everything behind a range of another length would stand at the wrong place of a file that looks whole.
    file_.Close();
    conf_->last_error.Set(ClientError::kUnexpectedAnswer,
                          StringUtil::str_fmt("DownloadObject rsp status code[%d].", rsp.status));
    CLOUD_LOG(logging::kError, "[%s][Client]send download object failed, range of %llu bytes instead of %llu[%s(%d)]",
              static_cast<unsigned long long>(length), static_cast<unsigned long long>(expected_size));
    return false;
  }
  return WriteLocalFile(rsp.body.data(), static_cast<std::uint32_t>(length));
}

}  // namespace Tansy::CloudStorage
