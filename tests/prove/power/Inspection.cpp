#include "Inspection.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "Workload.h"
#include "support/S3Request.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using system_tests::Call;
using system_tests::Outcome;
using system_tests::Reply;
using system_tests::Signed;

constexpr const char* kMoreContent = "written after the power came back";

Reply Get(std::uint16_t port, const std::string& target) {
  return Call(port, Signed({"GET", target, {}, ""}));
}

bool IsOneOf(const Reply& reply, const std::set<std::string>& bodies) {
  return reply.status == 200 && reply.is_whole &&
         std::any_of(bodies.begin(), bodies.end(), [&](const std::string& body) { return reply.body == BodyOf(body); });
}

bool IsAsPromised(const Reply& reply, const Possible& possible) {
  const bool is_missing = Outcome(reply) == "404 NoSuchKey";
  const bool is_half_removed = Outcome(reply) == "500 ServerInternalError";
  return IsOneOf(reply, possible.bodies) || (is_missing && possible.may_be_missing) ||
         (is_half_removed && possible.may_be_half_removed);
}

std::string Describe(const Possible& possible) {
  std::string text = possible.may_be_missing ? "nothing" : "";
  for (const std::string& body : possible.bodies) {
    text += (text.empty() ? "" : " or ") + body;
  }
  return text + (possible.may_be_half_removed ? " or half removed" : "");
}

std::string Describe(const Reply& reply) {
  return Outcome(reply) + ", " + std::to_string(reply.body.size()) + " bytes";
}

// The size that a listing gives for a part; -1 when it is not there.
long long PartSize(const std::string& listing, int part) {
  const std::string mark = "<PartNumber>" + std::to_string(part) + "</PartNumber><PartSize>";
  const std::size_t found = listing.find(mark);
  return found == std::string::npos ? -1 : std::stoll(listing.substr(found + mark.size()));
}

// The entity tag that a listing by S3 gives for a part; empty when it is not there.
std::string PartTag(const std::string& listing, int part) {
  const std::size_t found = listing.find("<PartNumber>" + std::to_string(part) + "</PartNumber>");
  return found == std::string::npos ? "" : system_tests::XmlValue(listing.substr(found), "ETag");
}

}  // namespace

CInspection::CInspection(const std::string& folder, const system_tests::Launch& launch)
    : folder_(folder), launch_(launch), server_(folder) {
  Clear();
}

void CInspection::Clear() {
  std::filesystem::remove_all(server_.Data());
  std::filesystem::create_directories(server_.Data());
  std::filesystem::remove(folder_ + "/data.log");
  std::filesystem::remove(folder_ + "/data.err");
}

std::string CInspection::GetErrors() const {
  std::istringstream log(server_.GetLog());
  std::string errors = server_.GetErrors();
  for (std::string line; std::getline(log, line);) {
    // That an object is not there is what many of the questions expect.
    if (line.find(" error ") != std::string::npos && line.find("not exist") == std::string::npos) {
      errors += line + "\n";
    }
  }
  return errors;
}

void CInspection::Expect(bool is_true, const std::string& line) {
  if (!is_true) {
    broken_.push_back(line);
  }
}

Reply CInspection::Send(const std::string& method, const std::string& target, const std::string& body) const {
  return Call(server_.GetObjectPort(), Signed({method, target, {}, body}));
}

std::vector<std::string> CInspection::Run(const Promises& promises, const InspectionOptions& options) {
  broken_.clear();
  written_.clear();
  if (!Start(launch_)) {
    return broken_;
  }
  broken_ = Look(server_, promises);
  if (broken_.empty() && promises.buckets.count("b") > 0 && !promises.buckets.at("b").may_be_missing) {
    GoOn(promises);
  }
  server_.Kill();
  if (broken_.empty()) {
    RepairSpace();
  }
  if (broken_.empty() && options.starts_twice && Start(launch_)) {
    for (const auto& [target, content] : written_) {
      const Reply reply = Get(server_.GetObjectPort(), target);
      Expect(reply.status == 200 && reply.body == content,
             "after the second start: " + target + ": " + Describe(reply));
    }
    server_.Kill();
  }
  return broken_;
}

std::vector<std::string> CInspection::RunUntilStopped(const Promises& promises, const system_tests::Launch& launch) {
  broken_.clear();
  if (Start(launch)) {
    broken_ = Look(server_, promises);
    server_.Signal(SIGTERM);
    Expect(server_.WaitForEnd().code == 0, "the server does not stop");
    server_.Kill();
  }
  return broken_;
}

// A server that does not start is a broken promise too, not a failure of the test's own.
bool CInspection::Start(const system_tests::Launch& launch) {
  testing::TestPartResultArray failures;
  bool started = false;
  {
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    started = server_.Start(launch);
  }
  for (int i = 0; i < failures.size(); ++i) {
    broken_.push_back(std::string("the start: ") + failures.GetTestPartResult(i).message());
  }
  return started;
}

