#include "Workload.h"

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

#include "support/PictureSystemTest.h"
#include "support/S3Request.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using system_tests::Call;
using system_tests::Reply;

constexpr std::size_t kInPieces = 10485760;  // larger bodies arrive in pieces
constexpr int kSharedKeys = 3;
constexpr int kOwnKeys = 5;
constexpr std::size_t kNumbersOfAClient = 1000000;
constexpr int kMostClients = 100;

std::string S3CompletionXml(const std::string& body) {
  std::string parts;
  int count = 0;
  std::istringstream pieces(body);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    parts += "<Part><PartNumber>" + std::to_string(++count) + "</PartNumber><ETag>" + EntityTag(BodyOf(piece)) +
             "</ETag></Part>";
  }
  return "<CompleteMultipartUpload>" + parts + "</CompleteMultipartUpload>";
}

system_tests::Request MakeRequest(const Request& request, const std::string& content) {
  const std::string path = "/b/" + request.key;
  switch (request.kind) {
    case ERequest::kBucket:
      return {"PUT", "/" + request.key, {}, "<CreateBucketConfiguration/>"};
    case ERequest::kPut:
      return {"PUT", path, {}, content};
    case ERequest::kRemove:
      return {"DELETE", path + "?deletefile", {}, ""};
    case ERequest::kDelete:
      return {"DELETE", path, {}, ""};
    case ERequest::kBegin:
      return {"POST", path + "?uploads", {}, ""};
    case ERequest::kPart:
      return {
          "POST", path + "?upload_id=" + request.task + "&part_number=" + std::to_string(request.part), {}, content};
    case ERequest::kComplete:
      return {"POST", path + "?upload_id=" + request.task, {}, CompletionXml(request.body)};
    default:
      return {};
  }
}

system_tests::Request MakeS3Request(const Request& request, const std::string& content) {
  const std::string path = "/b/" + request.key;
  switch (request.kind) {
    case ERequest::kPutByS3:
      return {"PUT", path, {}, content};
    case ERequest::kPutNewByS3:
      return {"PUT", path, {{"If-None-Match", "*"}}, content};
    case ERequest::kRemoveByS3:
      return {"DELETE", path, {}, ""};
    case ERequest::kCopyByS3:
      return {"PUT", path, {{"x-amz-copy-source", "/b/" + request.task}}, ""};
    case ERequest::kBeginByS3:
      return {"POST", path + "?uploads=", {}, ""};
    case ERequest::kPartByS3:
      return {"PUT", path + "?partNumber=" + std::to_string(request.part) + "&uploadId=" + request.task, {}, content};
    case ERequest::kCompleteByS3:
      return {"POST", path + "?uploadId=" + request.task, {}, S3CompletionXml(request.body)};
    default:
      return {};
  }
}

// One client. Its numbers of requests and of bodies are its own.
class CClient {
 public:
  CClient(system_tests::CTansyd& server, CTraceMarks& marks, const WorkloadOptions& options, int number,
          std::atomic<int>& big)
      : server_(server),
        marks_(marks),
        random_(options.seed * 1000 + static_cast<std::uint64_t>(options.run * kMostClients + number)),
        next_(static_cast<std::size_t>(options.run * kMostClients + number + 1) * kNumbersOfAClient),
        number_(number),
        has_faults_(options.has_faults),
        has_pictures_(options.has_pictures),
        big_(big) {}

  void Run(int requests) {
    for (int i = 0; i < requests; ++i) {
      const std::uint64_t what = random_() % 100;
      if (what < 55) {
        Put();
      } else if (what < 70) {
        Do(random_() % 4 == 0 ? ERequest::kDelete : ERequest::kRemove, Key());
      } else if (what < 82 && has_pictures_) {
        Picture();
      } else if (what < 85) {
        Do(ERequest::kBucket, "extra-" + std::to_string(next_));
      } else {
        Multipart();
      }
    }
  }
  const std::vector<std::string>& GetSurprises() const { return surprises_; }

 private:
  std::string Key() {
    const bool is_shared = random_() % 8 == 0;
    return is_shared ? "shared-" + std::to_string(random_() % kSharedKeys)
                     : "c" + std::to_string(number_) + "-" + std::to_string(random_() % kOwnKeys);
  }
  std::string Body(std::size_t size) { return BodySpec(next_, size); }
  std::size_t Size() {
    switch (random_() % 6) {
      case 0:
        return 1 + random_() % 100;
      case 1:
        return 60000 + random_() % 10000;
      case 2:
        return 1 + random_() % 300000;
      default:
        return 1 + random_() % 9000;
    }
  }

  // Gives the answer's extra, or "-" when it has none; "" for a request that was refused.
  std::string Do(ERequest kind, const std::string& key, const std::string& body = "-", const std::string& task = "-",
                 int part = 0) {
    Request request;
    request.number = next_++;
    request.kind = kind;
    request.key = key;
    request.body = kind == ERequest::kBucket ? "made" : body;
    request.task = task;
    request.part = part;
    std::string extra;
    const std::string outcome = Send(server_, marks_, request, &extra);
    const bool may_be_missing = kind == ERequest::kRemove || kind == ERequest::kDelete;
    const bool is_refused = outcome == "404 NoSuchKey" ? may_be_missing : has_faults_ && outcome != "0";
    if (outcome != "200" && !is_refused) {
      surprises_.push_back(request.BeginLine() + ": " + outcome);
    }
    return outcome != "200" ? "" : extra.empty() ? "-" : extra;
  }
  bool TakesPart(const std::string& key, const std::string& body, const std::string& task, int part) {
    return !Do(ERequest::kPart, key, body, task, part).empty();
  }

