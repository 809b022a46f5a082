#include "Upload.h"

#include <atomic>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "BestNode.h"
#include "Digest.h"
#include "Download.h"
#include "Failure.h"
#include "ObjectVersion.h"
#include "Persistence.h"
#include "PieceReader.h"
#include "ServerLink.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr char kContentType[] = "binary/octet-stream";
constexpr std::uint32_t kDataPatienceMs = 60000;         // the server answers once the bytes are on its disk
constexpr std::uint32_t kCompletionPatienceMs = 120000;  // the server joins the parts before it answers

// The server cannot finish this upload. A file can be sent again from its start, as another upload.
class CLostUpload : public CFailure {
 public:
  explicit CLostUpload(const CFailure& failure) : CFailure(failure) {}
};

bool IsLost(const LinkOutcome& outcome) {
  const std::string code = outcome.ErrorCode();
  return outcome.IsAnswered() &&
         (code == "ServerInternalError" || code == "InvalidXmlContent" || code == "InvalidHttpContent");
}

// Returns true when the server has looked at the request and refused it. A refused completion is not repeated, because
// after some refusals the server no longer has the part that came first.
bool IsRefusal(const LinkOutcome& outcome) {
  return outcome.IsAnswered() && outcome.answer.status != 408 && outcome.answer.status != 503;
}

CFailure SizeFailure(const ObjectUrl& url, std::uint64_t there, std::uint64_t sent) {
  return {kExitFailed,
          url.Path() + " has " + std::to_string(there) + " bytes, but " + std::to_string(sent) + " were sent",
          "has somebody replaced it meanwhile? Put the file again"};
}

// Makes one attempt to send an object: in one request, or in numbered parts, each of which can be sent again.
class CAttempt {
 public:
  CAttempt(const Settings& settings, const ServerAddress& node, const UploadJob& job, const UploadListener& listener,
           CTeam& team, CPieceReader& reader)
      : settings_(settings),
        server_(settings),
        node_(settings, node),
        job_(job),
        listener_(listener),
        team_(team),
        reader_(reader) {}

  void Run() {
    std::vector<char> first;
    reader_.Next(first);
    if (reader_.IsAtEnd()) {
      SendWhole(first);
    } else {
      SendInParts(std::move(first));
    }
  }

 private:
  // Storing the same bytes under the same name twice leaves one object, so this request may be repeated.
  void SendWhole(const std::vector<char>& content) {
    const LinkOutcome outcome = TryPatiently(node_, {.method = "PUT",
                                                     .resource = job_.url.Path(),
                                                     .body = {content.data(), content.size()},
                                                     .content_type = kContentType,
                                                     .patience_ms = kDataPatienceMs});
    if (!outcome.IsDone()) {
      throw node_.FailureOf(outcome);
    }
    Advance(content.size());
  }

  void SendInParts(std::vector<char> first) {
    std::optional<ObjectVersion> before;
    if (job_.may_replace) {
      before = FindVersion(settings_, job_.url, EPatience::kMuch);
    }
    OpenTask();
    next_ = std::move(first);
    team_.Together(team_.Size(), [this](const std::atomic<bool>& stop) { SendParts(stop); });
    Complete(before);
  }

  // A task that was opened and never used holds no bytes, and the server sweeps it away, so opening is repeated too.
  void OpenTask() {
    const LinkOutcome outcome = TryPatiently(server_, {.method = "POST", .resource = job_.url.Path() + "?uploads"});
    if (!outcome.IsDone()) {
      throw server_.FailureOf(outcome);
    }
    TansyProto::CXmlProto xml;
    if (xml.Parse(outcome.answer.body)) {
      upload_id_ = xml.GetString("/InitiateMultipartUploadResult/UploadId");
    }
    if (upload_id_.empty()) {
      throw CFailure(kExitFailed, server_.Address().Url() + " answered without an upload id",
                     "is this an object server?");
    }
  }

  // Sends until no part is left or somebody has failed.
  void SendParts(const std::atomic<bool>& stop) {
    std::vector<char> part;
    for (std::size_t number = 0; !stop && TakePart(part, number);) {
      SendPart(part, number, stop);
      Advance(part.size());
    }
  }

  bool TakePart(std::vector<char>& part, std::size_t& number) {
    const std::lock_guard lock(mutex_);
    if (sizes_.empty()) {
      part = std::exchange(next_, {});
    } else if (!reader_.Next(part)) {
      return false;
    }
    sizes_.push_back(part.size());
    number = sizes_.size();
    return true;
  }

