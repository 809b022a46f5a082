#include "support/PictureSystemTest.h"

#include <cctype>
#include <fstream>
#include <iterator>
#include <map>

namespace system_tests {
namespace {

// The errors that this server gives, as they are on the wire.
const std::map<int, std::string> kMessages = {
    {-50001, "\xbd\xe2\xce\xf6\xca\xfd\xbe\xdd\xb4\xed\xce\xf3,HTTP\xd0\xad\xd2\xe9\xb4\xe6\xd4\xda\xce\xca\xcc\xe2"},
    {-50002, "\xcf\xf2\xd4\xc6\xb4\xe6\xb4\xa2\xc9\xea\xc7\xeb\xd7\xca\xd4\xb4\xb3\xf6\xb4\xed"},
    {-50003, "\xca\xe4\xc8\xeb\xb5\xc4\xb2\xce\xca\xfd\xb4\xed\xce\xf3"},
    {-50004, "\xb7\xfe\xce\xf1\xc6\xf7\xc4\xda\xb2\xbf\xd2\xec\xb3\xa3"},
    {-58002,
     "\xb7\xc3\xce\xca\xb1\xbb\xbe\xdc\xbe\xf8\xa3\xac\xd5\xaa\xd2\xaa\xd1\xe9\xd6\xa4\xb2\xbb\xcd\xa8\xb9\xfd"},
    {-58003, "\xd5\xcb\xba\xc5\xd2\xec\xb3\xa3"},
};

std::string PercentEncode(const std::string& text) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      encoded += c;
    } else {
      encoded += '%';
      encoded += kDigits[static_cast<unsigned char>(c) >> 4];
      encoded += kDigits[static_cast<unsigned char>(c) & 15];
    }
  }
  return encoded;
}

}  // namespace

std::string FormBody(const std::string& boundary, const std::vector<FormField>& fields, bool closed) {
  std::string body;
  for (const FormField& field : fields) {
    body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + field.name + "\"" + field.more +
            "\r\n\r\n" + field.value + "\r\n";
  }
  return closed ? body + "--" + boundary + "--\r\n" : body;
}

std::vector<FormField> PictureFields(const std::string& bytes, const std::string& length) {
  return {{"SerialID", "1"},
          {"PoolID", "1"},
          {"TimeStamp", "1795248000000"},
          {"PictureType", "1"},
          {"Token", "any"},
          {"PictureLength", length},
          {"Picture", bytes, "; filename=\"a.jpg\"\r\nContent-Type: image/jpeg"}};
}

std::vector<FormField> PictureFields(const std::string& bytes) {
  return PictureFields(bytes, std::to_string(bytes.size()));
}

Request FormRequest(const std::string& boundary, const std::string& body, const Keys& keys) {
  Request request = Signed({"POST", kWritePath, {{"Content-Type", "multipart/form-data"}}, body}, keys);
  request.headers[0].second += "; boundary=" + boundary;
  return request;
}

std::string SignedLink(const std::string& address, const Keys& keys) {
  const std::string signature = Signature("GET\n\n\n1795248000\n\n" + address, keys.secret_key);
  return address + "&AccessKeyId=" + keys.access_key + "&Expires=1795248000&Signature=" + PercentEncode(signature);
}

std::string PictureError(int code) {
  return "{\"ErrorCode\": " + std::to_string(code) + ", \"Message\": \"" + kMessages.at(code) + "\"}";
}

std::string JsonText(const std::string& json, const std::string& member) {
  const std::string mark = "\"" + member + "\":\"";
  const std::size_t begin = json.find(mark);
  const std::size_t end = begin == std::string::npos ? begin : json.find('"', begin + mark.size());
  return end == std::string::npos ? "" : json.substr(begin + mark.size(), end - begin - mark.size());
}

std::string SamplePicture(const std::string& name) {
  std::ifstream file(std::string(TANSY_TEST_PICTURES) + "/" + name, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  EXPECT_FALSE(bytes.empty()) << name;
  return bytes;
}

Reply PictureSystemTest::Ask(const Request& request, const ConnectOptions& options) const {
  return Call(options.tls ? server_.GetPictureHttpsPort() : server_.GetPicturePort(), request, options);
}

Reply PictureSystemTest::SendPicture(const std::string& method, const std::string& target, const std::string& body,
                                     const HeaderList& headers, const ConnectOptions& options) const {
  return Ask(Signed({method, target, headers, body}), options);
}

Reply PictureSystemTest::Upload(const std::string& bytes, const ConnectOptions& options) const {
  return Ask(FormRequest(kBoundary, FormBody(kBoundary, PictureFields(bytes))), options);
}

std::string PictureSystemTest::Store(const std::string& bytes, const ConnectOptions& options) const {
  const Reply reply = Upload(bytes, options);
  EXPECT_EQ(PictureOutcome(reply), "200") << reply.body << server_.GetLog();
  const std::string address = JsonText(reply.body, "PictureUrl");
  EXPECT_THAT(address, testing::MatchesRegex("/pic[?]id=pc01[0-9a-f]{2}-[0-9a-f]{2}-[0-9a-f]{32}[.]d")) << reply.body;
  return address;
}

std::string PictureSystemTest::PictureOutcome(const Reply& reply) {
  const std::string mark = "{\"ErrorCode\": ";
  const bool is_error = reply.body.compare(0, mark.size(), mark) == 0;
  const std::string code = is_error ? reply.body.substr(mark.size(), reply.body.find(',') - mark.size()) : "";
  return std::to_string(reply.status) + (code.empty() ? "" : " " + code);
}

std::uint64_t PictureSystemTest::PeakMemory() const {
  std::ifstream status("/proc/" + std::to_string(server_.GetPid()) + "/status");
  std::uint64_t kilobytes = 0;
  for (std::string word; status >> word;) {
    if (word == "VmHWM:") {
      status >> kilobytes;
    }
  }
  EXPECT_NE(kilobytes, 0U);
  return kilobytes * 1024;
}

Ended PictureSystemTest::Check(const std::vector<std::string>& arguments) {
  Launch check;
  check.with_ports = false;
  check.arguments = {"--check"};
  check.arguments.insert(check.arguments.end(), arguments.begin(), arguments.end());
  return server_.RunToEnd(check);
}

}  // namespace system_tests
