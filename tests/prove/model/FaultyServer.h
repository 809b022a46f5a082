// A server with one planted defect, for the proof that a run finds it: objects in memory, on a port of this process.
#ifndef TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H
#define TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Server.h"

namespace prove {

enum class EDefect {
  kNone,
  kAnswerBeforeCommit,  // some writes are answered before they would survive the server's end
  kStaleRead,           // some reads of an object that was replaced give the old one
  kLostUpdate,          // some writes over an object are answered and not stored
  kMixedVersions,       // some reads of an object that is being replaced give the beginning of the old one
  kLostWakeUp,          // some requests are never answered
  kForgottenRemoval,    // some removed objects are there again after the next start
};

class CFaultyServer : public IServer {
 public:
  explicit CFaultyServer(EDefect defect) : defect_(defect) {}
  ~CFaultyServer() override { Kill(); }

  bool Start() override;
  void Kill() override;
  bool Stop() override;
  std::uint16_t GetObjectPort() const override { return port_; }
  std::uint16_t GetPicturePort() const override { return 0; }
  void SetClock(std::int64_t) override {}
  std::string RemoveBucket(const std::string&) override { return "refused"; }
  std::string RenameBucket(const std::string&, const std::string&) override { return "refused"; }

 private:
  using Bytes = std::shared_ptr<const std::string>;
  using Objects = std::map<std::string, Bytes>;
  struct Asked {
    std::string method;
    std::string path;
    std::string query;
    std::string range;
    std::string body;
  };

  void Listen();
  void Serve(int socket);
  static bool ReadRequest(int socket, std::string& pending, Asked& asked);
  // The whole answer; empty: none.
  std::string Answer(const Asked& asked);
  std::string Put(const Asked& asked);
  std::string Get(const Asked& asked);
  std::string Remove(const Asked& asked);
  bool IsNow(EDefect defect, int one_in);
  void Commit(const std::string& path);

  const EDefect defect_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  std::thread acceptor_;

  std::mutex mutex_;  // for what follows
  std::vector<int> sockets_;
  std::vector<std::thread> threads_;
  Objects objects_;
  Objects replaced_;  // what each object was before
  Objects durable_;   // what the next start finds
  int counter_ = 0;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H
