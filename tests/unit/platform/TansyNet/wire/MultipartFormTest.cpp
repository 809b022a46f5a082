#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TansyNet/HttpServer.h"

namespace {

using TansyNet::FormPart;
using TansyNet::ParseMultipartForm;

constexpr const char* kType = "multipart/form-data; boundary=XX";

// The parts are views into `body`.
std::vector<FormPart> Parse(std::string_view body, std::string_view type = kType) {
  std::vector<FormPart> parts;
  EXPECT_TRUE(ParseMultipartForm(type, body, parts));
  return parts;
}

bool Fails(std::string_view body, std::string_view type = kType) {
  std::vector<FormPart> parts = {{.name = "old", .file_name = {}, .content_type = {}, .data = {}}};
  const bool failed = !ParseMultipartForm(type, body, parts);
  EXPECT_TRUE(!failed || parts.empty());
  return failed;
}

TEST(MultipartForm, SplitsFieldsAndFiles) {
  const std::string body =
      "--XX\r\nContent-Disposition: form-data; name=\"PictureLength\"\r\n\r\n5\r\n"
      "--XX\r\nContent-Disposition: form-data; name=\"Picture\"; filename=\"a b.jpg\"\r\n"
      "Content-Type: image/jpeg\r\n\r\nab\r\nc\r\n--XX--\r\n";
  const auto parts = Parse(body);
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts[0].name, "PictureLength");
  EXPECT_EQ(parts[0].data, "5");
  EXPECT_EQ(parts[0].file_name, "");
  EXPECT_EQ(parts[1].name, "Picture");
  EXPECT_EQ(parts[1].file_name, "a b.jpg");
  EXPECT_EQ(parts[1].content_type, "image/jpeg");
  EXPECT_EQ(parts[1].data, "ab\r\nc");
}

TEST(MultipartForm, CopiesNothing) {
  const std::string body = "--XX\r\nContent-Disposition: form-data; name=\"n\"\r\n\r\ndata\r\n--XX--";
  const auto parts = Parse(body);
  ASSERT_EQ(parts.size(), 1U);
  for (const std::string_view view : {parts[0].name, parts[0].data}) {
    EXPECT_GE(view.data(), body.data());
    EXPECT_LE(view.data() + view.size(), body.data() + body.size());
  }
}

TEST(MultipartForm, KeepsBinaryData) {
  std::string data;
  for (int repeat = 0; repeat < 3; ++repeat) {
    for (int c = 0; c < 256; ++c) {
      data += static_cast<char>(c);
    }
  }
  data += "\r\n--X\r\n--\r\n--XY\r\n\r\n-";
  const std::string body = "--XX\r\nContent-Disposition:form-data;name=p\r\n\r\n" + data + "\r\n--XX--";
  const auto parts = Parse(body);
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].data, data);
}

TEST(MultipartForm, ABoundaryThatOnlyBeginsTheSameIsData) {
  const auto parts = Parse("--XX\r\n\r\na\r\n--XXY\r\nb\r\n--XX--");
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].data, "a\r\n--XXY\r\nb");
}

TEST(MultipartForm, UnderstandsBoundariesInAnyForm) {
  const std::string body = "--a b;c\r\n\r\nx\r\n--a b;c--";
  for (const char* type : {"multipart/form-data; boundary=\"a b;c\"", "Multipart/Form-Data;BOUNDARY=\"a b;c\"",
                           "multipart/form-data ; charset=utf-8 ; boundary = \"a b;c\" ; x=y",
                           "multipart/form-data; x=\"boundary=no\"; boundary=\"a b;c\""}) {
    const auto parts = Parse(body, type);
    ASSERT_EQ(parts.size(), 1U) << type;
    EXPECT_EQ(parts[0].data, "x") << type;
  }
}

TEST(MultipartForm, UnderstandsLongBoundariesUpToALimit) {
  const std::string longest(10 * 1024, 'b');
  EXPECT_EQ(
      Parse("--" + longest + "\r\n\r\nx\r\n--" + longest + "--", "multipart/form-data; boundary=" + longest).size(),
      1U);
  const std::string longer = longest + 'b';
  EXPECT_TRUE(Fails("--" + longer + "\r\n\r\nx\r\n--" + longer + "--", "multipart/form-data; boundary=" + longer));
}

