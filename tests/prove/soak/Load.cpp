#include "Load.h"

#include <algorithm>
#include <fstream>
#include <thread>
#include <utility>

#include "support/PictureSystemTest.h"
#include "support/Program.h"
#include "support/S3Request.h"

namespace prove {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using system_tests::CConnection;
using system_tests::Outcome;
using system_tests::Reply;
using system_tests::Request;

constexpr std::size_t kClients = 6;
constexpr std::uint64_t kKeys = 40;
constexpr std::size_t kSmall = 40000;
constexpr std::size_t kOwnFile = 100000;  // too large for the log that small objects share
constexpr std::size_t kBig = 11000000;
constexpr std::size_t kLeastPart = 5242880;  // of several
constexpr std::size_t kMostWrong = 20;
const std::string kBucket = "soak";

bool OneIn(std::mt19937_64& dice, std::uint64_t number) {
  return dice() % number == 0;
}

}  // namespace

CLoad::CLoad(system_tests::CTansyd& tansyd, std::string folder, std::uint64_t seed)
    : tansyd_(tansyd), folder_(std::move(folder)), seed_(seed) {
  const Request request = system_tests::Signed({"PUT", "/" + kBucket, {}, "<CreateBucketConfiguration/>"});
  Expect(request, system_tests::Call(tansyd_.GetObjectPort(), request));
}

void CLoad::Work(milliseconds time, bool with_big_ones) {
  ++cycle_;
  const auto end = steady_clock::now() + time;
  std::vector<std::thread> clients;
  for (std::size_t client = 0; client < kClients; ++client) {
    clients.emplace_back([=, this] { WorkAlone(client, end, with_big_ones); });
  }
  for (std::thread& client : clients) {
    client.join();
  }
}

void CLoad::WorkAlone(std::size_t client, steady_clock::time_point end, bool with_big_ones) {
  Dice dice(seed_ * 1000003 + cycle_ * 101 + client);
  if (client == 0) {
    KeepOneConnection(dice, end);
    return;
  }
  while (steady_clock::now() < end) {
    DoSomething(dice, with_big_ones);
  }
}

// Most clients of a server keep their connection.
void CLoad::KeepOneConnection(Dice& dice, steady_clock::time_point end) {
  const auto connection = Open(dice);
  while (connection != nullptr && steady_clock::now() < end) {
    const std::string target = "/" + kBucket + "/" + Key(dice);
    const Request request = system_tests::Signed(
        OneIn(dice, 3) ? Request{"PUT", target, {}, Body(dice, 1 + dice() % kSmall)} : Request{"GET", target, {}, ""});
    connection->Send(system_tests::Serialize(request, tansyd_.GetObjectPort()));
    Expect(request, connection->Receive());
  }
}

void CLoad::DoSomething(Dice& dice, bool with_big_ones) {
  const std::string target = "/" + kBucket + "/" + Key(dice);
  if (OneIn(dice, 3)) {
    DoSomethingByS3(dice, with_big_ones);
    return;
  }
  switch (dice() % (with_big_ones ? 18 : 14)) {
    case 0:
    case 1:
    case 2:
      Ask(dice, {"PUT", target, {}, Body(dice, 1 + dice() % kSmall)});
      break;
    case 3:
    case 4:
      Ask(dice, {"GET", target, {}, ""});
      break;
    case 5:
      Ask(dice, {"GET", target + "?metadata", {}, ""});
      break;
    case 6:
      Ask(dice, {"PUT", target, {}, Body(dice, kOwnFile)});
      Ask(dice, {"DELETE", target + (OneIn(dice, 2) ? "?deletefile" : ""), {}, ""});
      break;
    case 7:
      Ask(dice, {"GET", "/", {}, ""});
      break;
    case 8:
      PutInParts(dice);
      break;
    case 9:
      PutPicture(dice);
      break;
    case 10:
      BreakOff(dice, kSmall);
      break;
    case 11:
      DripBody(dice);
      break;
    case 12:
    case 13:
      StayHalfOpen(dice);
      break;
    case 14:
      Ask(dice, {"PUT", target, {}, Body(dice, kBig)});
      break;
    case 15:
      BreakOff(dice, kBig);
      break;
    case 16:
      DripRead(dice);
      break;
    default:
      RunCommandLine(dice);
      break;
  }
}

void CLoad::PutInParts(Dice& dice) {
  const std::string target = "/" + kBucket + "/" + Key(dice);
  const std::string task = system_tests::XmlValue(Ask(dice, {"POST", target + "?uploads", {}, ""}).body, "UploadId");
  std::string xml = "<CompleteMultipartUpload><TotalPartNum>3</TotalPartNum>";
  for (int part = 3; part >= 1; --part) {
    const std::string number = std::to_string(part);
    Ask(dice, {"POST", target + "?upload_id=" + task + "&part_number=" + number, {}, Body(dice, 5000)});
    xml += "<Part><PartNumber>" + number + "</PartNumber><PartSize>5000</PartSize></Part>";
  }
  Ask(dice, {"POST", target + "?upload_id=" + task, {}, xml + "</CompleteMultipartUpload>"});
}

