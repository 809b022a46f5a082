#include "S3Upload.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <vector>

#include "Digest.h"
#include "Failure.h"
#include "S3Parts.h"
#include "SteadyFile.h"
#include "TansyNet/S3Signing.h"

namespace Tansy::Cli {
namespace details {
namespace {

using Progress = std::function<void(std::uint64_t bytes)>;

// Storing the same bytes under the same name twice leaves one object, so this request may be repeated.
void SendWhole(const CS3Link& link, const S3Path& path, const CSteadyFile& file) {
  const std::string bytes = file.Read(0, file.Size());
  file.CheckUnchanged();
  const LinkOutcome outcome = link.TryPatiently({.method = "PUT", .path = path, .body = bytes});
  if (!IsDone(outcome)) {
    throw link.FailureOf(outcome);
  }
}

std::string Md5Tag(const std::string& bytes) {
  CDigest digest(CDigest::EKind::kMd5);
  digest.Add(bytes.data(), bytes.size());
  return TansyNet::S3Signing::ToHex(digest.Finish());
}

// Sends a file in parts, several at a time.
class CPartSender {
 public:
  CPartSender(const CS3Link& link, const S3UploadJob& job, CTeam& team, const CSteadyFile& file,
              const Progress& progress)
      : job_(job),
        team_(team),
        file_(file),
        progress_(progress),
        upload_(link, job.path),
        tags_(static_cast<std::size_t>((file.Size() + kS3PartBytes - 1) / kS3PartBytes)) {}

  void Run() {
    if (job_.resume && upload_.Find([this](const auto& parts) { return TakeOver(parts); })) {
      try {
        SendRest();
        return;
      } catch (const CRefusedUpload&) {
        // Whoever began it began it in another way. It is left to them, and another one is begun.
        tags_.assign(tags_.size(), "");
      }
    }
    upload_.Begin();
    try {
      SendRest();
    } catch (const std::exception&) {
      if (!job_.resume) {
        upload_.Abort();
      }
      throw;
    }
  }

 private:
  // Takes the tags of parts that the server has. An upload that has other bytes than the file, or more parts, may be
  // that of somebody else, who is just sending it.
  bool TakeOver(const std::map<std::size_t, S3Part>& parts) {
    std::vector<std::string> tags(tags_.size());
    for (const auto& [number, part] : parts) {
      if (number < 1 || number > tags.size()) {
        return false;
      }
      const std::string bytes = ReadPart(number - 1);
      if (part.size != bytes.size() || part.tag != Md5Tag(bytes)) {
        return false;
      }
      tags[number - 1] = part.tag;
    }
    tags_ = tags;
    return true;
  }

  // Sends the parts that have no tag yet, and completes the upload.
  void SendRest() {
    next_ = 0;
    done_ = 0;
    team_.Together(tags_.size(), [this](const std::atomic<bool>& stop) { SendParts(stop); });
    file_.CheckUnchanged();
    upload_.Complete(tags_);
  }

  // Sends until no part is left or somebody has failed.
  void SendParts(const std::atomic<bool>& stop) {
    for (std::size_t index = next_++; index < tags_.size() && !stop; index = next_++) {
      if (tags_[index].empty()) {
        tags_[index] = upload_.Send(index + 1, ReadPart(index), stop);
      }
      const std::lock_guard lock(mutex_);
      progress_(done_ += SizeOf(index));
    }
  }

  std::uint64_t SizeOf(std::size_t index) const { return std::min(kS3PartBytes, file_.Size() - index * kS3PartBytes); }
  std::string ReadPart(std::size_t index) const { return file_.Read(index * kS3PartBytes, SizeOf(index)); }

  const S3UploadJob& job_;
  CTeam& team_;
  const CSteadyFile& file_;
  const Progress& progress_;
  CS3Parts upload_;
  std::vector<std::string> tags_;  // "": not sent yet; each is written by the thread that sends the part
  std::atomic<std::size_t> next_{0};
  std::mutex mutex_;  // guards what follows while parts are sent, and calls of progress_
  std::uint64_t done_ = 0;
};

}  // namespace
}  // namespace details

std::uint64_t UploadToS3(const CS3Link& link, const S3UploadJob& job, CTeam& team,
                         const std::function<void(std::uint64_t bytes)>& progress) {
  const CSteadyFile file(job.file);
  if (file.Size() <= kS3PartBytes) {
    details::SendWhole(link, job.path, file);
    progress(file.Size());
  } else {
    details::CPartSender(link, job, team, file, progress).Run();
  }
  return file.Size();
}

}  // namespace Tansy::Cli
