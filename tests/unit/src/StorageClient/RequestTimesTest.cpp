// How long requests may take, how often they are tried and how many are under way, without sockets and without waiting.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "StorageClient/ObjectImpl.h"
#include "StorageClient/ObjectProtoClient.h"
#include "StorageClient/PartUploadTask.h"
#include "TansyCloudStorage/ObjectClient.h"
#include "TansyCloudStorage/PictureClient.h"
#include "fakes/RecordingHttpClient.h"
#include "fakes/TempFolder.h"

namespace {

thread_local int sleeps = 0;         // of this thread
thread_local int waits_in_vain = 0;  // of this thread: waits for a condition that ended with their time

}  // namespace

// Every pause of a thread calls one of these two functions.
extern "C" int nanosleep(const timespec* duration, timespec* rest) {
  ++sleeps;
  return static_cast<int>(syscall(SYS_nanosleep, duration, rest));
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* rest) {
  ++sleeps;
  return static_cast<int>(syscall(SYS_clock_nanosleep, clock, flags, time, rest));
}

// Every wait for a condition with a limit calls this one.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      const timespec* time) {
  using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
  static const auto system_wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  const int result = system_wait(condition, mutex, clock, time);
  waits_in_vain += result == ETIMEDOUT ? 1 : 0;
  return result;
}

namespace Tansy::CloudStorage {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using Tests::CRecordingHttpClient;
using Tests::RecordedRequest;

constexpr std::uint64_t kMiB = 1048576;

bool EndsWith(const RecordedRequest& request, const std::string& end) {
  return request.url.ends_with(end);
}

class RequestTimesTest : public testing::Test {
 protected:
  RequestTimesTest() {
    http_.Reset([this](const RecordedRequest& request) { return Answer(request); });
  }
  ~RequestTimesTest() override { http_.Reset(nullptr); }

  static SStorageServerConfig Config() {
    SStorageServerConfig config;
    config.ip = "127.0.0.1";
    config.upload_port = config.download_port = 9700;
    config.pool_name = "pool";
    config.ak = "access";
    config.sk = "secret";
    return config;
  }

  // A server for which everything goes well.
  TansyNet::CHttpClientResponse Answer(const RecordedRequest& request) {
    TansyNet::CHttpClientResponse answer;
    answer.status = 200;
    if (EndsWith(request, "?bestnode")) {
      answer.body = "<BestNodeInfo><Location>127.0.0.1:9700</Location></BestNodeInfo>";
    } else if (EndsWith(request, "?uploads")) {
      const int id = ++uploads_;
      answer.body = "<InitiateMultipartUploadResult><UploadId>times-" + std::to_string(id) +
                    "</UploadId></InitiateMultipartUploadResult>";
    } else if (EndsWith(request, "?metadata")) {
      answer.headers["Object-Size"] = std::to_string(object_size_);
    } else if (EndsWith(request, "/?version")) {
      answer.body = "<CloudVersion><version>1</version></CloudVersion>";
    } else if (request.url.find("BestNode?") != std::string::npos) {
      answer.body = R"({"GatewayIP":"127.0.0.1","GatewayPort":"9701","Token":"t"})";
    } else if (EndsWith(request, "/Write")) {
      answer.body = R"({"PictureUrl":"/pic?id=1"})";
    } else {
      answer.body = "bytes";
    }
    return answer;
  }

  // Gives the times to connect, send and receive of the requests whose URL contains `text`.
  std::vector<std::vector<std::uint32_t>> TimesOf(const std::string& text) const {
    std::vector<std::vector<std::uint32_t>> times;
    for (const RecordedRequest& request : http_.Requests()) {
      if (request.url.find(text) != std::string::npos) {
        times.push_back({request.connect_timeout_ms, request.send_timeout_ms, request.receive_timeout_ms});
      }
    }
    return times;
  }