void CLoad::PutPicture(Dice& dice) {
  const std::string boundary = "----soak";
  const Request request = system_tests::FormRequest(
      boundary, system_tests::FormBody(boundary, system_tests::PictureFields(std::string(1 + dice() % 500, 'p'))));
  const Reply reply = system_tests::Call(tansyd_.GetPicturePort(), request);
  Expect(request, reply);
  const Request question = system_tests::Signed({"GET", system_tests::JsonText(reply.body, "PictureUrl"), {}, ""});
  Expect(question, system_tests::Call(tansyd_.GetPicturePort(), question));
}

void CLoad::BreakOff(Dice& dice, std::size_t size) {
  const auto connection = Open(dice);
  const Request request =
      system_tests::Signed({"PUT", "/" + kBucket + "/" + Key(dice), {{"Content-Length", std::to_string(size)}}, ""});
  if (connection != nullptr) {
    connection->Send(system_tests::Serialize(request, tansyd_.GetObjectPort()));
    connection->Send(Body(dice, dice() % size));
    connection->Reset();
  }
}

void CLoad::DripBody(Dice& dice) {
  const auto connection = Open(dice);
  const std::string body = Body(dice, 2000);
  const Request request = system_tests::Signed(
      {"PUT", "/" + kBucket + "/" + Key(dice), {{"Content-Length", std::to_string(body.size())}}, ""});
  if (connection == nullptr) {
    return;
  }
  connection->Send(system_tests::Serialize(request, tansyd_.GetObjectPort()));
  for (std::size_t at = 0; at < body.size(); at += 200) {
    connection->Send(body.substr(at, 200));
    std::this_thread::sleep_for(milliseconds(5));
  }
  Expect(request, connection->Receive());
}

// Takes a part of a large object slowly, and goes.
void CLoad::DripRead(Dice& dice) {
  const std::string target = "/" + kBucket + "/large";
  Ask(dice, {"PUT", target, {}, Body(dice, kBig)});
  const auto connection = Open(dice);
  if (connection == nullptr) {
    return;
  }
  connection->Send(system_tests::Serialize(system_tests::Signed({"GET", target, {}, ""}), tansyd_.GetObjectPort()));
  for (int i = 0; i < 20; ++i) {
    connection->ReceiveBytes(10000);
    std::this_thread::sleep_for(milliseconds(5));
  }
  if (OneIn(dice, 2)) {
    connection->Reset();
  }
}

// A connection of which nothing comes, or half a head, or no handshake.
void CLoad::StayHalfOpen(Dice& dice) {
  const bool to_tls = OneIn(dice, 2);
  const auto connection = CConnection::Open(to_tls ? tansyd_.GetObjectHttpsPort() : tansyd_.GetObjectPort());
  if (connection != nullptr) {
    connection->Send(OneIn(dice, 2) ? "" : "GET /soak/k HTTP/1.1\r\nHost: half");
    std::this_thread::sleep_for(milliseconds(dice() % 50));
    if (OneIn(dice, 2)) {
      connection->Reset();
    }
  }
}

void CLoad::RunCommandLine(Dice& dice) {
  const system_tests::Keys keys;
  system_tests::Invocation invocation;
  const std::string name = "file" + std::to_string(dice());
  std::ofstream(folder_ + "/" + name) << Body(dice, kSmall);
  invocation.arguments = {"put", name, "/" + kBucket + "/" + name};  // a name of its own: it looks at what it stored
  invocation.folder = folder_;
  invocation.environment = {{"HOME", folder_},
                            {"TANSY_SERVER", "http://127.0.0.1:" + std::to_string(tansyd_.GetObjectPort())},
                            {"TANSY_ACCESS_KEY", keys.access_key},
                            {"TANSY_SECRET_KEY", keys.secret_key}};
  const system_tests::Ended ended = system_tests::RunProgram(invocation);
  std::remove((folder_ + "/" + name).c_str());
  ++requests_;
  if (ended.code != 0) {
    const std::lock_guard lock(mutex_);
    wrong_.push_back("tansy put: " + ended.err);
    return;
  }
  Ask(dice, {"DELETE", "/" + kBucket + "/" + name + "?deletefile", {}, ""});
}

Reply CLoad::Ask(Dice& dice, const Request& request) {
  const Request signed_request = system_tests::Signed(request);
  const auto connection = Open(dice);
  Reply reply;
  if (connection != nullptr) {
    connection->Send(system_tests::Serialize(signed_request, tansyd_.GetObjectPort()));
    reply = connection->Receive();
  }
  Expect(signed_request, reply);
  return reply;
}

std::unique_ptr<CConnection> CLoad::Open(Dice& dice) {
  const bool tls = OneIn(dice, 3);
  system_tests::ConnectOptions options;
  options.tls = tls;
  return CConnection::Open(tls ? tansyd_.GetObjectHttpsPort() : tansyd_.GetObjectPort(), options);
}

std::unique_ptr<CConnection> CLoad::OpenS3(Dice& dice, std::uint16_t& port) {
  system_tests::ConnectOptions options;
  options.tls = OneIn(dice, 3);
  port = options.tls ? tansyd_.GetS3HttpsPort() : tansyd_.GetS3Port();
  return CConnection::Open(port, options);
}