TEST(MultipartForm, NeedsABoundaryThatOccurs) {
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", ""));
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", "multipart/form-data"));
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", "multipart/form-data; boundary="));
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", "multipart/form-data; boundary=\"\""));
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", "multipart/mixed; boundary=XX"));
  EXPECT_TRUE(Fails("--XX\r\n\r\nx", "text/plain; boundary=XX"));
  EXPECT_TRUE(Fails(""));
  EXPECT_TRUE(Fails("--YY\r\n\r\nx\r\n--YY--"));
  EXPECT_TRUE(Fails("text--XX\r\n\r\nx"));
}

TEST(MultipartForm, IgnoresWhatStandsBeforeAndBehind) {
  const auto parts = Parse("preamble\r\n--XX  \r\n\r\nx\r\n--XX--\r\nepilogue\r\n--XX\r\n\r\ny");
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].data, "x");
}

TEST(MultipartForm, AMissingLastBoundaryEndsWithTheBody) {
  const auto parts = Parse("--XX\r\n\r\na\r\n--XX\r\n\r\nb\r\n");
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_EQ(parts[1].data, "b\r\n");
}

TEST(MultipartForm, SurvivesBodiesCutAnywhere) {
  const std::string body =
      "--XX\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--XX\r\nX:y\r\n\r\n2\r\n--XX--\r\n";
  for (std::size_t size = 0; size <= body.size(); ++size) {
    const std::string cut = body.substr(0, size);
    std::vector<FormPart> parts;
    const bool found = ParseMultipartForm(kType, cut, parts);
    EXPECT_EQ(found, size == 4 || size >= 6) << size;
    EXPECT_LE(parts.size(), 2U) << size;
  }
}

TEST(MultipartForm, ReadsParametersInAnyOrderAndForm) {
  const auto parts = Parse(
      "--XX\r\ncontent-disposition:form-data;filename=\"C:\\dir\\f;g.bin\" ; NAME=plain\r\nCONTENT-TYPE:a/b\r\n\r\n"
      "\r\n--XX\r\nContent-Disposition: form-data; name=\"open\r\n\r\nx\r\n--XX\r\nno colon\r\n\r\ny\r\n--XX--");
  ASSERT_EQ(parts.size(), 3U);
  EXPECT_EQ(parts[0].name, "plain");
  EXPECT_EQ(parts[0].file_name, "C:\\dir\\f;g.bin");
  EXPECT_EQ(parts[0].content_type, "a/b");
  EXPECT_EQ(parts[0].data, "");
  EXPECT_EQ(parts[1].name, "open");
  EXPECT_EQ(parts[2].name, "");
  EXPECT_EQ(parts[2].data, "y");
}

TEST(MultipartForm, NamesAreNotConfusedWithFileNames) {
  const auto parts = Parse("--XX\r\nContent-Disposition: form-data; filename=\"name=x\"\r\n\r\n\r\n--XX--");
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].name, "");
  EXPECT_EQ(parts[0].file_name, "name=x");
}

TEST(MultipartForm, ReturnsNoMorePartsThanAskedFor) {
  std::string body;
  for (int part = 0; part < 1000000; ++part) {
    body += "--XX\r\n\r\n\r\n";
  }
  body += "--XX--";
  EXPECT_EQ(Parse(body).size(), 1000U);
  std::vector<FormPart> parts;
  EXPECT_TRUE(ParseMultipartForm(kType, body, parts, 3));
  EXPECT_EQ(parts.size(), 3U);
}

TEST(MultipartForm, AFormInAFormIsData) {
  const std::string inner = "--YY\r\nContent-Disposition: form-data; name=\"n\"\r\n\r\nx\r\n--YY--\r\n";
  const std::string body = "--XX\r\nContent-Disposition: form-data; name=\"outer\"\r\n" +
                           ("Content-Type: multipart/mixed; boundary=YY\r\n\r\n" + inner) + "\r\n--XX--";
  const auto parts = Parse(body);
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].name, "outer");
  EXPECT_EQ(parts[0].data, inner);
}

TEST(MultipartForm, RepeatedNamesAreAllReturned) {
  const std::string part = "--XX\r\nContent-Disposition: form-data; name=n\r\n\r\n";
  const std::string body = part + "1\r\n" + part + "2\r\n" + part + "3\r\n--XX--";
  const auto parts = Parse(body);
  ASSERT_EQ(parts.size(), 3U);
  EXPECT_EQ(parts[0].data, "1");
  EXPECT_EQ(parts[2].data, "3");
}

TEST(MultipartForm, EmptyFormsHaveNoParts) {
  EXPECT_TRUE(Parse("--XX--").empty());
  EXPECT_TRUE(Parse("--XX--\r\n").empty());
}

}  // namespace
