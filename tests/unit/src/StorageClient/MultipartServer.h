// The server side of multipart uploads, played behind a scripted server: hands out upload ids, stores parts where a
// real server does and answers for the objects that come of them.
#ifndef TANSY_TESTS_MULTIPART_SERVER_H
#define TANSY_TESTS_MULTIPART_SERVER_H

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "TansyBase/GuidUtil.h"
#include "fakes/ScriptedServer.h"

namespace Tansy::CloudStorage {

// A real server learns the size of parts from the first two that arrive: it is that of the one with the lower number.
// The first one waits until the completion; every other one is written at (number - 1) times that size, over whatever
// is there. The object is as long as the parts that the completion names are together.
//
// Threads: any.
class CMultipartServer {
 public:
  // Decides about a part; status 200 keeps it. The scripted server calls it on several threads at once.
  using PartHook = std::function<Tests::ScriptedAnswer(int part_number)>;

  // `node` is what a best-node request is told.
  Tests::ScriptedAnswer Answer(const Tests::ScriptedRequest& request, const std::string& node);

  void SetPartHook(PartHook hook);
  void SetFinishAnswer(Tests::ScriptedAnswer answer);
  void SetDelay(int milliseconds);  // of each part's answer
  // Sets the id of the next uploads. When it is empty, each upload gets a new id, see TaskId.
  void UseOneTaskId(const std::string& id);

  // The id of the n-th upload. Clients remember ids as long as the process lives, so no two servers use the same.
  std::string TaskId(int number) const { return prefix_ + std::to_string(number); }
  // `text` with the ids of this server as "task-1", "task-2" and so on.
  std::string WithPlainIds(const std::string& text) const;

  // The object that came of an upload; empty before its completion.
  std::string Content(const std::string& upload_id) const;
  // The object at a path such as "/pool/key"; empty when there is none.
  std::string Object(const std::string& path) const;
  // Lets the server answer this instead of the size of an object.
  void SetMetadataAnswer(Tests::ScriptedAnswer answer);

 private:
  struct Upload {
    std::map<int, std::size_t> sizes;  // of the parts, by number
    int first_number = 0;              // of the part that waits; 0 before it comes
    std::string first;
    std::size_t part_size = 0;  // 0 before it is known
    std::string stored;
    std::string object;
  };

  Tests::ScriptedAnswer AnswerPart(const Tests::ScriptedRequest& request, const std::string& upload_id, int number);
  Tests::ScriptedAnswer AnswerCompletion(const Tests::ScriptedRequest& request, const std::string& path,
                                         const std::string& upload_id);
  Tests::ScriptedAnswer AnswerMetadata(const std::string& path) const;
  static void Store(Upload& upload, int number, const std::string& body);
  static bool Complete(Upload& upload, const std::string& body);

  const std::string prefix_ = TansyBase::GuidUtil::CreateGuid() + "-";
  mutable std::mutex mutex_;
  PartHook hook_;
  Tests::ScriptedAnswer finish_answer_;
  int delay_ms_ = 0;
  std::string one_id_;
  int last_id_ = 0;
  std::map<std::string, Upload> uploads_;
  std::map<std::string, std::string> objects_;  // by path
  Tests::ScriptedAnswer metadata_answer_;
  bool has_metadata_answer_ = false;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_TESTS_MULTIPART_SERVER_H
