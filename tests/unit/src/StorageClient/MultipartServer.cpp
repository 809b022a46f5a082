#include "MultipartServer.h"

#include <cstdlib>
#include <utility>

#include "ObjectClientFixture.h"
#include "TansyBase/StringUtil.h"

namespace Tansy::CloudStorage {

Tests::ScriptedAnswer CMultipartServer::Answer(const Tests::ScriptedRequest& request, const std::string& node) {
  const std::size_t question = request.target.find('?');
  const std::string query = question == std::string::npos ? "" : request.target.substr(question + 1);
  if (query == "bestnode") {
    return BestNodeAnswer(node);
  }
  if (query == "uploads") {
    const std::lock_guard lock(mutex_);
    return UploadIdAnswer(one_id_.empty() ? TaskId(++last_id_) : one_id_);
  }
  const std::string id_key = "upload_id=";
  const std::string number_key = "&part_number=";
  if (!query.starts_with(id_key)) {
    return {};  // an object in one request
  }
  const std::size_t number = query.find(number_key);
  const std::string upload_id = query.substr(id_key.size(), number - id_key.size());
  if (number == std::string::npos) {
    const std::lock_guard lock(mutex_);
    return finish_answer_;
  }
  return AnswerPart(request, upload_id, std::atoi(query.c_str() + number + number_key.size()));
}

Tests::ScriptedAnswer CMultipartServer::AnswerPart(const Tests::ScriptedRequest& request, const std::string& upload_id,
                                                   int number) {
  PartHook hook;
  {
    const std::lock_guard lock(mutex_);
    hook = hook_;
  }
  Tests::ScriptedAnswer answer = hook ? hook(number) : Tests::ScriptedAnswer{};
  const std::lock_guard lock(mutex_);
  if (answer.status == 200) {
    parts_[upload_id][number] = request.body;
  }
  answer.delay_ms = delay_ms_;
  return answer;
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
  std::string content;
  if (const auto parts = parts_.find(upload_id); parts != parts_.end()) {
    for (const auto& [number, part] : parts->second) {
      content += part;
    }
  }
  return content;
}

}  // namespace Tansy::CloudStorage