  // A part that is sent again under its number replaces the first one.
  void SendPart(const std::vector<char>& part, std::size_t number, const std::atomic<bool>& stop) {
    const LinkOutcome outcome = TryPatiently(
        node_,
        {.method = "POST",
         .resource = job_.url.Path() + "?upload_id=" + upload_id_ + "&part_number=" + std::to_string(number),
         .body = {part.data(), part.size()},
         .content_type = kContentType,
         .patience_ms = kDataPatienceMs},
        EPatience::kMuch, &stop);
    if (outcome.IsDone()) {
      return;
    }
    if (IsLost(outcome)) {
      throw CLostUpload(node_.FailureOf(outcome));
    }
    throw node_.FailureOf(outcome);
  }

  // The answer to a completion may be lost after the server has made the object. The upload no longer exists then, and
  // the object differs from the one before.
  void Complete(const std::optional<ObjectVersion>& before) {
    const std::string body = CompletionBody();
    const LinkRequest request{.method = "POST",
                              .resource = job_.url.Path() + "?upload_id=" + upload_id_,
                              .body = body,
                              .patience_ms = kCompletionPatienceMs};
    CPersistence persistence;
    bool is_answer_lost = false;
    LinkOutcome outcome = server_.Try(request);
    while (!outcome.IsDone() && !IsRefusal(outcome) && persistence.GoesOn(outcome)) {
      is_answer_lost = is_answer_lost || !outcome.IsAnswered();
      outcome = server_.Try(request);
    }
    if (outcome.IsDone() || (is_answer_lost && IsLost(outcome) && IsMadeSince(before))) {
      return;
    }
    if (IsLost(outcome)) {
      throw CLostUpload(server_.FailureOf(outcome));
    }
    throw server_.FailureOf(outcome);
  }

  std::string CompletionBody() const {
    TansyProto::CXmlProto xml;
    xml.SetString("/CompleteMultipartUpload/TotalPartNum", std::to_string(sizes_.size()));
    for (std::size_t i = 0; i < sizes_.size(); ++i) {
      const std::string path = "/CompleteMultipartUpload/Part[" + std::to_string(i + 1) + "]";
      xml.SetString(path + "/PartNumber", std::to_string(i + 1));
      xml.SetString(path + "/PartSize", std::to_string(sizes_[i]));
    }
    std::string body;
    xml.Serialize(body);
    return body;
  }

  bool IsMadeSince(const std::optional<ObjectVersion>& before) const {
    const std::optional<ObjectVersion> now = FindVersion(settings_, job_.url, EPatience::kMuch);
    return now && now->size == reader_.Size() && (!before || now->tag != before->tag);
  }

  void Advance(std::size_t size) {
    const std::lock_guard lock(mutex_);
    sent_ += size;
    listener_.progress(sent_);
  }

  const Settings& settings_;
  const CServerLink server_;  // opens and completes uploads
  const CServerLink node_;    // receives the bytes
  const UploadJob& job_;
  const UploadListener& listener_;
  CTeam& team_;
  std::string upload_id_;

  std::mutex mutex_;  // guards what follows while parts are sent
  CPieceReader& reader_;
  std::vector<char> next_;  // the first part, which was read to find out whether there are more
  std::vector<std::size_t> sizes_;
  std::uint64_t sent_ = 0;
};

// Compares the stored bytes with those that were sent, by their digests.
void Verify(const Settings& settings, const ObjectUrl& url, const ObjectVersion& version, const std::string& digest) {
  CDigest stored;
  Fetch(settings, url, {0, version.size}, version, [&](const char* data, std::size_t size) { stored.Add(data, size); });
  if (digest.empty() || stored.Finish() != digest) {
    throw CFailure(kExitFailed, url.Path() + " is not what was sent", "put the file again");
  }
}

}  // namespace
}  // namespace details

std::uint64_t Upload(const Settings& settings, std::FILE* file, const UploadJob& job, CTeam& team,
                     const UploadListener& listener) {
  const ServerAddress node = BestNodeAddress(settings, job.url.bucket, job.patience);
  for (bool again = false;; again = true) {
    CPieceReader reader(file, job.part_size, job.expected, job.verify);
    try {
      details::CAttempt(settings, node, job, listener, team, reader).Run();
    } catch (const details::CLostUpload& lost) {
      if (again || !job.expected || std::fseek(file, 0, SEEK_SET) != 0) {
        throw;
      }
      listener.note(std::string("note: the upload was lost (") + lost.what() + "); it starts over");
      continue;
    }
    const ObjectVersion version = AskVersion(settings, job.url, EPatience::kMuch);
    if (version.size != reader.Size()) {
      throw details::SizeFailure(job.url, version.size, reader.Size());
    }
    if (job.verify) {
      details::Verify(settings, job.url, version, reader.Digest());
    }
    return version.size;
  }
}

}  // namespace Tansy::Cli