  CRecordingHttpClient& http_ = CRecordingHttpClient::Instance();
  std::atomic<int> uploads_{0};
  std::atomic<std::uint64_t> object_size_{5};
  Tests::CTempFolder folder_;
};

TEST_F(RequestTimesTest, ACompletionMayTakeAMinuteWhateverIsConfigured) {
  const auto conf = std::make_shared<ObjectImpl>(Config());
  conf->receive_timeout_ms = 1;
  conf->send_timeout_ms = 2;
  CObjectProtoClient client;
  ASSERT_TRUE(client.Init(conf));
  EXPECT_TRUE(client.FinishPartTask("id", "key", {{1, 5, ""}}));
  EXPECT_THAT(TimesOf("?upload_id=id"), ElementsAre(ElementsAre(5000, 15000, 60000)));
  EXPECT_THAT(TimesOf("?metadata"), ElementsAre(ElementsAre(5000, 15000, 15000)));
}

TEST_F(RequestTimesTest, RequestsOtherThanDownloadsHaveTheTimesOfTheLibrary) {
  const std::vector<std::uint32_t> library = {5000, 15000, 15000};
  CObjectClient client(Config());
  client.SetTimeoutConfig(1, 2);
  std::string url;
  std::string piece;
  EXPECT_TRUE(client.UploadFile(url, "bytes", 5));
  EXPECT_TRUE(client.UploadFileByPieces(piece, "bytes", 5, false));
  EXPECT_TRUE(client.RemoveFileByUrl(url));
  EXPECT_TRUE(client.RemoveObjectFileByUrl(url));
  EXPECT_TRUE(client.GetStorageVersion(url, {"127.0.0.1", 1, "a", "s"}));
  EXPECT_EQ(http_.Requests().size(), 8u);
  EXPECT_THAT(TimesOf(""), Each(library));
}

TEST_F(RequestTimesTest, DownloadsWaitFifteenSecondsUntilToldOtherwise) {
  CObjectClient client(Config());
  char* data = nullptr;
  unsigned int size = 0;
  std::string range = "0-5";
  const auto download = [&] {
    EXPECT_TRUE(client.DownloadFile(&data, size, "/pool/key"));
    delete[] data;
    EXPECT_TRUE(client.DownloadFile(&data, size, range, "/pool/key"));
    delete[] data;
    EXPECT_TRUE(client.DownloadFile("/pool/key", folder_.Path("file")));
  };
  download();
  EXPECT_THAT(TimesOf("/pool/key"), Each(std::vector<std::uint32_t>{5000, 15000, 15000}));
  EXPECT_EQ(http_.Requests().size(), 4u);

  http_.Reset([this](const RecordedRequest& request) { return Answer(request); });
  client.SetTimeoutConfig(7000, 8000);
  download();
  // The question for the size is no download.
  EXPECT_THAT(TimesOf("/pool/key"), ElementsAre(ElementsAre(5000, 8000, 7000), ElementsAre(5000, 8000, 7000),
                                                ElementsAre(5000, 15000, 15000), ElementsAre(5000, 8000, 7000)));
  EXPECT_TRUE(http_.Requests().back().streamed);
}

TEST_F(RequestTimesTest, RangesOfALargeDownloadWaitAsLongToo) {
  object_size_ = 10 * kMiB;
  http_.Reset([this](const RecordedRequest& request) {
    TansyNet::CHttpClientResponse answer = Answer(request);
    if (!EndsWith(request, "?metadata")) {
      answer.body.assign(kMiB, 'x');
    }
    return answer;
  });
  CObjectClient client(Config());
  client.SetTimeoutConfig(7000, 8000);
  EXPECT_TRUE(client.DownloadFile("/pool/key", folder_.Path("file")));
  int ranges = 0;
  for (const RecordedRequest& request : http_.Requests()) {
    if (request.headers.count("Range") != 0) {
      ++ranges;
      EXPECT_EQ(request.receive_timeout_ms, 7000u);
      EXPECT_EQ(request.send_timeout_ms, 8000u);
    }
  }
  EXPECT_EQ(ranges, 10);
}

TEST_F(RequestTimesTest, PicturesHaveTimesOfTheirOwn) {
  CPictureClient client(Config());
  std::string url;
  EXPECT_TRUE(client.UploadPicture(url, "jpeg", 4));
  char* data = nullptr;
  std::uint32_t size = 0;
  EXPECT_TRUE(client.DownloadPicture(&data, size, url));
  delete[] data;
  EXPECT_EQ(http_.Requests().size(), 3u);
  EXPECT_THAT(TimesOf(""), Each(std::vector<std::uint32_t>{5000, 15000, 30000}));
}

TEST_F(RequestTimesTest, VersionsAreAskedOverPlainHttpByAnHttpsClientToo) {
  SStorageServerConfig config = Config();
  config.is_https = true;
  std::string version;
  EXPECT_TRUE(CObjectClient(config).GetStorageVersion(version, {"10.0.0.7", 81, "a", "s"}));
  EXPECT_EQ(version, "1");
  EXPECT_TRUE(CObjectClient(config).GetStorageVersion(version, {"fd00::7", 81, "a", "s"}));
  EXPECT_THAT(http_.Requests(), ElementsAre(Field(&RecordedRequest::url, "http://10.0.0.7:81/?version"),
                                            Field(&RecordedRequest::url, "http://[fd00::7]:81/?version")));
}

// ---- attempts

TEST_F(RequestTimesTest, APartIsTriedThreeTimesWithoutAPause) {
  http_.Reset([](const RecordedRequest&) {
    TansyNet::CHttpClientResponse refusal;
    refusal.status = 500;
    return refusal;
  });
  const auto client = std::make_shared<CObjectProtoClient>();
  ASSERT_TRUE(client->Init(std::make_shared<ObjectImpl>(Config())));
  PartRecord record;
  record.upload_id = "attempts";
  record.part_number = 1;
  record.total_parts = 1;
  auto buffer = std::make_unique<char[]>(2);
  record.data = buffer.get();
  record.size = 1;
  CPartUploadRegistry::Instance().AddPart(record.upload_id, record);
  CPartUploadTask task(record, std::move(buffer), client, "key", "127.0.0.1:9700");
  sleeps = 0;
  task.Exec();
  EXPECT_EQ(sleeps, 0);
  EXPECT_EQ(http_.Requests().size(), 3u);
  std::this_thread::sleep_for(std::chrono::nanoseconds(1));
  EXPECT_EQ(sleeps, 1) << "a pause would have been seen";
}

// The thread that uploads looks at its parts in rounds of half a second. The end of the last part wakes it in the
// middle of a round. On a machine that is very busy a round may pass before a part is done, so not every upload counts.
TEST_F(RequestTimesTest, AnUploadInPartsIsWokenWhenItsLastPartIsDone) {
  object_size_ = 10 * kMiB;
  const std::string path = folder_.Write("file.bin", std::string(10 * kMiB, 'x'));
  sleeps = 0;
  int uploads_without_waits_in_vain = 0;
  for (int i = 0; i < 50 && uploads_without_waits_in_vain == 0; ++i) {
    waits_in_vain = 0;
    std::string url;
    ASSERT_TRUE(CObjectClient(Config()).UploadFile(url, path));
    uploads_without_waits_in_vain += waits_in_vain == 0 ? 1 : 0;
  }
  EXPECT_EQ(uploads_without_waits_in_vain, 1);
  EXPECT_EQ(sleeps, 0);
}

// ---- parts under way

// Gives the position of this process in a file that it has open; -1 when it has not opened the file.
std::int64_t PositionIn(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry.path(), ignored) == path) {
      std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
      std::string word;
      std::int64_t position = -1;
      info >> word >> position;
      return position;
    }
  }
  return -1;
}