  void Put() {
    const bool is_big = random_() % 10 == 0 && --big_ >= 0;
    Do(ERequest::kPut, Key(), Body(is_big ? kInPieces + 1 + random_() % 300000 : Size()));
  }
  void Picture() { Do(ERequest::kPicture, "-", Body(1 + random_() % 20000)); }

  void Multipart() {
    const std::string key = Key();
    const std::string task = Do(ERequest::kBegin, key);
    if (task.empty()) {
      return;
    }
    const int count = 1 + static_cast<int>(random_() % 4);
    const std::size_t size = 1 + random_() % 9000;
    std::map<int, std::string> parts;
    bool all_taken = true;
    std::vector<int> order;
    for (int part = 1; part <= count; ++part) {
      order.push_back(part);
    }
    std::shuffle(order.begin(), order.end(), random_);
    if (random_() % 3 == 0) {
      order.push_back(1 + static_cast<int>(random_() % static_cast<unsigned>(count)));  // one is sent again
    }
    for (const int part : order) {
      const std::size_t length = part == count ? 1 + (random_() % size) : size;
      const std::string body = Body(parts.count(part) > 0 ? BodyOf(parts[part]).size() : length);
      parts[part] = body;
      all_taken = TakesPart(key, body, task, part) && all_taken;
    }
    // Of a part that was refused nobody knows whether it holds the new bytes or those that it held before.
    if (!all_taken || random_() % 5 == 0) {
      return;  // nobody completes it
    }
    std::string whole;
    for (const auto& [part, body] : parts) {
      whole += (whole.empty() ? "" : ",") + body;
    }
    Do(ERequest::kComplete, key, whole, task);
  }

  system_tests::CTansyd& server_;
  CTraceMarks& marks_;
  std::mt19937_64 random_;
  std::size_t next_;
  const int number_;
  const bool has_faults_;
  const bool has_pictures_;
  std::atomic<int>& big_;
  std::vector<std::string> surprises_;
};

}  // namespace

std::string CompletionXml(const std::string& body) {
  std::string parts;
  int count = 0;
  std::istringstream pieces(body);
  for (std::string piece; std::getline(pieces, piece, ',');) {
    parts += "<Part><PartNumber>" + std::to_string(++count) + "</PartNumber><PartSize>" +
             piece.substr(piece.find(':') + 1) + "</PartSize></Part>";
  }
  return "<CompleteMultipartUpload><TotalPartNum>" + std::to_string(count) + "</TotalPartNum>" + parts +
         "</CompleteMultipartUpload>";
}

std::string EntityTag(const std::string& content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(content.data(), content.size(), digest, &size, EVP_md5(), nullptr);
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string tag;
  for (unsigned int i = 0; i < size; ++i) {
    tag += kDigits[digest[i] >> 4];
    tag += kDigits[digest[i] & 15];
  }
  return tag;
}

std::string Send(system_tests::CTansyd& server, CTraceMarks& marks, Request request, std::string* extra) {
  const bool has_content = request.kind == ERequest::kPut || request.kind == ERequest::kPart ||
                           request.kind == ERequest::kPicture || request.kind == ERequest::kPutByS3 ||
                           request.kind == ERequest::kPutNewByS3 || request.kind == ERequest::kPartByS3;
  const std::string content = has_content ? BodyOf(request.body) : "";
  marks.Write(request.BeginLine());
  Reply reply;
  std::string more;
  if (request.kind == ERequest::kPicture) {
    const std::string boundary = "----boundary4711";
    reply = Call(server.GetPicturePort(),
                 system_tests::FormRequest(boundary, FormBody(boundary, system_tests::PictureFields(content))));
    more = system_tests::JsonText(reply.body, "PictureUrl");
  } else if (IsByS3(request.kind)) {
    const std::uint16_t port = server.GetS3Port();
    reply = Call(port, system_tests::SignedS3(MakeS3Request(request, content), port));
    more = system_tests::XmlValue(reply.body, "UploadId");
  } else {
    reply = Call(server.GetObjectPort(), system_tests::Signed(MakeRequest(request, content)));
    more = system_tests::XmlValue(reply.body, "UploadId");
  }
  const bool is_removed = request.kind == ERequest::kRemoveByS3 && reply.status == 204;
  const std::string outcome = is_removed ? "200" : system_tests::Outcome(reply);
  marks.Write(Request::EndLine(request.number, outcome, more));
  if (extra != nullptr) {
    *extra = more;
  }
  return outcome;
}

std::vector<std::string> RunWorkload(system_tests::CTansyd& server, CTraceMarks& marks,
                                     const WorkloadOptions& options) {
  std::vector<std::string> surprises;
  if (options.run == 0) {
    Request bucket;
    bucket.kind = ERequest::kBucket;
    bucket.key = "b";
    bucket.body = "made";
    if (const std::string outcome = Send(server, marks, bucket); outcome != "200") {
      surprises.push_back("the bucket: " + outcome);
      return surprises;
    }
  }
  std::atomic<int> big{options.big_bodies};
  std::vector<CClient> clients;
  for (int i = 0; i < options.clients; ++i) {
    clients.emplace_back(server, marks, options, i, big);
  }
  std::vector<std::thread> threads;
  for (CClient& client : clients) {
    threads.emplace_back([&client, &options] { client.Run(options.requests); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const CClient& client : clients) {
    surprises.insert(surprises.end(), client.GetSurprises().begin(), client.GetSurprises().end());
  }
  return surprises;
}

}  // namespace prove
