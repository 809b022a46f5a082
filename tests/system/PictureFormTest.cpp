// Upload forms as senders of every kind make them, and real pictures in them.
#include <algorithm>

#include "support/PictureSystemTest.h"

namespace system_tests {
namespace {

class PictureFormTest : public PictureSystemTest {
 protected:
  void SetUp() override {
    Launch launch;
    launch.with_https = true;
    ASSERT_TRUE(server_.Start(launch));
  }

  // Uploads this form and gives what became of it: the stored bytes, or status and error code.
  std::string Stored(const std::string& body, const std::string& boundary = kBoundary) {
    const Reply reply = Ask(FormRequest(boundary, body));
    return reply.status == 200 ? SendPicture("GET", JsonText(reply.body, "PictureUrl")).body : PictureOutcome(reply);
  }
};

TEST_F(PictureFormTest, RealPicturesGoThroughEveryListener) {
  for (const char* name : {"sample.jpg", "sample.png", "sample.webp"}) {
    const std::string bytes = SamplePicture(name);
    for (const bool tls : {false, true}) {
      for (const bool ipv6 : {false, true}) {
        ConnectOptions options;
        options.tls = tls;
        options.ipv6 = ipv6;
        const std::string address = Store(bytes, options);
        const Reply signed_header = SendPicture("GET", address, "", {}, options);
        EXPECT_EQ(signed_header.body == bytes, true) << name;
        EXPECT_EQ(signed_header.Header("Content-Type"), "image/jpeg");
        EXPECT_EQ(Ask({"GET", SignedLink(address), {}, ""}, options).body == bytes, true) << name;
      }
    }
  }
}

TEST_F(PictureFormTest, TheOrderOfFieldsDoesNotMatter) {
  std::vector<FormField> fields = PictureFields("jpeg");
  std::reverse(fields.begin(), fields.end());
  EXPECT_EQ(Stored(FormBody(kBoundary, fields)), "jpeg");
}

TEST_F(PictureFormTest, OnlyLengthAndPictureAreNeeded) {
  EXPECT_EQ(Stored(FormBody(kBoundary, {{"PictureLength", "4"}, {"Picture", "jpeg"}})), "jpeg");
  EXPECT_EQ(Stored(FormBody(kBoundary, {{"PictureLength", "4"}})), "400 -50001");
  EXPECT_EQ(Stored(FormBody(kBoundary, {{"Picture", "jpeg"}})), "400 -50001");
  EXPECT_EQ(Stored(FormBody(kBoundary, {})), "400 -50001");
}

TEST_F(PictureFormTest, OfRepeatedFieldsTheLastCounts) {
  std::vector<FormField> fields = PictureFields("first");
  fields.push_back({"Picture", "second one"});
  fields.push_back({"PictureLength", "10"});
  EXPECT_EQ(Stored(FormBody(kBoundary, fields)), "second one");
}

TEST_F(PictureFormTest, AnyBoundaryWillDo) {
  for (const char* boundary : {"x", "-", "--", "------7e02362550dc4", "a'b()+_,-./:=?0"}) {
    EXPECT_EQ(Stored(FormBody(boundary, PictureFields("jpeg")), boundary), "jpeg") << boundary;
  }
  EXPECT_EQ(Stored(FormBody("a b;c", PictureFields("jpeg")), "\"a b;c\""), "jpeg");
}

TEST_F(PictureFormTest, WhatLooksLikeABoundaryIsPartOfThePicture) {
  const std::string bytes = "\r\n--" + kBoundary + "x\r\n--" + kBoundary.substr(1) + "\r\n\r\n--\r\n";
  EXPECT_EQ(Stored(FormBody(kBoundary, PictureFields(bytes))), bytes);
  // Text around the form belongs to no field and is ignored.
  EXPECT_EQ(Stored("before\r\n" + FormBody(kBoundary, PictureFields("jpeg")) + "behind"), "jpeg");
}

TEST_F(PictureFormTest, AFormInAFormIsBytes) {
  const std::string inner = FormBody("inner", PictureFields("nested"));
  std::vector<FormField> fields = PictureFields(inner);
  fields.back().more = "\r\nContent-Type: multipart/mixed; boundary=inner";
  EXPECT_EQ(Stored(FormBody(kBoundary, fields)), inner);
}

TEST_F(PictureFormTest, HeaderLinesComeInManySpellings) {
  const auto form = [](const std::string& disposition) {
    return "--" + kBoundary + "\r\n" + disposition + "PictureLength\r\n\r\n4\r\n--" + kBoundary + "\r\n" + disposition +
           "Picture\r\ncontent-type:image/png\r\nno colon\r\n\r\njpeg\r\n--" + kBoundary + "--";
  };
  for (const char* disposition : {"Content-Disposition:form-data;name=", "content-disposition: form-data; NAME=",
                                  "CONTENT-DISPOSITION:\tform-data ;\tname = ",
                                  "X: y\r\nContent-Disposition: form-data; filename=\"name=x\"; name="}) {
    EXPECT_EQ(Stored(form(disposition)), "jpeg") << disposition;
  }
}

// The picture then ends with the body.
TEST_F(PictureFormTest, TheLastBoundaryMayBeMissing) {
  std::string open = FormBody(kBoundary, PictureFields("jpeg"), false);
  open.resize(open.size() - 2);
  EXPECT_EQ(Stored(open), "jpeg");
  EXPECT_EQ(Stored(open + "\r\n"), "400 -50001") << "the line end is two bytes more";
}

TEST_F(PictureFormTest, AFormMayComeInChunks) {
  const std::string body = FormBody(kBoundary, PictureFields("jpeg"));
  Request request = FormRequest(kBoundary, "");
  request.headers.emplace_back("Transfer-Encoding", "chunked");
  const auto connection = CConnection::Open(server_.GetPicturePort());
  ASSERT_NE(connection, nullptr);
  std::string bytes = Serialize(request, server_.GetPicturePort());
  for (const char c : body) {
    bytes += "1\r\n" + std::string(1, c) + "\r\n";
  }
  ASSERT_TRUE(connection->Send(bytes + "0\r\n\r\n"));
  const Reply reply = connection->Receive();
  EXPECT_EQ(PictureOutcome(reply), "200") << reply.body;
}

// The memory that a form costs: its body is held once, whatever the store does with it.
TEST_F(PictureFormTest, ALargeFormIsHeldInMemoryOnce) {
  Store("warm");
  const std::uint64_t before = PeakMemory();
  const std::string bytes = std::string(66 * 1000 * 1000, 'x');
  const Reply reply = Upload(bytes);
  ASSERT_EQ(PictureOutcome(reply), "200") << reply.body;
  const std::uint64_t grown = PeakMemory() - before;
  RecordProperty("megabytes", static_cast<int>(grown / 1000000));
  EXPECT_LT(grown, (bytes.size() + bytes.size() / 4) * kMemoryFactor);
}

}  // namespace
}  // namespace system_tests
