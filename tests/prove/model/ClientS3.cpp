// What a client does by the S3 protocol, with the same objects.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "Client.h"
#include "support/S3Request.h"
#include "support/TansydTest.h"

namespace prove {
namespace {

using system_tests::HeaderList;
using system_tests::Outcome;
using system_tests::XmlValue;

// The texts between <name> and </name>.
std::vector<std::string> XmlValues(const std::string& xml, const std::string& name) {
  std::vector<std::string> values;
  const std::string open = "<" + name + ">";
  for (std::size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at + 1)) {
    const std::size_t begin = at + open.size();
    values.push_back(xml.substr(begin, xml.find("</" + name + ">", begin) - begin));
  }
  return values;
}

std::string PartsXml(const std::map<std::size_t, std::string>& tags) {
  std::ostringstream xml;
  xml << "<CompleteMultipartUpload>";
  for (const auto& [part, tag] : tags) {
    xml << "<Part><PartNumber>" << part + 1 << "</PartNumber><ETag>" << tag << "</ETag></Part>";
  }
  xml << "</CompleteMultipartUpload>";
  return xml.str();
}

}  // namespace

CClient::Answer CClient::AskS3(const system_tests::Request& request, int node, bool may_fail) {
  const Place place = {node, EDoor::kS3};
  for (;;) {
    const int steps = world_.GetClockSteps();
    const std::time_t now = std::time(nullptr) + world_.GetClockOf(node);
    const Answer answer = Receive(place, system_tests::SignedS3(request, PortOf(place), now), may_fail);
    // The server's clock was set between the signature and the look at it.
    const bool was_set = steps % 2 != 0 || world_.GetClockSteps() != steps;
    if (!was_set || Outcome(answer.reply) != "403 RequestTimeTooSkewed") {
      return answer;
    }
  }
}

