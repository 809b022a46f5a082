// What a client does with uploads in parts, and with pictures.
#include <algorithm>
#include <sstream>

#include "Client.h"
#include "support/PictureSystemTest.h"

namespace prove {
namespace {

using system_tests::Outcome;

std::string CompletionXml(const Step& step) {
  const std::size_t parts = step.sendings.size();
  std::ostringstream xml;
  xml << "<CompleteMultipartUpload><TotalPartNum>" << parts << "</TotalPartNum>";
  for (std::size_t part = 0; part < parts; ++part) {
    const std::uint64_t begin = part * step.part_size;
    xml << "<Part><PartNumber>" << part + 1 << "</PartNumber><PartSize>" << std::min(step.part_size, step.size - begin)
        << "</PartSize></Part>";
  }
  xml << "</CompleteMultipartUpload>";
  return xml.str();
}

}  // namespace

bool CClient::BeginUpload(const Step& step) {
  const std::int64_t clock = world_.GetClock();
  const Answer answer = Ask({"POST", Target(step) + "?uploads", {}, ""}, NodeOf(step));
  if (answer.Is(200)) {
    Upload upload;
    upload.id = system_tests::XmlValue(answer.reply.body, "UploadId");
    upload.least_clock = std::min(clock, world_.GetClock());
    uploads_[step.upload] = upload;
  }
  return answer.state == EState::kAnswered;
}

bool CClient::SendPart(const Step& step) {
  const auto upload = uploads_.find(step.upload);
  if (upload == uploads_.end()) {
    return true;
  }
  const std::int64_t clock = world_.GetClock();
  const std::uint64_t begin = step.part * step.part_size;
  const std::uint64_t size = std::min(step.part_size, step.size - begin);
  const Recipe recipe = {step.version, step.size, step.size, {step.sending}};
  const std::string query = "?upload_id=" + upload->second.id + "&part_number=" + std::to_string(step.part + 1);
  const Answer answer =
      Ask({"POST", Target(step) + query, {}, MakeBody(recipe, begin, size)}, NodeOf(step), upload->second.may_be_swept);
  // The part's row has the time of now.
  upload->second.least_clock = std::min({upload->second.least_clock, clock, world_.GetClock()});
  if (was_busy_) {
    uploads_.erase(upload);  // nobody knows which sending counts
  } else if (answer.state == EState::kAnswered && answer.reply.status != 200) {
    if (!upload->second.may_be_swept) {
      Surprise(answer, "POST " + Target(step) + query);
    }
    uploads_.erase(upload);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::EndUpload(const Step& step) {
  const auto upload = uploads_.find(step.upload);
  if (upload == uploads_.end()) {
    return true;
  }
  const std::string key = HistoryKey(step.bucket, step.key);
  Announce(key, {step.version, step.size, step.part_size, step.sendings});
  const Answer answer = Ask({"POST", Target(step) + "?upload_id=" + upload->second.id, {}, CompletionXml(step)},
                            NodeOf(step), upload->second.may_be_swept);
  if (answer.state == EState::kUnknown || answer.Is(200)) {
    Note(answer, key, EKind::kWrite, step.version);
  } else if (answer.state == EState::kAnswered && !upload->second.may_be_swept && !upload->second.may_be_complete) {
    Surprise(answer, "completion of " + key + ", upload " + upload->second.id);
  }
  upload->second.may_be_complete = upload->second.may_be_complete || answer.state == EState::kUnknown;
  if (answer.state == EState::kAnswered) {
    uploads_.erase(upload);
  }
  return answer.state == EState::kAnswered;
}

bool CClient::PutPicture(const Step& step) {
  const Recipe recipe = {step.version, step.size, 0, {}};
  world_.GetRecipes().Add(recipe);
  const std::string boundary = "----boundary-that-no-record-has";
  const std::string body = system_tests::FormBody(boundary, system_tests::PictureFields(MakeBody(recipe)));
  const Answer answer = AskForPicture(system_tests::FormRequest(boundary, body), NodeOf(step));
  if (answer.Is(200)) {
    world_.AddPicture({system_tests::JsonText(answer.reply.body, "PictureUrl"), step.version});
  }
  return answer.state == EState::kAnswered;
}

bool CClient::GetPicture(const Picture& picture, int node) {
  const Answer answer = AskForPicture(system_tests::Signed({"GET", picture.address, {}, ""}), node);
  if (answer.state == EState::kAnswered) {
    const Recognised seen = Recognise(world_.GetRecipes(), answer.reply.body, 0);
    if (!seen.fault.empty() || seen.version != picture.version || seen.size != answer.reply.body.size()) {
      world_.GetHistory().AddFault(picture.address + ": " + Outcome(answer.reply) + ", " +
                                   std::to_string(answer.reply.body.size()) + " bytes, not the picture " + seen.fault);
    }
  }
  return answer.state == EState::kAnswered;
}

}  // namespace prove
