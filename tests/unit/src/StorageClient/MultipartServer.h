// The server side of multipart uploads, played behind a scripted server: hands out upload ids, keeps parts and puts
// them together.
#ifndef TANSY_TESTS_MULTIPART_SERVER_H
#define TANSY_TESTS_MULTIPART_SERVER_H

#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "TansyBase/GuidUtil.h"
#include "fakes/ScriptedServer.h"

namespace Tansy::CloudStorage {

// Threads: any.
class CMultipartServer {
 public:
  // Decides about a part; status 200 keeps it. Called on the scripted server's threads, several at once.
  using PartHook = std::function<Tests::ScriptedAnswer(int part_number)>;

  // `node` is what a best-node request is told.
  Tests::ScriptedAnswer Answer(const Tests::ScriptedRequest& request, const std::string& node);

  void SetPartHook(PartHook hook);
  void SetFinishAnswer(Tests::ScriptedAnswer answer);
  void SetDelay(int milliseconds);  // of each part's answer
  // Empty: a new one for each upload, see TaskId.
  void UseOneTaskId(const std::string& id);

  // The id of the n-th upload. Clients remember ids as long as the process lives, so no two servers use the same.
  std::string TaskId(int number) const { return prefix_ + std::to_string(number); }
  // `text` with the ids of this server as "task-1", "task-2" and so on.
  std::string WithPlainIds(const std::string& text) const;

  // The parts of an upload in the order of their numbers.
  std::string Content(const std::string& upload_id) const;

 private:
  Tests::ScriptedAnswer AnswerPart(const Tests::ScriptedRequest& request, const std::string& upload_id, int number);

  const std::string prefix_ = TansyBase::GuidUtil::CreateGuid() + "-";
  mutable std::mutex mutex_;
  PartHook hook_;
  Tests::ScriptedAnswer finish_answer_;
  int delay_ms_ = 0;
  std::string one_id_;
  int last_id_ = 0;
  std::map<std::string, std::map<int, std::string>> parts_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_MULTIPART_SERVER_H