std::vector<std::string> CInspection::Look(const system_tests::CTansyd& server, const Promises& promises) {
  std::vector<std::string> broken;
  const auto expect = [&broken](bool is_true, const std::string& line) {
    if (!is_true) {
      broken.push_back(line);
    }
  };
  for (const auto& [name, possible] : promises.buckets) {
    const Reply reply = Get(server.GetObjectPort(), "/" + name + "?property");
    const bool is_there = reply.status == 200;
    expect(is_there || (Outcome(reply) == "404 NoSuchBucket" && possible.may_be_missing),
           "bucket " + name + ": " + Describe(reply));
  }
  for (const auto& [key, possible] : promises.objects) {
    const Reply reply = Get(server.GetObjectPort(), "/b/" + key);
    expect(IsAsPromised(reply, possible) || (Outcome(reply) == "404 NoSuchBucket" && possible.may_be_missing),
           "object " + key + ": " + Describe(reply) + ", promised " + Describe(possible));
  }
  for (const auto& [address, body] : promises.pictures) {
    const Reply reply = Get(server.GetPicturePort(), address);
    expect(IsOneOf(reply, {body}), "picture " + address + ": " + Describe(reply) + ", promised " + body);
  }
  for (const auto& [task, open] : promises.tasks) {
    const Reply listing = Get(server.GetObjectPort(), "/b/" + open.key + "?upload_id=" + task);
    if (listing.status != 200 && open.may_be_complete) {
      continue;
    }
    expect(listing.status == 200, "upload " + task + " of " + open.key + ": " + Describe(listing));
    for (const auto& [part, possible] : open.parts) {
      const long long size = PartSize(listing.body, part);
      const bool is_one = std::any_of(possible.bodies.begin(), possible.bodies.end(), [size](const std::string& body) {
        return size == static_cast<long long>(BodyOf(body).size());
      });
      expect(is_one || (size <= 0 && possible.may_be_missing), "part " + std::to_string(part) + " of upload " + task +
                                                                   ": size " + std::to_string(size) + ", promised " +
                                                                   Describe(possible));
    }
  }
  for (const auto& [upload, open] : promises.s3_uploads) {
    const std::uint16_t port = server.GetS3Port();
    const Reply listing =
        Call(port, system_tests::SignedS3({"GET", "/b/" + open.key + "?uploadId=" + upload, {}, ""}, port));
    if (Outcome(listing) == "404 NoSuchUpload" && open.may_be_complete) {
      continue;
    }
    expect(listing.status == 200, "S3 upload " + upload + " of " + open.key + ": " + Describe(listing));
    for (const auto& [part, possible] : open.parts) {
      const std::string tag = PartTag(listing.body, part);
      const bool is_one = std::any_of(possible.bodies.begin(), possible.bodies.end(), [&tag](const std::string& body) {
        return tag.find(EntityTag(BodyOf(body))) != std::string::npos;
      });
      expect(is_one || (tag.empty() && possible.may_be_missing), "part " + std::to_string(part) + " of S3 upload " +
                                                                     upload + ": tag " + tag + ", promised " +
                                                                     Describe(possible));
    }
  }
  return broken;
}

// What clients do next must work: half removed objects are removed again, uploads go on, and new objects are written.
void CInspection::GoOn(const Promises& promises) {
  for (const auto& [key, possible] : promises.objects) {
    if (possible.may_be_half_removed && Send("GET", "/b/" + key).status == 500) {
      const std::string outcome = Outcome(Send("DELETE", "/b/" + key + "?deletefile"));
      Expect(outcome == "200", "removing " + key + " again: " + outcome);
    }
  }
  CompleteTasks(promises);
  WriteMore();
  for (const auto& [key, possible] : promises.objects) {
    const Reply reply = Send("GET", "/b/" + key);
    if (reply.status == 200) {
      written_.emplace_back("/b/" + key, reply.body);
    }
  }
}

void CInspection::CompleteTasks(const Promises& promises) {
  for (const auto& [task, open] : promises.tasks) {
    const std::string target = "/b/" + open.key + "?upload_id=" + task;
    if (Send("GET", target).status != 200) {
      continue;
    }
    std::string whole;
    for (const auto& [part, possible] : open.parts) {
      if (possible.bodies.empty()) {
        break;
      }
      // A part of which nobody knows what it holds is sent again.
      const std::string& body = *possible.bodies.rbegin();
      if (possible.may_be_missing || possible.bodies.size() > 1) {
        const std::string outcome =
            Outcome(Send("POST", target + "&part_number=" + std::to_string(part), BodyOf(body)));
        Expect(outcome == "200", "sending part " + std::to_string(part) + " of " + task + " again: " + outcome);
      }
      whole += (whole.empty() ? "" : ",") + body;
    }
    const bool has_all = !open.parts.empty() && open.parts.begin()->first == 1 &&
                         open.parts.rbegin()->first == static_cast<int>(open.parts.size());
    if (!has_all) {
      continue;
    }
    const std::string outcome = Outcome(Send("POST", target, CompletionXml(whole)));
    Expect(outcome == "200", "completing upload " + task + " of " + open.key + ": " + outcome);
    const Reply reply = Send("GET", "/b/" + open.key);
    Expect(IsOneOf(reply, {whole}), "object " + open.key + " of upload " + task + ": " + Describe(reply));
  }
}

void CInspection::WriteMore() {
  for (const std::string target : {"/b/more-1", "/b/more-2"}) {
    for (const std::string content : {"first", kMoreContent}) {
      const std::string outcome = Outcome(Send("PUT", target, content));
      Expect(outcome == "200", "a new object: " + outcome);
    }
    written_.emplace_back(target, kMoreContent);
  }
}

// Bytes that nothing refers to can be found and freed, and no row is left without its bytes.
void CInspection::RepairSpace() {
  system_tests::Launch check = launch_;
  check.with_ports = false;
  for (const bool repairs : {true, false}) {
    check.arguments = launch_.arguments;
    check.arguments.emplace_back("--check");
    if (repairs) {
      check.arguments.insert(check.arguments.end(), {"--repair", "--force"});
    }
    const system_tests::Ended ended = server_.RunToEnd(check);
    const bool is_clean = ended.out.find(" 0 orphans") != std::string::npos || repairs;
    Expect(ended.code == 0 && ended.out.find(" 0 damaged") != std::string::npos && is_clean,
           (repairs ? "repair: exit code " : "check behind the repair: exit code ") + std::to_string(ended.code) +
               "\n" + ended.out + ended.err);
  }
}

}  // namespace prove