// How often a thread has waited for something.
std::int64_t WaitsOf(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string word;
  std::int64_t waits = -1;
  while (status >> word) {
    if (word == "voluntary_ctxt_switches:") {
      status >> waits;
    }
  }
  return waits;
}

TEST_F(RequestTimesTest, SixPartsAreQueuedOrUnderWayAndTheSeventhIsRead) {
  const std::string path = std::filesystem::canonical(folder_.GetPath()) / "file";
  std::ofstream(path).close();
  std::filesystem::resize_file(path, 40 * kMiB);
  object_size_ = 40 * kMiB;
  std::mutex mutex;
  std::condition_variable changed;
  bool released = false;
  http_.Reset([&](const RecordedRequest& request) {
    if (request.url.find("&part_number=") != std::string::npos) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return released; });
    }
    return Answer(request);
  });
  std::atomic<pid_t> thread_id{0};
  bool uploaded = false;
  std::thread uploader([&] {
    thread_id = static_cast<pid_t>(syscall(SYS_gettid));
    std::string url;
    uploaded = CObjectClient(Config()).UploadFile(url, path);
  });

  // Until the thread that reads has waited several times in a row without reading on.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::int64_t position = -1;
  std::int64_t waits = 0;
  while (std::chrono::steady_clock::now() < limit) {
    const std::int64_t now = PositionIn(path);
    const std::int64_t waits_now = thread_id == 0 ? 0 : WaitsOf(thread_id);
    if (now != position) {
      position = now;
      waits = waits_now;
    } else if (position > 0 && waits_now >= waits + 8) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(position, 14 * static_cast<std::int64_t>(kMiB));
  {
    const std::lock_guard lock(mutex);
    released = true;
  }
  changed.notify_all();
  uploader.join();
  EXPECT_TRUE(uploaded);
}

}  // namespace
}  // namespace Tansy::CloudStorage
