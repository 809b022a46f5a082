// A server of a run: the real one as a process of its own, or one with a planted defect. Several of them may serve one
// catalogue.
#ifndef TANSY_TESTS_PROVE_MODEL_SERVER_H
#define TANSY_TESTS_PROVE_MODEL_SERVER_H

#include <cstdint>
#include <string>

#include "support/Http.h"

namespace prove {

class IServer {
 public:
  virtual ~IServer() = default;

  // Starts it, also again after its end; true when it serves.
  virtual bool Start() = 0;
  virtual void Kill() = 0;
  // Ends it in an orderly way; false when that does not succeed.
  virtual bool Stop() = 0;
  virtual std::uint16_t GetObjectPort() const = 0;
  virtual std::uint16_t GetPicturePort() const = 0;
  virtual std::uint16_t GetS3Port() const = 0;
  // How connections to all ports are made.
  virtual system_tests::ConnectOptions GetConnectOptions() const { return {}; }

  // What no request can do. The time of day is the machine's and this number of seconds, from now on and at the next
  // start.
  virtual void SetClock(std::int64_t seconds) = 0;
  // "done", "refused" or, when the server ended meanwhile, "".
  virtual std::string RemoveBucket(const std::string& name) = 0;
  virtual std::string RenameBucket(const std::string& name, const std::string& new_name) = 0;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_SERVER_H
