#include "S3Upload.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <vector>

#include "Digest.h"
#include "Failure.h"
#include "Parallel.h"
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
  CPartSender(const CS3Link& link, const S3UploadJob& job, const CSteadyFile& file, const Progress& progress)
      : job_(job),
        file_(file),
        progress_(progress),
        upload_(link, job.path),
        tags_(static_cast<std::size_t>((file.Size() + kS3PartBytes - 1) / kS3PartBytes)) {}

  void Run() {
    if (!job_.resume || !upload_.Find(there_)) {
      upload_.Begin();
    }
    RunOnThreads(std::min(job_.senders, tags_.size()), [this] { SendParts(); });
    try {
      if (failure_ != nullptr) {
        std::rethrow_exception(failure_);
      }
      file_.CheckUnchanged();
      upload_.Complete(tags_);
    } catch (const std::exception&) {
      if (!job_.resume) {
        upload_.Abort();
      }
      throw;
    }
  }

 private:
  // Sends until no part is left or one of the senders has failed.
  void SendParts() {
    try {
      for (std::size_t index = next_++; index < tags_.size() && !stop_; index = next_++) {
        SendPart(index);
      }
    } catch (...) {
      const std::lock_guard lock(mutex_);
      failure_ = failure_ != nullptr ? failure_ : std::current_exception();
      stop_ = true;
    }
  }

  void SendPart(std::size_t index) {
    const std::uint64_t offset = index * kS3PartBytes;
    const std::string bytes = file_.Read(offset, std::min(kS3PartBytes, file_.Size() - offset));
    tags_[index] = IsThere(index, bytes) ? there_.at(index + 1).tag : upload_.Send(index + 1, bytes, stop_);
    const std::lock_guard lock(mutex_);
    progress_(done_ += bytes.size());
  }

  bool IsThere(std::size_t index, const std::string& bytes) const {
    const auto part = there_.find(index + 1);
    return part != there_.end() && part->second.size == bytes.size() && part->second.tag == Md5Tag(bytes);
  }

  const S3UploadJob& job_;
  const CSteadyFile& file_;
  const Progress& progress_;
  CS3Parts upload_;
  std::map<std::size_t, S3Part> there_;  // parts that the server had before, by their numbers from 1
  std::vector<std::string> tags_;        // each is written by the thread that sends the part
  std::atomic<std::size_t> next_{0};
  std::atomic<bool> stop_{false};

  std::mutex mutex_;  // guards what follows while the senders run
  std::uint64_t done_ = 0;
  std::exception_ptr failure_;
};

}  // namespace
}  // namespace details

std::uint64_t UploadToS3(const CS3Link& link, const S3UploadJob& job,
                         const std::function<void(std::uint64_t bytes)>& progress) {
  const CSteadyFile file(job.file);
  if (file.Size() <= kS3PartBytes) {
    details::SendWhole(link, job.path, file);
    progress(file.Size());
  } else {
    details::CPartSender(link, job, file, progress).Run();
  }
  return file.Size();
}

}  // namespace Tansy::Cli
