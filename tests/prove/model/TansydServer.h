// The real server: a tansyd of this build on a folder of its own.
#ifndef TANSY_TESTS_PROVE_MODEL_TANSYD_SERVER_H
#define TANSY_TESTS_PROVE_MODEL_TANSYD_SERVER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Server.h"
#include "support/Tansyd.h"

namespace prove {

struct TansydOptions {
  std::vector<std::string> arguments;  // of tansyd
  std::string program;                 // a tansyd_with_control; empty: that of this build
  bool tls = false;                    // clients use HTTPS
  std::string node;                    // the name of one of several; empty: it is alone
};

class CTansydServer : public IServer {
 public:
  // Works in `folder`.
  CTansydServer(const std::string& folder, const TansydOptions& options);

  bool Start() override;
  void Kill() override { tansyd_.Kill(); }
  bool Stop() override { return tansyd_.Stop(); }
  std::uint16_t GetObjectPort() const override;
  std::uint16_t GetPicturePort() const override;
  std::uint16_t GetS3Port() const override;
  system_tests::ConnectOptions GetConnectOptions() const override;
  void SetClock(std::int64_t seconds) override;
  std::string RemoveBucket(const std::string& name) override { return Command("remove " + name); }
  std::string RenameBucket(const std::string& name, const std::string& new_name) override {
    return Command("rename " + name + " " + new_name);
  }

  // Lets time pass on the clock that nobody sets.
  void LetTimePass(std::int64_t seconds);
  // tansyd --check beside the running server. `arguments`: where rows and bytes are.
  system_tests::Ended Check(const std::vector<std::string>& arguments);
  system_tests::CTansyd& GetTansyd() { return tansyd_; }

 private:
  std::string Command(const std::string& line) const;
  std::string SocketPath() const { return tansyd_.Data() + ".control"; }

  const std::string folder_;
  system_tests::CTansyd tansyd_;
  system_tests::Launch launch_;
  std::atomic<std::int64_t> clock_{0};
  std::atomic<std::int64_t> uptime_{0};
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_TANSYD_SERVER_H
