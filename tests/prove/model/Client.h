// One client of a run: it does what the plan says and writes down what it sees.
#ifndef TANSY_TESTS_PROVE_MODEL_CLIENT_H
#define TANSY_TESTS_PROVE_MODEL_CLIENT_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Plan.h"
#include "World.h"
#include "support/Http.h"

namespace prove {

class CClient {
 public:
  CClient(CWorld& world, int number) : world_(world), number_(number) {}

  // Does the steps, those first that were left of the last call's uploads, until the server's end cuts them off.
  void Run(const std::vector<Step>& steps);

  // Finds out under which name a server that has just started has the passing bucket.
  void FindPassingBucket();
  // Reads every key of these buckets, and every picture (of many, some).
  void LookAtEverything(const std::vector<std::string>& buckets);

 private:
  enum class EState { kAnswered, kUnknown, kNotSent };
  struct Answer {
    EState state = EState::kNotSent;
    system_tests::Reply reply;
    std::int64_t begun = 0;
    std::int64_t ended = 0;

    bool Is(int status) const { return state == EState::kAnswered && reply.status == status; }
  };
  struct Upload {
    std::string id;
    std::int64_t least_clock = 0;  // the seconds by which the clock was off when its rows were written, the least
    bool may_be_swept = false;     // a server was started with a clock that makes the upload old
    bool may_be_complete = false;  // a completion had no answer
  };

  bool Do(const Step& step);
  bool Put(const Step& step);
  bool PutRefused(const Step& step);
  bool PutBrokenOff(const Step& step);
  bool Get(const Step& step);
  bool GetRange(const Step& step);
  bool GetSize(const Step& step);
  bool Remove(const Step& step, bool with_bytes);
  bool BeginUpload(const Step& step);
  bool SendPart(const Step& step);
  bool EndUpload(const Step& step);
  bool PutPicture(const Step& step);
  bool GetPicture(const Picture& picture);
  bool MakeBucket();
  bool AskBucket(const std::string& name, bool& is_there);
  bool RemoveBucket();
  bool RenameBucket(Version version);
  void AgeUploads();

  // Sends a signed request; what a healthy server does not do is a fault, unless the server is being ended.
  Answer Ask(const system_tests::Request& request, bool may_fail = false);
  Answer AskForPicture(const system_tests::Request& request);
  Answer Receive(std::unique_ptr<system_tests::CConnection>& connection, std::uint16_t port,
                 const system_tests::Request& request, bool may_fail);
  void Fault(const system_tests::Request& request, const std::string& what);

  void Note(const Answer& answer, const std::string& key, EKind kind, Version version);
  // What an answer about an object says of its bucket, and of the object when there is no bucket. True when there is
  // nothing more to learn from it.
  bool NoteBucket(const Answer& answer, const Step& step);
  // A read that gave bytes.
  void NoteBytes(const Answer& answer, const Step& step, std::uint64_t begin, std::uint64_t end);
  std::string Target(const Step& step) const;

  CWorld& world_;
  const int number_;
  std::unique_ptr<system_tests::CConnection> connection_;
  std::map<std::uint64_t, Upload> uploads_;
  std::vector<Step> left_;  // of uploads that were cut off
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_CLIENT_H
