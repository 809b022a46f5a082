#include "MultipartServer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "ObjectClientFixture.h"
#include "TansyBase/StringUtil.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::CloudStorage {

namespace {

void WriteAt(std::string& file, std::size_t offset, const std::string& bytes) {
  file.resize(std::max(file.size(), offset + bytes.size()));
  file.replace(offset, bytes.size(), bytes);
}

}  // namespace

Tests::ScriptedAnswer CMultipartServer::Answer(const Tests::ScriptedRequest& request, const std::string& node) {
  const std::size_t question = request.target.find('?');
  const std::string path = request.target.substr(0, question);
  const std::string query = question == std::string::npos ? "" : request.target.substr(question + 1);
  if (query == "bestnode") {
    return BestNodeAnswer(node);
  }
  if (query == "uploads") {
    const std::lock_guard lock(mutex_);
    return UploadIdAnswer(one_id_.empty() ? TaskId(++last_id_) : one_id_);
  }
  if (query == "metadata") {
    return AnswerMetadata(path);
  }
  const std::string id_key = "upload_id=";
  const std::string number_key = "&part_number=";
  if (!query.starts_with(id_key)) {
    const std::lock_guard lock(mutex_);
    objects_[path] = request.body;  // an object in one request
    return {};
  }
  const std::size_t number = query.find(number_key);
  const std::string upload_id = query.substr(id_key.size(), number - id_key.size());
  if (number == std::string::npos) {
    return AnswerCompletion(request, path, upload_id);
  }
  return AnswerPart(request, upload_id, std::atoi(query.c_str() + number + number_key.size()));
}

Tests::ScriptedAnswer CMultipartServer::AnswerPart(const Tests::ScriptedRequest& request, const std::string& upload_id,
                                                   int number) {
  if (request.body.empty()) {
    return ErrorAnswer(400, "InvalidHttpContent");
  }
  PartHook hook;
  {
    const std::lock_guard lock(mutex_);
    hook = hook_;
  }
  Tests::ScriptedAnswer answer = hook ? hook(number) : Tests::ScriptedAnswer{};
  const std::lock_guard lock(mutex_);
  if (answer.status == 200) {
    Store(uploads_[upload_id], number, request.body);
  }
  answer.delay_ms = delay_ms_;
  return answer;
}

void CMultipartServer::Store(Upload& upload, int number, const std::string& body) {
  upload.sizes[number] = body.size();
  if (upload.first_number == 0 || number == upload.first_number) {
    upload.first_number = number;
    upload.first = body;
    return;
  }
  if (upload.part_size == 0) {
    upload.part_size = number < upload.first_number ? body.size() : upload.first.size();
  }
  WriteAt(upload.stored, static_cast<std::size_t>(number - 1) * upload.part_size, body);
}

Tests::ScriptedAnswer CMultipartServer::AnswerCompletion(const Tests::ScriptedRequest& request, const std::string& path,
                                                         const std::string& upload_id) {
  const std::lock_guard lock(mutex_);
  if (finish_answer_.status != 200) {
    return finish_answer_;
  }
  Upload& upload = uploads_[upload_id];
  if (!Complete(upload, request.body)) {
    return ErrorAnswer(400, "InvalidXmlContent");
  }
  objects_[path] = upload.object;
  return finish_answer_;
}

bool CMultipartServer::Complete(Upload& upload, const std::string& body) {
  TansyProto::CXmlProto xml;
  const bool readable = xml.Parse(body);
  const std::int64_t total = xml.GetInt("/CompleteMultipartUpload/TotalPartNum", 0);
  std::size_t size = 0;
  for (std::int64_t i = 1; i <= total; ++i) {
    const std::string part = "/CompleteMultipartUpload/Part[" + std::to_string(i) + "]";
    const auto known = upload.sizes.find(static_cast<int>(xml.GetInt(part + "/PartNumber", -1)));
    if (known == upload.sizes.end() || known->second != static_cast<std::size_t>(xml.GetInt(part + "/PartSize", -1))) {
      return false;
    }
    size += known->second;
  }
  if (!readable || total < 1) {
    return false;
  }
  WriteAt(upload.stored, static_cast<std::size_t>(upload.first_number - 1) * upload.part_size, upload.first);
  upload.object = upload.stored;
  upload.object.resize(size);
  return true;
}

Tests::ScriptedAnswer CMultipartServer::AnswerMetadata(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  if (has_metadata_answer_) {
    return metadata_answer_;
  }
  const auto object = objects_.find(path);
  if (object == objects_.end()) {
    return ErrorAnswer(404, "NoSuchKey");
  }
  return {.headers = {{"Object-Size", std::to_string(object->second.size())}}};
}

void CMultipartServer::SetPartHook(PartHook hook) {
  const std::lock_guard lock(mutex_);
  hook_ = std::move(hook);
}

void CMultipartServer::SetFinishAnswer(Tests::ScriptedAnswer answer) {
  const std::lock_guard lock(mutex_);
  finish_answer_ = std::move(answer);
}

void CMultipartServer::SetDelay(int milliseconds) {
  const std::lock_guard lock(mutex_);
  delay_ms_ = milliseconds;
}

void CMultipartServer::UseOneTaskId(const std::string& id) {
  const std::lock_guard lock(mutex_);
  one_id_ = id;
}

std::string CMultipartServer::WithPlainIds(const std::string& text) const {
  return TansyBase::StringUtil::StringReplace(text, prefix_, "task-");
}

std::string CMultipartServer::Content(const std::string& upload_id) const {
  const std::lock_guard lock(mutex_);
  const auto upload = uploads_.find(upload_id);
  return upload == uploads_.end() ? std::string() : upload->second.object;
}

std::string CMultipartServer::Object(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto object = objects_.find(path);
  return object == objects_.end() ? std::string() : object->second;
}

void CMultipartServer::SetMetadataAnswer(Tests::ScriptedAnswer answer) {
  const std::lock_guard lock(mutex_);
  metadata_answer_ = std::move(answer);
  has_metadata_answer_ = true;
}

}  // namespace Tansy::CloudStorage
