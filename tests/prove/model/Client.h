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
  // Reads every key of these buckets at every node, and every picture (of many, some).
  void LookAtEverything(const std::vector<std::string>& buckets);

 private:
  enum class EState { kAnswered, kUnknown, kNotSent };
  enum class EDoor { kObjects, kPictures, kS3 };
  struct Place {
    int node = 0;
    EDoor door = EDoor::kObjects;

    friend auto operator<=>(const Place&, const Place&) = default;
  };
  struct Connection {
    std::unique_ptr<system_tests::CConnection> open;
    int life = 0;  // of the node, when it was opened
  };
  struct Answer {
    EState state = EState::kNotSent;
    int node = 0;
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
    std::map<std::size_t, std::string> tags = {};  // of the parts that S3 has taken
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
  bool GetPicture(const Picture& picture, int node);
  bool MakeBucket();
  bool AskBucket(const std::string& name, bool& is_there);
  bool RemoveBucket();
  bool RenameBucket(Version version);
  void AgeUploads();
  bool PutByS3(const Step& step);
  bool PutNew(const Step& step);
  bool PutSame(const Step& step);
  bool GetByS3(const Step& step);
  bool GetRangeByS3(const Step& step);
  bool RemoveByS3(const Step& step);
  bool RemoveMany(const Step& step);
  bool List(const Step& step);
  bool Copy(const Step& step);
  bool BeginUploadByS3(const Step& step);
  bool SendPartByS3(const Step& step);
  bool EndUploadByS3(const Step& step);
  bool AbortUpload(const Step& step);

  // Sends a signed request; what a healthy server does not do is a fault, unless the server is being ended.
  Answer Ask(const system_tests::Request& request, int node = 0, bool may_fail = false);
  Answer AskForPicture(const system_tests::Request& request, int node);
  Answer AskS3(const system_tests::Request& request, int node, bool may_fail = false);
  Answer Receive(const Place& place, const system_tests::Request& request, bool may_fail);
  std::uint16_t PortOf(const Place& place);
  // Says whether a node was being ended, or ended and started again, since it had this life.
  bool IsExcused(int node, int life) const;
  // `life`: that of the node when the request was sent.
  void Fault(const Place& place, int life, const system_tests::Request& request, const std::string& what);
  // Writes a version down that a request is about to send.
  void Announce(const std::string& key, const Recipe& recipe);
  // What is wrong with an answer that is none of those that it may be.
  void Surprise(const Answer& answer, const std::string& what);
  // Reads by S3 and notes what was there. False: there was nothing, or no answer.
  bool FindTag(const Step& step, const std::string& key, std::string& tag, Version& version, bool& is_answered);

  void Note(const Answer& answer, const std::string& key, EKind kind, Version version);
  void Note(const Answer& answer, const Operation& operation);
  // What an answer about an object says of its bucket, and of the object when there is no bucket. True when there is
  // nothing more to learn from it.
  bool NoteBucket(const Answer& answer, const Step& step);
  // A read that gave bytes. Says which version they belong to.
  Version NoteBytes(const Answer& answer, const std::string& key, std::uint64_t begin, std::uint64_t end);
  std::string Target(const Step& step) const;
  int NodeOf(const Step& step) const { return static_cast<int>(step.place) % world_.GetNodes(); }

  CWorld& world_;
  const int number_;
  std::map<Place, Connection> connections_;
  bool was_busy_ = false;  // the last answer said that the node cannot know
  std::map<std::uint64_t, Upload> uploads_;
  std::vector<Step> left_;  // of uploads that were cut off
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_CLIENT_H