bool CClient::PutByS3(const Step& step) {
  const std::string key = HistoryKey(step.bucket, step.key);
  const Recipe recipe = {step.version, step.size, 0, {}};
  Announce(key, recipe);
  const Answer answer = AskS3({"PUT", Target(step), {}, MakeBody(recipe)}, NodeOf(step));
  if (answer.state == EState::kUnknown || answer.Is(200)) {
    Note(answer, key, EKind::kWrite, step.version);
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 PUT " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::PutNew(const Step& step) {
  const std::string key = HistoryKey(step.bucket, step.key);
  const Recipe recipe = {step.version, step.size, 0, {}};
  Announce(key, recipe);
  const Answer answer = AskS3({"PUT", Target(step), {{"If-None-Match", "*"}}, MakeBody(recipe)}, NodeOf(step));
  if (answer.state == EState::kUnknown || answer.Is(200)) {
    Note(answer, key, EKind::kCreate, step.version);
  } else if (answer.Is(412)) {
    Note(answer, key, EKind::kSee, kAbsent);
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 PUT of what is new, " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::FindTag(const Step& step, const std::string& key, std::string& tag, Version& version, bool& is_answered) {
  const Answer answer = AskS3({"GET", "/" + step.bucket + "/" + key, {}, ""}, NodeOf(step));
  is_answered = answer.state == EState::kAnswered;
  version = is_answered ? NoteBytes(answer, HistoryKey(step.bucket, key), 0, UINT64_MAX) : kAbsent;
  tag = answer.reply.Header("ETag");
  return version != kAbsent;
}

bool CClient::PutSame(const Step& step) {
  std::string tag;
  bool is_answered = false;
  Version before = kAbsent;
  if (!FindTag(step, step.key, tag, before, is_answered)) {
    return is_answered;
  }
  const std::string key = HistoryKey(step.bucket, step.key);
  const Recipe recipe = {step.version, step.size, 0, {}};
  Announce(key, recipe);
  const Answer answer = AskS3({"PUT", Target(step), {{"If-Match", tag}}, MakeBody(recipe)}, NodeOf(step));
  if (answer.state == EState::kUnknown || answer.Is(200)) {
    Operation operation = {key, EKind::kReplace, step.version, number_, answer.begun, answer.ended, false, before};
    operation.node = answer.node;
    Note(answer, operation);
  } else if (answer.Is(404)) {
    Note(answer, key, EKind::kRead, kAbsent);
  } else if (answer.Is(412)) {
    // A copy may have the same bytes by another tag, and a tag that was worked out while the database was away is not
    // kept.
    if (!IsForCopies(step.key) && !world_.IsEnding(answer.node)) {
      Note(answer, key, EKind::kSeeOther, before);
    }
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 PUT over what is known, " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::GetByS3(const Step& step) {
  const Answer answer = AskS3({"GET", Target(step), {}, ""}, NodeOf(step));
  if (answer.state == EState::kAnswered) {
    NoteBytes(answer, HistoryKey(step.bucket, step.key), 0, UINT64_MAX);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::GetRangeByS3(const Step& step) {
  const std::string range = "bytes=" + std::to_string(step.begin) + "-" + std::to_string(step.end - 1);
  const Answer answer = AskS3({"GET", Target(step), {{"Range", range}}, ""}, NodeOf(step));
  if (answer.state == EState::kAnswered && !answer.Is(416)) {
    NoteBytes(answer, HistoryKey(step.bucket, step.key), step.begin, step.end);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::RemoveByS3(const Step& step) {
  const Answer answer = AskS3({"DELETE", Target(step), {}, ""}, NodeOf(step));
  if (answer.state == EState::kUnknown || answer.Is(204)) {
    Note(answer, HistoryKey(step.bucket, step.key), EKind::kWrite, kAbsent);
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 DELETE " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::RemoveMany(const Step& step) {
  std::vector<std::string> keys = step.more_keys;
  if (std::find(keys.begin(), keys.end(), step.key) == keys.end()) {
    keys.push_back(step.key);
  }
  std::string xml = "<Delete>";
  for (const std::string& key : keys) {
    xml += "<Object><Key>" + key + "</Key></Object>";
  }
  Answer answer = AskS3({"POST", "/" + step.bucket + "?delete=", {}, xml + "</Delete>"}, NodeOf(step));
  if (answer.Is(200) && answer.reply.body.find("<Error>") != std::string::npos && world_.IsEnding(answer.node)) {
    answer.state = EState::kUnknown;  // the database has crashed in the middle
  }
  if (answer.state == EState::kAnswered &&
      (!answer.Is(200) || answer.reply.body.find("<Error>") != std::string::npos)) {
    Surprise(answer, "removal of many: " + answer.reply.body);
  } else if (answer.state != EState::kNotSent) {
    for (const std::string& key : keys) {
      Note(answer, HistoryKey(step.bucket, key), EKind::kWrite, kAbsent);
    }
  }
  return answer.state == EState::kAnswered;
}

bool CClient::List(const Step& step) {
  const Answer answer = AskS3({"GET", "/" + step.bucket + "?list-type=2", {}, ""}, NodeOf(step));
  if (answer.state != EState::kAnswered) {
    return false;
  }
  if (!answer.Is(200)) {
    Surprise(answer, "list of " + step.bucket);
    return true;
  }
  std::map<std::string, std::string> sizes;
  for (const std::string& item : XmlValues(answer.reply.body, "Contents")) {
    sizes[XmlValue(item, "Key")] = XmlValue(item, "Size");
  }
  for (const std::string& name : KeysOf(step.bucket)) {
    const std::string key = HistoryKey(step.bucket, name);
    Operation seen = {key, EKind::kRead, kAbsent, number_, answer.begun, answer.ended};
    seen.node = answer.node;
    seen.is_from_memory = true;  // nobody can ask for what he does not know of
    if (sizes.count(name) > 0) {
      const auto version = world_.FindBySize(key, std::strtoull(sizes[name].c_str(), nullptr, 10));
      if (!version) {
        world_.GetHistory().AddFault(key + ": a list gives its size as " + sizes[name] +
                                     ", which no version of it has");
        continue;
      }
      seen.version = *version;
      seen.kind = *version == kAbsent ? EKind::kSee : EKind::kRead;
    }
    Note(answer, seen);
  }
  return true;
}

bool CClient::Copy(const Step& step) {
  const std::string& source = step.more_keys.front();
  std::string tag;
  bool is_answered = false;
  Version version = kAbsent;
  if (!FindTag(step, source, tag, version, is_answered)) {
    return is_answered;
  }
  const std::string key = HistoryKey(step.bucket, step.key);
  const std::string source_key = HistoryKey(step.bucket, source);
  if (const std::optional<Recipe> recipe = world_.GetRecipes().Find(version)) {
    world_.NoteSize(key, recipe->size, version);
  }
  const HeaderList headers = {{"x-amz-copy-source", "/" + step.bucket + "/" + source},
                              {"x-amz-copy-source-if-match", tag}};
  const Answer answer = AskS3({"PUT", Target(step), headers, ""}, NodeOf(step));
  if (answer.state == EState::kUnknown) {
    Note(answer, key, EKind::kWrite, version);
  } else if (answer.Is(200)) {
    Note(answer, source_key, EKind::kRead, version);
    Note(answer, key, EKind::kWrite, version);
  } else if (answer.Is(412)) {
    Note(answer, source_key, EKind::kSeeOther, version);
  } else if (answer.Is(404)) {
    Note(answer, source_key, EKind::kRead, kAbsent);
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 copy to " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::BeginUploadByS3(const Step& step) {
  const std::int64_t clock = world_.GetClock();
  const Answer answer = AskS3({"POST", Target(step) + "?uploads=", {}, ""}, NodeOf(step));
  if (answer.Is(200)) {
    Upload upload;
    upload.id = XmlValue(answer.reply.body, "UploadId");
    upload.least_clock = std::min(clock, world_.GetClock());
    uploads_[step.upload] = upload;
  } else if (answer.state == EState::kAnswered) {
    Surprise(answer, "S3 upload to " + Target(step));
  }
  return answer.state == EState::kAnswered;
}

bool CClient::SendPartByS3(const Step& step) {
  const auto upload = uploads_.find(step.upload);
  if (upload == uploads_.end()) {
    return true;
  }
  const std::uint64_t begin = step.part * step.part_size;
  const std::uint64_t size = std::min(step.part_size, step.size - begin);
  const Recipe recipe = {step.version, step.size, step.size, {step.sending}};
  const std::string query = "?partNumber=" + std::to_string(step.part + 1) + "&uploadId=" + upload->second.id;
  const Answer answer = AskS3({"PUT", Target(step) + query, {}, MakeBody(recipe, begin, size)}, NodeOf(step));
  if (was_busy_) {
    uploads_.erase(upload);  // nobody knows which sending counts
  } else if (answer.Is(200)) {
    upload->second.tags[step.part] = answer.reply.Header("ETag");
  } else if (answer.state == EState::kAnswered) {
    if (!upload->second.may_be_swept) {
      Surprise(answer, "S3 part, " + Target(step) + query);
    }
    uploads_.erase(upload);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::EndUploadByS3(const Step& step) {
  const auto upload = uploads_.find(step.upload);
  if (upload == uploads_.end()) {
    return true;
  }
  const std::string key = HistoryKey(step.bucket, step.key);
  Announce(key, {step.version, step.size, step.part_size, step.sendings});
  const Answer answer =
      AskS3({"POST", Target(step) + "?uploadId=" + upload->second.id, {}, PartsXml(upload->second.tags)}, NodeOf(step));
  if (answer.state == EState::kUnknown || answer.Is(200)) {
    Note(answer, key, EKind::kWrite, step.version);
  } else if (answer.state == EState::kAnswered && !upload->second.may_be_swept && !upload->second.may_be_complete) {
    Surprise(answer, "S3 completion of " + key + ", upload " + upload->second.id + ": " + answer.reply.body);
  }
  upload->second.may_be_complete = upload->second.may_be_complete || answer.state == EState::kUnknown;
  if (answer.state == EState::kAnswered) {
    uploads_.erase(upload);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::AbortUpload(const Step& step) {
  const auto upload = uploads_.find(step.upload);
  if (upload == uploads_.end()) {
    return true;
  }
  const Answer answer = AskS3({"DELETE", Target(step) + "?uploadId=" + upload->second.id, {}, ""}, NodeOf(step));
  if (answer.state == EState::kAnswered) {
    if (!answer.Is(204) && !upload->second.may_be_swept && !answer.Is(404)) {
      Surprise(answer, "abort of " + Target(step));
    }
    uploads_.erase(upload);
  }
  return answer.state == EState::kAnswered;
}

}  // namespace prove