Reply CLoad::AskS3(Dice& dice, const Request& request) {
  std::uint16_t port = 0;
  const auto connection = OpenS3(dice, port);
  const Request signed_request = system_tests::SignedS3(request, port);
  Reply reply;
  if (connection != nullptr) {
    connection->Send(system_tests::Serialize(signed_request, port));
    reply = connection->Receive();
  }
  Expect(signed_request, reply);
  return reply;
}

void CLoad::DoSomethingByS3(Dice& dice, bool with_big_ones) {
  const std::string key = Key(dice);
  const std::string target = "/" + kBucket + "/" + key;
  switch (dice() % 10) {
    case 0:
    case 1:
      AskS3(dice, {"PUT", target, {}, Body(dice, OneIn(dice, 4) ? kOwnFile : 1 + dice() % kSmall)});
      break;
    case 2:
      AskS3(dice, {"GET", target, {}, ""});
      break;
    case 3:
      AskS3(dice, {"PUT", target, {{"If-None-Match", "*"}}, Body(dice, kSmall)});
      break;
    case 4:
      AskS3(dice, {"GET", "/" + kBucket + "?list-type=2", {}, ""});
      break;
    case 5:
      AskS3(dice, {"DELETE", target, {}, ""});
      break;
    case 6:
      AskS3(dice, {"POST",
                   "/" + kBucket + "?delete=",
                   {},
                   "<Delete><Object><Key>" + key + "</Key></Object><Object><Key>none</Key></Object></Delete>"});
      break;
    case 7:
      // Onto itself an object is not copied.
      AskS3(dice, {"PUT", target + "-copy", {{"x-amz-copy-source", "/" + kBucket + "/" + Key(dice)}}, ""});
      break;
    case 8:
      PutInPartsByS3(dice, with_big_ones);
      break;
    default:
      StayAwayByS3(dice);
      break;
  }
}

// Some uploads are completed, some are ended, and some parts are sent twice.
void CLoad::PutInPartsByS3(Dice& dice, bool with_big_ones) {
  const std::string target = "/" + kBucket + "/" + Key(dice);
  const std::string upload =
      system_tests::XmlValue(AskS3(dice, {"POST", target + "?uploads=", {}, ""}).body, "UploadId");
  const int parts = with_big_ones && OneIn(dice, 4) ? 2 : 1;
  std::string xml = "<CompleteMultipartUpload>";
  for (int part = 1; part <= parts; ++part) {
    const std::string number = std::to_string(part);
    Reply reply;
    for (int sending = 0; sending < (OneIn(dice, 3) ? 2 : 1); ++sending) {
      reply = AskS3(dice, {"PUT",
                           target + "?partNumber=" + number + "&uploadId=" + upload,
                           {},
                           Body(dice, part < parts ? kLeastPart : kSmall)});
    }
    xml += "<Part><PartNumber>" + number + "</PartNumber><ETag>" + reply.Header("ETag") + "</ETag></Part>";
  }
  if (OneIn(dice, 3)) {
    AskS3(dice, {"DELETE", target + "?uploadId=" + upload, {}, ""});
  } else {
    AskS3(dice, {"POST", target + "?uploadId=" + upload, {}, xml + "</CompleteMultipartUpload>"});
  }
}

// A body that ends in its middle, or a connection that says nothing.
void CLoad::StayAwayByS3(Dice& dice) {
  std::uint16_t port = 0;
  const auto connection = OpenS3(dice, port);
  if (connection == nullptr) {
    return;
  }
  if (OneIn(dice, 2)) {
    const Request request = {
        "PUT", "/" + kBucket + "/" + Key(dice), {{"Content-Length", std::to_string(kOwnFile)}}, ""};
    connection->Send(system_tests::Serialize(system_tests::SignedS3(request, port), port));
    connection->Send(Body(dice, dice() % kOwnFile));
  }
  std::this_thread::sleep_for(milliseconds(dice() % 20));
  connection->Reset();
}

void CLoad::Expect(const Request& request, const Reply& reply) {
  ++requests_;
  // Other clients remove objects all the time, and complete uploads of parts over each other.
  const bool is_right = reply.status == 200 || reply.status == 204 || Outcome(reply) == "404 NoSuchKey" ||
                        Outcome(reply) == "412 PreconditionFailed";
  if (!is_right || !reply.is_whole) {
    const std::lock_guard lock(mutex_);
    wrong_.push_back(request.method + " " + request.target + ": " + Outcome(reply));
  }
}

std::vector<std::string> CLoad::GetWrong() const {
  const std::lock_guard lock(mutex_);
  return {wrong_.begin(), wrong_.begin() + static_cast<std::ptrdiff_t>(std::min(wrong_.size(), kMostWrong))};
}

std::string CLoad::Key(Dice& dice) {
  return "key" + std::to_string(dice() % kKeys);
}

std::string CLoad::Body(Dice& dice, std::size_t size) {
  return std::string(size, static_cast<char>('a' + dice() % 26));
}

}  // namespace prove
