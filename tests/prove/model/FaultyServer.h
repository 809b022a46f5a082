// A server with one planted defect, for the proof that a run finds it: objects in memory, on a port of this process.
#ifndef TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H
#define TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H

#include <chrono>
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
  kConditionIgnored,    // some writes under a condition are done although it is not met
  // Of nodes:
  kOldMemory,          // some objects are read as they were, whatever other nodes have stored meanwhile
  kNewOneNotFound,     // a node remembers for a while that there was nothing
  kOwnWriteForgotten,  // a node goes on with what it remembers of an object after it has stored another one
};

// What one server has, or several nodes have together. Any thread.
class CFaultyStore {
 public:
  using Bytes = std::shared_ptr<const std::string>;
  using Objects = std::map<std::string, Bytes>;

  explicit CFaultyStore(EDefect planted) : defect(planted) {}

  // True once in so many times, for the defect that is planted.
  bool IsNow(EDefect asked, int one_in) { return asked == defect && ++counter % one_in == 0; }
  void Commit(const std::string& path);

  const EDefect defect;
  std::mutex mutex;  // for what follows
  Objects objects;
  Objects replaced;  // what each object was before
  Objects durable;   // what the next start finds
  int counter = 0;
};

class CFaultyServer : public IServer {
 public:
  // `is_node`: it remembers what it has read, and may be behind what others have stored for a moment.
  explicit CFaultyServer(CFaultyStore& store, bool is_node = false) : store_(store), is_node_(is_node) {}
  ~CFaultyServer() override { Kill(); }

  bool Start() override;
  void Kill() override;
  bool Stop() override;
  std::uint16_t GetObjectPort() const override { return port_; }
  std::uint16_t GetPicturePort() const override { return 0; }
  std::uint16_t GetS3Port() const override { return port_; }
  void SetClock(std::int64_t) override {}
  std::string RemoveBucket(const std::string&) override { return "refused"; }
  std::string RenameBucket(const std::string&, const std::string&) override { return "refused"; }

 private:
  using Bytes = CFaultyStore::Bytes;
  // What a node knows of an object.
  struct Remembered {
    Bytes bytes;
    std::chrono::steady_clock::time_point since;
  };
  struct Asked {
    std::string method;
    std::string path;
    std::string query;
    std::string range;
    std::string if_match;
    bool if_new = false;
    bool is_s3 = false;
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
  bool IsMet(const Asked& asked);
  // What the server takes the object for; null: for nothing.
  Bytes Find(const std::string& path);
  void Remember(const std::string& path, const Bytes& bytes);

  CFaultyStore& store_;
  const bool is_node_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  std::thread acceptor_;

  std::mutex mutex_;  // for what follows
  std::vector<int> sockets_;
  std::vector<std::thread> threads_;

  std::map<std::string, Remembered> memory_;  // with the store's mutex
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_FAULTY_SERVER_H
