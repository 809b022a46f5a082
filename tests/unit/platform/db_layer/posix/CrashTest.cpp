// Processes that are killed in the middle of their work.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SqliteFixture.h"

namespace db_layer {
namespace {

// A child process that works until it is killed and reports numbers through a pipe.
class CVictim {
 public:
  template <typename Work>
  explicit CVictim(Work work) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[0]);
      work(ends[1]);
      _exit(0);
    }
    close(ends[1]);
    report_ = ends[0];
  }
  ~CVictim() {
    Kill();
    close(report_);
  }
  CVictim(const CVictim&) = delete;
  CVictim& operator=(const CVictim&) = delete;

  static void Report(int pipe_end, std::int32_t number) {
    // The report is shorter than what a pipe takes at once, so it arrives whole or not at all.
    if (write(pipe_end, &number, sizeof(number)) != static_cast<ssize_t>(sizeof(number))) {
      _exit(1);
    }
  }

  bool Next(std::int32_t& number) {
    return read(report_, &number, sizeof(number)) == static_cast<ssize_t>(sizeof(number));
  }
  void Kill() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = 0;
    }
  }

 private:
  pid_t pid_ = 0;
  int report_ = -1;
};

class CrashTest : public CSqliteFixture {
 protected:
  CrashTest() { SetSqliteFullDurability(true); }
  void SetUp() override {
    MakeSchema();
    // SQLite's connections must not be carried into a child.
    connection_.reset();
  }
};

TEST_F(CrashTest, NoValueIsGivenTwiceAcrossCrashes) {
  std::set<std::int32_t> seen;
  for (int crash = 0; crash < 6; ++crash) {
    CVictim victim([this](int pipe_end) {
      std::string error;
      const auto connection = OpenSqlite(path_, error);
      for (;;) {
        if (!connection || !connection->Query("SELECT nextval('platform.item_id_seq')")) {
          _exit(1);
        }
        CVictim::Report(pipe_end, connection->GetInt(0));
      }
    });
    std::int32_t value = 0;
    for (int count = 50 + crash * 37; count > 0; --count) {
      ASSERT_TRUE(victim.Next(value));
      EXPECT_TRUE(seen.insert(value).second) << value;
    }
    victim.Kill();
    // Collects the values that the child gave out before it died, up to what fits in the pipe.
    while (victim.Next(value)) {
      EXPECT_TRUE(seen.insert(value).second) << value;
    }
  }
}

TEST_F(CrashTest, AcknowledgedRowsAreThereAfterwards) {
  std::set<std::int32_t> acknowledged;
  for (int crash = 0; crash < 4; ++crash) {
    const int first = 100'000 * crash;
    CVictim victim([this, first](int pipe_end) {
      std::vector<std::thread> threads;
      for (int thread = 0; thread < 3; ++thread) {
        threads.emplace_back([this, pipe_end, first, thread] {
          std::string error;
          const auto connection = OpenSqlite(path_, error);
          for (int id = first + thread * 10'000; connection && Insert(*connection, id); ++id) {
            CVictim::Report(pipe_end, id);
          }
        });
      }
      for (auto& thread : threads) {
        thread.join();
      }
    });
    std::int32_t id = 0;
    for (int count = 30 + 10 * crash; count > 0; --count) {
      ASSERT_TRUE(victim.Next(id));
      acknowledged.insert(id);
    }
    victim.Kill();
    while (victim.Next(id)) {
      acknowledged.insert(id);
    }
  }
  connection_ = OpenSqlite(path_);
  EXPECT_EQ(Column(*connection_, "PRAGMA platform.integrity_check", "integrity_check"), "ok");
  std::set<std::int32_t> stored;
  ASSERT_TRUE(connection_->Query("SELECT id FROM platform.item"));
  for (; !connection_->IsEnd(); connection_->MoveNext()) {
    stored.insert(connection_->GetInt("id"));
  }
  for (const std::int32_t id : acknowledged) {
    EXPECT_TRUE(stored.contains(id)) << id;
  }
}

}  // namespace
}  // namespace db_layer
