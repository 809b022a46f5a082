// The picture protocol through a real server and its store.
#include <filesystem>

#include "support/TansydTest.h"

namespace system_tests {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class PictureTest : public TansydTest {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.Start()); }

  Reply SendPicture(const std::string& method, const std::string& target, const std::string& body = "",
                    const HeaderList& headers = {}) {
    return Call(server_.GetPicturePort(), Signed({method, target, headers, body}));
  }
  // An upload form as clients send it; of its content type only the first part is signed.
  Reply Upload(const std::string& bytes, std::size_t declared) {
    const std::string boundary = "----boundary4711";
    std::string body;
    const auto field = [&](const std::string& name, const std::string& value, const std::string& more = "") {
      body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"" + more + "\r\n\r\n" +
              value + "\r\n";
    };
    field("SerialID", "1");
    field("PoolID", "1");
    field("PictureLength", std::to_string(declared));
    field("Picture", bytes, "; filename=\"a.jpg\"\r\nContent-Type: image/jpeg");
    body += "--" + boundary + "--\r\n";
    Request request{"POST", "/Quorvane/Picture/Write", {{"Content-Type", "multipart/form-data"}}, body};
    request = Signed(request);
    request.headers[0].second += "; boundary=" + boundary;
    return Call(server_.GetPicturePort(), request);
  }
  static std::string UrlOf(const Reply& reply) {
    const std::string mark = "\"PictureUrl\":\"";
    std::string body = reply.body;
    body.erase(std::remove(body.begin(), body.end(), ' '), body.end());
    const std::size_t begin = body.find(mark);
    return begin == std::string::npos
               ? ""
               : body.substr(begin + mark.size(), body.find('"', begin + mark.size()) - begin - mark.size());
  }
};

TEST_F(PictureTest, APictureComesBackByItsAddressAlsoAfterARestart) {
  const std::string bytes = RandomBytes(300000, 1);
  const Reply upload = Upload(bytes, bytes.size());
  ASSERT_EQ(upload.status, 200) << upload.body << server_.GetLog();
  const std::string url = UrlOf(upload);
  ASSERT_THAT(url, StartsWith("/pic?id=")) << upload.body;
  for (int i = 0; i < 2; ++i) {
    const Reply reply = SendPicture("GET", url);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.Header("Content-Type"), "image/jpeg");
    EXPECT_EQ(reply.body == bytes, true);
    server_.Kill();
    ASSERT_TRUE(server_.Start());
  }
  EXPECT_EQ(Call(server_.GetPicturePort(), {"GET", url, {}, ""}).status, 403);
}

TEST_F(PictureTest, AnObjectRecordMayCarryAPicture) {
  const std::string bytes = RandomBytes(100000, 2);
  const std::string url = UrlOf(Upload(bytes, bytes.size()));
  MakeBucket("b");
  Put("/b/o", "x");
  server_.Stop();
  Query(server_.Data("catalogue.db"), "UPDATE local_object SET size = 100000, url = '" + url + "'");
  ASSERT_TRUE(server_.Start());
  EXPECT_EQ(Get("/b/o") == bytes, true);
  EXPECT_EQ(Send("GET", "/b/o", "", {{"Range", "bytes=10-30"}}).body == bytes.substr(10, 20), true);
  EXPECT_EQ(Outcome(Send("DELETE", "/b/o?deletefile")), "200");
  EXPECT_EQ(SendPicture("GET", url).body == bytes, true) << "its address was given away: the picture stays";
}

TEST_F(PictureTest, ObjectsAreNotReadAsPictures) {
  MakeBucket("b");
  Put("/b/o", "private");
  const std::string text = Query(server_.Data("catalogue.db"), "SELECT url FROM local_object").front();
  const Reply reply = SendPicture("GET", "/pic?id=" + text);
  EXPECT_EQ(reply.status, 500);
  EXPECT_EQ(reply.body.find("private"), std::string::npos);
}

TEST_F(PictureTest, BadAddressesAndFormsAreErrors) {
  for (const char* target : {"/pic?id=../../catalogue.db", "/pic?id=", "/pic?x",
                             "/pic?id=pc0100-00-"
                             "00000000000000000000000000000000.d"}) {
    EXPECT_EQ(SendPicture("GET", target).status, 500) << target;
  }
  EXPECT_EQ(Upload("12345", 6).status, 400);
  EXPECT_EQ(Upload("", 0).status, 400);
  EXPECT_FALSE(std::filesystem::exists(server_.Data("objects/pc01")));
}

TEST_F(PictureTest, PicturesAreNoOrphans) {
  ASSERT_EQ(Upload("12345", 5).status, 200);
  server_.Stop();
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check", "--repair"};
  const Ended ended = server_.RunToEnd(check);
  EXPECT_EQ(ended.code, 0);
  EXPECT_THAT(ended.out, HasSubstr("1 stored files, 0 orphans"));
}

}  // namespace
}  // namespace system_tests
