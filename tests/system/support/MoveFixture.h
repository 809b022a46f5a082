// What the tests of moving share: clients that go on meanwhile and remember what they were told, and the command.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_MOVE_FIXTURE_H
#define TANSY_TESTS_SYSTEM_SUPPORT_MOVE_FIXTURE_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/MultipartFixture.h"
#include "support/PictureSystemTest.h"
#include "support/Program.h"

namespace system_tests {

// Writers, each with keys of its own in the bucket "b". What each was told last is what must be there.
class CWriters {
 public:
  using SendFunction =
      std::function<Reply(const std::string& method, const std::string& target, const std::string& body)>;

  // Each of them rests for `pause` after an answer.
  CWriters(std::size_t count, std::chrono::milliseconds pause, SendFunction send)
      : send_(std::move(send)), pause_(pause), states_(count) {
    for (std::size_t i = 0; i < count; ++i) {
      threads_.emplace_back([this, i] { Write(i); });
    }
  }
  ~CWriters() { Stop(); }
  CWriters(const CWriters&) = delete;
  CWriters& operator=(const CWriters&) = delete;

  void Stop() {
    stops_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }
  int Answered() const { return answered_; }
  int Failed() const { return failed_; }
  // The longest time for which one of them has waited for an answer since the last call.
  std::chrono::milliseconds TakeLongest() { return std::chrono::milliseconds(longest_.exchange(0)); }
  // Key and body of every object; the body "" stands for one that is gone. Keys whose last request had no answer are
  // left out.
  std::map<std::string, std::string> States() const {
    std::map<std::string, std::string> all;
    for (const auto& state : states_) {
      all.insert(state.begin(), state.end());
    }
    return all;
  }

 private:
  void Write(std::size_t writer) {
    for (unsigned round = 0; !stops_; ++round) {
      const std::string key = "w" + std::to_string(writer) + "-" + std::to_string(round % 17);
      const std::string body =
          round % 5 == 4 ? "" : RandomBytes(round % 23 == 1 ? 150000 : 10 + round % 900, writer * 100000 + round);
      const auto begin = std::chrono::steady_clock::now();
      const Reply reply =
          body.empty() ? send_("DELETE", "/b/" + key + "?deletefile", "") : send_("PUT", "/b/" + key, body);
      NoteTime(std::chrono::steady_clock::now() - begin);
      const bool is_done = reply.status == 200 || (body.empty() && reply.status == 404);
      if (is_done) {
        states_[writer][key] = body;
      } else {
        states_[writer].erase(key);
        ++failed_;
      }
      ++answered_;
      std::this_thread::sleep_for(pause_);
    }
  }

  void NoteTime(std::chrono::steady_clock::duration time) {
    const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    long long longest = longest_;
    while (now > longest && !longest_.compare_exchange_weak(longest, now)) {
    }
  }

  const SendFunction send_;
  const std::chrono::milliseconds pause_;
  std::atomic<long long> longest_{0};  // milliseconds
  std::atomic<bool> stops_{false};
  std::atomic<int> answered_{0};
  std::atomic<int> failed_{0};
  std::vector<std::map<std::string, std::string>> states_;
  std::vector<std::thread> threads_;
};

class MoveFixture : public MultipartFixture {
 protected:
  // Arguments of tansyd that name the place where everything is at first.
  virtual std::vector<std::string> Places() const { return {}; }

  Launch Serving(const std::vector<std::string>& more = {}) const {
    Launch launch;
    launch.arguments = Places();
    launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
    return launch;
  }
  Launch Moving(const std::vector<std::string>& arguments) const {
    Launch launch = Serving({"move", "--data", server_.Data()});
    launch.with_data = launch.with_ports = false;
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    return launch;
  }
  Ended Move(const std::vector<std::string>& arguments) {
    CTansyd command(temp_.GetPath(), "command");
    return command.RunToEnd(Moving(arguments));
  }
  // The milliseconds for which writes waited; -1 when nothing was switched.
  static int Pause(const std::string& output) {
    const std::string before = "writes were held for ";
    const std::size_t found = output.find(before);
    return found == std::string::npos ? -1 : std::stoi(output.substr(found + before.size()));
  }
  std::unique_ptr<CWriters> StartWriters(std::size_t count = 4, std::chrono::milliseconds pause = {}) {
    auto writers = std::make_unique<CWriters>(
        count, pause, [this](const std::string& method, const std::string& target, const std::string& body) {
          return Send(method, target, body);
        });
    EXPECT_TRUE(WaitUntil([&] { return writers->Answered() > (pause.count() == 0 ? 40 : 0); }));
    return writers;
  }
  void Expect(const std::map<std::string, std::string>& states, const std::string& when) {
    for (const auto& [key, body] : states) {
      const Reply reply = Send("GET", "/b/" + key);
      if (body.empty()) {
        EXPECT_EQ(Outcome(reply), "404 NoSuchKey") << key << " " << when;
      } else {
        EXPECT_TRUE(reply.status == 200 && reply.body == body) << key << " " << when << ": " << Outcome(reply);
      }
    }
  }
  std::string CheckAll() {
    CTansyd command(temp_.GetPath(), "check");
    Launch launch = Serving({"--data", server_.Data(), "--check"});
    launch.with_data = launch.with_ports = false;
    const Ended ended = command.RunToEnd(launch);
    return std::to_string(ended.code) + " " + ended.out + ended.err;
  }
  std::string StorePicture(const std::string& bytes) {
    const std::string boundary = "----move";
    const Reply reply = Call(server_.GetPicturePort(), FormRequest(boundary, FormBody(boundary, PictureFields(bytes))));
    EXPECT_EQ(reply.status, 200) << reply.body;
    return JsonText(reply.body, "PictureUrl");
  }
  std::string GetPicture(const std::string& address) {
    return Call(server_.GetPicturePort(), Signed({"GET", address, {}, ""})).body;
  }
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_MOVE_FIXTURE_H
