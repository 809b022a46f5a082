#include "support/S3Curl.h"

#include <cstdlib>
#include <sstream>

#include "support/Program.h"

namespace system_tests {

Reply CS3Curl::Send(const std::string& method, const std::string& path, const std::string& body,
                    const HeaderList& headers) {
  const Keys keys;
  folder_.Write("body", body);
  Invocation curl;
  curl.program = "/usr/bin/curl";
  curl.folder = folder_.GetPath();
  curl.arguments = {"--silent",
                    "--aws-sigv4",
                    "aws:amz:us-east-1:s3",
                    "--user",
                    keys.access_key + ":" + keys.secret_key,
                    "--header",
                    "Expect:",
                    "--header",
                    "x-amz-content-sha256: UNSIGNED-PAYLOAD",
                    "--request",
                    method,
                    "--output",
                    folder_.Path("answer"),
                    "--dump-header",
                    folder_.Path("head"),
                    "--write-out",
                    "%{http_code}"};
  for (const auto& [name, value] : headers) {
    curl.arguments.insert(curl.arguments.end(), {"--header", name + ": " + value});
  }
  if (!body.empty()) {
    curl.arguments.insert(curl.arguments.end(), {"--data-binary", "@" + folder_.Path("body")});
  }
  curl.arguments.push_back("http://127.0.0.1:" + std::to_string(server_.GetS3Port()) + path);
  folder_.Write("answer", "");
  folder_.Write("head", "");
  const Ended ended = RunProgram(curl);
  Reply reply;
  reply.status = std::atoi(ended.out.c_str());
  reply.body = folder_.Read("answer");
  std::istringstream head(folder_.Read("head"));
  for (std::string line; std::getline(head, line);) {
    const std::size_t end = line.find(": ");
    if (end != std::string::npos) {
      reply.headers.emplace_back(line.substr(0, end), line.substr(end + 2, line.find('\r') - end - 2));
    }
  }
  return reply;
}

std::string CS3Curl::Begin(const std::string& path) {
  return XmlValue(Send("POST", path + "?uploads=").body, "UploadId");
}

std::string CS3Curl::PutPart(const std::string& path, const std::string& upload, int number, const std::string& body) {
  const Reply reply = Send("PUT", path + "?partNumber=" + std::to_string(number) + "&uploadId=" + upload, body);
  const std::string head = folder_.Read("head");
  const std::size_t begin = head.find("ETag: \"");
  if (reply.status != 200 || begin == std::string::npos) {
    return {};
  }
  return head.substr(begin + 7, head.find('"', begin + 7) - begin - 7);
}

Reply CS3Curl::Complete(const std::string& path, const std::string& upload, const std::vector<std::string>& etags) {
  std::string xml = "<CompleteMultipartUpload>";
  for (std::size_t i = 0; i < etags.size(); ++i) {
    xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" + etags[i] + "</ETag></Part>";
  }
  return Send("POST", path + "?uploadId=" + upload, xml + "</CompleteMultipartUpload>");
}

}  // namespace system_tests
