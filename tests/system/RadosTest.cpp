// A tansyd whose bytes are in a pool of a Ceph cluster does what one with a folder does.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "fakes/CephCluster.h"
#include "support/MultipartFixture.h"
#include "support/PictureSystemTest.h"
#include "support/Program.h"
#include "support/S3Curl.h"
#include "support/S3Sign.h"

namespace system_tests {
namespace {

using Tansy::Tests::CCephCluster;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class RadosTest : public MultipartFixture {
 protected:
  Launch InPool(const std::string& url, const std::vector<std::string>& more = {}) const {
    Launch launch;
    launch.arguments = {"--storage", url, "--keep-failed", "1"};
    launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
    return launch;
  }
  Launch InPool(const std::vector<std::string>& more = {}) const { return InPool(url_, more); }
  bool Start(const std::vector<std::string>& more = {}) { return server_.Start(InPool(more)); }

  // tansyd --check beside the server, or without one.
  Ended Check(const std::vector<std::string>& more = {}) {
    CTansyd command(temp_.GetPath(), "command");
    Launch launch = InPool(more);
    launch.with_data = launch.with_ports = false;
    launch.arguments.insert(launch.arguments.end(), {"--data", server_.Data(), "--check"});
    return command.RunToEnd(launch);
  }
  // How many objects and pictures have bytes in the pool; 0 when a look fails.
  std::size_t Stored() {
    const std::string sum = Check().out;
    const std::size_t rows = sum.find(" rows, ");
    return rows == std::string::npos ? 0 : std::stoul(sum.substr(rows + 7));
  }
  bool HasSum(const std::string& beginning) { return Check().out.find(beginning) != std::string::npos; }
  // The exit code and line of a start that fails.
  std::string Refusal(CTansyd& server, const Launch& launch) {
    const Ended ended = server.RunToEnd(launch);
    EXPECT_TRUE(ended.exited);
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
    return std::to_string(ended.code) + " " + ended.err;
  }

  CCephCluster& cluster_ = CCephCluster::Shared();
  const std::string name_space_ = cluster_.NewNamespace();
  const std::string url_ = cluster_.Url(name_space_);
};

TEST_F(RadosTest, ObjectsAreStoredReadReplacedAndRemovedAndOutliveARestart) {
  ASSERT_TRUE(Start());
  MakeBucket("b");
  const std::string large = RandomBytes(std::size_t{9} << 20U, 1);
  const std::string streamed = RandomBytes(std::size_t{30} << 20U, 2);
  Put("/b/small", "small");
  Put("/b/large", large);
  Put("/b/streamed", streamed);
  const std::vector<std::string> parts = Parts(5, 3000000, 1234567, 3);
  Upload("parts", parts);
  const std::string task = Begin("open");
  EXPECT_TRUE(SendParts("open", task, parts));

  ASSERT_TRUE(server_.Stop());
  EXPECT_EQ(Check().code, 0) << Check().out;
  ASSERT_TRUE(Start());
  EXPECT_EQ(Get("/b/small"), "small");
  EXPECT_TRUE(Get("/b/large") == large);
  EXPECT_TRUE(Get("/b/streamed") == streamed);
  EXPECT_TRUE(Get("/b/parts") == Joined(parts));
  const Reply range = Send("GET", "/b/streamed", "", {{"Range", "bytes=4194300-12582920"}});
  EXPECT_TRUE(range.body == streamed.substr(4194300, 12582920 - 4194300)) << range.status;
  EXPECT_EQ(Complete("open", task, parts), "200");
  EXPECT_TRUE(Get("/b/open") == Joined(parts));

  Put("/b/small", large);
  EXPECT_TRUE(Get("/b/small") == large);
  for (const char* name : {"small", "large", "streamed", "parts", "open"}) {
    EXPECT_EQ(Outcome(Send("DELETE", std::string("/b/") + name + "?deletefile")), "200") << name;
    EXPECT_EQ(Send("GET", std::string("/b/") + name).status, 404) << name;
  }
  EXPECT_TRUE(WaitUntil([this] { return HasSum("check: 0 rows, 0 stored files, 0 orphans"); })) << Check().out;
}

// By S3: an upload in parts whose parts are objects of the pool, and copies of it and of a part of it into another
// bucket.
TEST_F(RadosTest, UploadsInPartsAndCopiesByS3AreStoredInThePool) {
  Launch launch = InPool();
  launch.with_s3 = true;
  ASSERT_TRUE(server_.Start(launch));
  CS3Curl curl(server_);
  ASSERT_EQ(curl.Put("/first", "").status, 200);
  ASSERT_EQ(curl.Put("/second", "").status, 200);
  const std::vector<std::string> parts = {RandomBytes(std::size_t{5} << 20U, 1), RandomBytes(std::size_t{12} << 20U, 2),
                                          "tail"};
  const std::string all = parts[0] + parts[1] + parts[2];
  const auto put_parts = [&](const std::string& path, const std::string& upload) {
    std::vector<std::string> tags;
    for (const std::string& part : parts) {
      tags.push_back(curl.PutPart(path, upload, static_cast<int>(tags.size()) + 1, part));
      EXPECT_FALSE(tags.back().empty());
    }
    return tags;
  };
  const std::string upload = curl.Begin("/first/whole");
  std::vector<std::string> tags = put_parts("/first/whole", upload);
  server_.Kill();
  ASSERT_TRUE(server_.Start(launch));
  tags[1] = curl.PutPart("/first/whole", upload, 2, parts[1]);
  ASSERT_EQ(curl.Complete("/first/whole", upload, tags).status, 200);
  EXPECT_TRUE(curl.Send("GET", "/first/whole").body == all);
  const Reply range = Send("GET", "/first/whole", "", {{"Range", "bytes=5242879-17825793"}});
  EXPECT_TRUE(range.body == all.substr(5242879, 17825793 - 5242879)) << range.status;

  const std::uint16_t port = server_.GetS3Port();
  const auto copy = [&](const std::string& target, const HeaderList& more) {
    HeaderList headers = {{"x-amz-copy-source", "/first/whole"}};
    headers.insert(headers.end(), more.begin(), more.end());
    return Call(port, S3Signed({"PUT", target, headers, ""}, port));
  };
  EXPECT_EQ(XmlValue(copy("/second/copy", {}).body, "Code"), "");
  const std::string other = curl.Begin("/second/part");
  const Reply copied =
      copy("/second/part?partNumber=1&uploadId=" + other, {{"x-amz-copy-source-range", "bytes=1-17825794"}});
  const std::string tag = XmlValue(copied.body, "ETag");
  ASSERT_EQ(curl.Complete("/second/part", other, {tag}).status, 200) << copied.body;
  EXPECT_EQ(curl.Send("DELETE", "/first/whole").status, 204);
  EXPECT_TRUE(curl.Send("GET", "/second/copy").body == all);
  EXPECT_TRUE(curl.Send("GET", "/second/part").body == all.substr(1, 17825794));

  const std::string aborted = curl.Begin("/second/aborted");
  put_parts("/second/aborted", aborted);
  EXPECT_EQ(curl.Send("DELETE", "/second/aborted?uploadId=" + aborted).status, 204);
  for (const char* path : {"/second/copy", "/second/part"}) {
    EXPECT_EQ(Outcome(Send("DELETE", std::string(path) + "?deletefile")), "200") << path;
  }
  EXPECT_TRUE(WaitUntil([this] { return HasSum("check: 0 rows"); })) << Check().out;
  EXPECT_THAT(Check().out, HasSubstr(" 0 orphans"));
}

// The server was away for the days after which an upload counts as forgotten.
TEST_F(RadosTest, ForgottenUploadsByS3AreSweptFromThePool) {
  Launch launch = InPool();
  launch.with_s3 = true;
  ASSERT_TRUE(server_.Start(launch));
  CS3Curl curl(server_);
  ASSERT_EQ(curl.Put("/first", "").status, 200);
  const std::string forgotten = curl.Begin("/first/forgotten");
  const std::string part = RandomBytes(std::size_t{12} << 20U, 1);
  EXPECT_FALSE(curl.PutPart("/first/forgotten", forgotten, 1, part).empty());
  EXPECT_FALSE(curl.PutPart("/first/forgotten", forgotten, 2, "tail").empty());
  const std::string present = curl.Begin("/first/present");
  const std::string tag = curl.PutPart("/first/present", present, 1, "kept");
  ASSERT_TRUE(server_.Stop());
  ASSERT_THAT(Check().out, HasSubstr("check: 3 rows, 3 stored files, 0 orphans"));

  Query(server_.Data("catalogue.db"),
        "UPDATE local_upload SET update_time = '2020-01-01 00:00:00' WHERE object_name = 'forgotten'");
  ASSERT_TRUE(server_.Start(launch));
  EXPECT_TRUE(WaitUntil([this] { return HasSum("check: 1 rows, 1 stored files, 0 orphans"); })) << Check().out;
  EXPECT_EQ(XmlValue(curl.Send("GET", "/first?uploads=").body, "Key"), "present");
  ASSERT_EQ(curl.Complete("/first/present", present, {tag}).status, 200);
  EXPECT_EQ(curl.Send("GET", "/first/present").body, "kept");
}

TEST_F(RadosTest, PicturesAreStoredAndRead) {
  ASSERT_TRUE(Start());
  const std::string picture = SamplePicture("sample.jpg");
  const Request upload = FormRequest("--b", FormBody("--b", PictureFields(picture)));
  const Reply stored = Call(server_.GetPicturePort(), upload);
  const std::string address = JsonText(stored.body, "PictureUrl");
  EXPECT_THAT(address, HasSubstr("rp0100-00-")) << stored.body;
  EXPECT_TRUE(Call(server_.GetPicturePort(), Signed({"GET", address, {}, ""})).body == picture);
}

TEST_F(RadosTest, ACrashLosesNothingAndLeavesNothing) {
  ASSERT_TRUE(Start());
  MakeBucket("b");
  const std::string large = RandomBytes(std::size_t{9} << 20U, 4);
  Put("/b/kept", large);
  const auto upload = CConnection::Open(server_.GetObjectPort());
  const Request cut = Signed({"PUT", "/b/cut", {{"Content-Length", "40000000"}}, ""});
  ASSERT_TRUE(upload->Send(Serialize(cut, server_.GetObjectPort())));
  ASSERT_TRUE(upload->Send(std::string(25000000, 'x')));
  ASSERT_TRUE(WaitUntil([this] { return Stored() == 2; }));
  server_.Kill();
  ASSERT_TRUE(Start()) << "the lock of the run that crashed keeps nobody away";
  EXPECT_TRUE(Get("/b/kept") == large);
  EXPECT_TRUE(WaitUntil([this] { return HasSum("check: 1 rows, 1 stored files, 0 orphans"); })) << Check().out;
}

TEST_F(RadosTest, TheCheckLooksInBothDirections) {
  ASSERT_TRUE(Start());
  MakeBucket("b");
  const std::string bytes(1000000, 'x');
  Put("/b/kept", bytes);
  Put("/b/lost", "small");
  const std::string url =
      Query(server_.Data("catalogue.db"), "SELECT url FROM local_object WHERE name = 'lost'").front();
  const std::string id = url.substr(10, 32);
  const std::string orphan = "rd01." + std::string(32, 'a');
  ASSERT_TRUE(cluster_.Rados(name_space_, {"rm", "rd01." + id + ".00000000"}));
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", orphan + ".00000000", temp_.Write("file", "orphan")}));
  const auto findings =
      AllOf(HasSubstr("missing /b/lost " + url), HasSubstr("orphan rd01/00/00/" + std::string(32, 'a')));
  const Ended beside = Check();
  EXPECT_EQ(beside.code, 3);
  EXPECT_THAT(beside.out, findings);
  EXPECT_THAT(Check({"--repair"}).out, AllOf(findings, HasSubstr(" 1 freed, 1 damaged"))) << "the server does it";
  EXPECT_THAT(Check().out, Not(HasSubstr("orphan rd01")));
  ASSERT_TRUE(cluster_.Rados(name_space_, {"put", orphan + ".00000000", temp_.Path("file")}));
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(Check({"--repair"}).out, AllOf(findings, HasSubstr(" 1 freed, 1 damaged")));
  EXPECT_THAT(Check().out, Not(HasSubstr("orphan rd01")));
  ASSERT_TRUE(Start());
  EXPECT_EQ(Get("/b/kept"), bytes);
  EXPECT_EQ(Outcome(Send("GET", "/b/lost")), "500 ServerInternalError");
}

TEST_F(RadosTest, APoolServesOneTansydAndOneCatalogue) {
  ASSERT_TRUE(Start());
  MakeBucket("b");
  Put("/b/o", "x");
  CTansyd other(temp_.GetPath(), "other");
  EXPECT_THAT(Refusal(other, InPool()), AllOf(HasSubstr("1 tansyd: storage pool tansy, namespace " + name_space_),
                                              HasSubstr("is in use by another tansyd"), HasSubstr(server_.Data())));
  ASSERT_TRUE(server_.Stop());
  EXPECT_THAT(Refusal(other, InPool()), HasSubstr("holds the bytes of another catalogue"));
  EXPECT_THAT(Refusal(server_, InPool(cluster_.Url(cluster_.NewNamespace()))), HasSubstr("is it the right pool?"));
  EXPECT_TRUE(Start());
}

TEST_F(RadosTest, AStartThatCannotReachItsPoolSaysWhy) {
  EXPECT_THAT(Refusal(server_, InPool("rados://tansy?conf=/no/such.conf")),
              HasSubstr("1 tansyd: storage pool tansy: the Ceph settings file /no/such.conf cannot be read"));
  const std::string rest = "?id=tansy&conf=" + cluster_.Conf();
  EXPECT_THAT(Refusal(server_, InPool("rados://nowhere" + rest)), HasSubstr("there is no such pool"));
  EXPECT_THAT(Refusal(server_, InPool("rados://tansy?id=nobody&conf=" + cluster_.Conf())),
              HasSubstr("refuses the user client.nobody"));
  EXPECT_THAT(Refusal(server_, InPool("rados://?id=x")),
              HasSubstr("2 tansyd: --storage is not valid: give file:DIR or "));
  Launch without_library = InPool();
  temp_.Write("libraries/librados.so.2", "no library");
  without_library.environment["LD_LIBRARY_PATH"] = temp_.Path("libraries");
  EXPECT_THAT(Refusal(server_, without_library),
              HasSubstr("1 tansyd: storage in a Ceph pool needs librados.so.2 (Debian's package librados2)"));
}

TEST_F(RadosTest, AFullPoolIsNotEnoughSpaceAndReadsGoOn) {
  ASSERT_TRUE(Start());
  MakeBucket("b");
  Put("/b/o", "before");
  cluster_.SetFull(true);
  std::string outcome;
  EXPECT_TRUE(WaitUntil([&] {
    outcome = Outcome(Send("PUT", "/b/more", std::string(1000, 'x')));
    return outcome != "200";
  }));
  EXPECT_THAT(outcome, HasSubstr("NotEnoughSpace"));
  EXPECT_EQ(Get("/b/o"), "before");
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200");
  cluster_.SetFull(false);
  EXPECT_TRUE(WaitUntil([&] { return Outcome(Send("PUT", "/b/more", "more")) == "200"; }));
}

// Clients get errors in time, and a stop does not wait for the cluster.
TEST_F(RadosTest, AClusterThatSaysNothingHoldsUpNeitherClientsNorAStop) {
  const std::string conf = cluster_.Conf("hasty.conf", "rados_osd_op_timeout = 2");
  std::string url = url_;
  url.replace(url.find(cluster_.Conf()), cluster_.Conf().size(), conf);
  ASSERT_TRUE(server_.Start(InPool(url)));
  MakeBucket("b");
  const std::string bytes = RandomBytes(100000, 5);
  Put("/b/o", bytes);
  for (int osd = 0; osd < CCephCluster::kOsds; ++osd) {
    cluster_.SignalOsd(osd, SIGSTOP);
  }
  EXPECT_EQ(Outcome(Send("GET", "/b/o")), "500 ServerInternalError");
  EXPECT_EQ(Outcome(Send("PUT", "/b/more", bytes)), "500 ServerInternalError");
  server_.Signal(SIGTERM);
  const Ended ended = server_.WaitForEnd(std::chrono::seconds(30));
  EXPECT_TRUE(ended.exited);
  for (int osd = 0; osd < CCephCluster::kOsds; ++osd) {
    cluster_.SignalOsd(osd, SIGCONT);
  }
  cluster_.WaitForOsds();
  ASSERT_TRUE(Start());
  EXPECT_TRUE(Get("/b/o") == bytes);
}

TEST_F(RadosTest, AnOsdThatDiesUnderLoadIsNotNoticedByClients) {
  CCephCluster cluster;  // the other tests need all of theirs
  ASSERT_TRUE(server_.Start(InPool(cluster.Url("ns"))));
  MakeBucket("b");
  std::atomic<bool> is_over{false};
  std::atomic<int> rounds{0};
  std::vector<std::thread> clients;
  for (int client = 0; client < 3; ++client) {
    clients.emplace_back([&, client] {
      const std::string path = "/b/" + std::to_string(client);
      const std::string bytes = RandomBytes(client == 0 ? std::size_t{12} << 20U : 7000, 11 + client);
      while (!is_over) {
        EXPECT_EQ(Outcome(Send("PUT", path, bytes)), "200");
        EXPECT_TRUE(Send("GET", path).body == bytes);
        ++rounds;
      }
    });
  }
  EXPECT_TRUE(WaitUntil([&] { return rounds >= 10; }));
  cluster.KillOsd(2);
  const int before = rounds;
  EXPECT_TRUE(WaitUntil([&] { return rounds >= before + 60; }));
  is_over = true;
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_TRUE(server_.Stop());
}

}  // namespace
}  // namespace system_tests
