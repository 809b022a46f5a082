#include "Doctor.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "BestNode.h"
#include "BucketList.h"
#include "HostSystem/Files.h"
#include "Output.h"
#include "S3Link.h"
#include "S3Listing.h"
#include "ServerLink.h"
#include "TansyBase/HttpDate.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr std::time_t kLargestSkew = 300;
constexpr std::time_t kSecondsADay = 86400;
constexpr std::time_t kDaysToRenew = 30;
constexpr std::uint64_t kLittleSpace = std::uint64_t{1} << 30;
constexpr std::size_t kLargestCertificate = std::size_t{1} << 20;

// Runs one examination; `findings` grows in the order of the checks.
class CExamination {
 public:
  explicit CExamination(const Settings& settings) : settings_(settings) {}

  std::vector<Finding> Run() {
    Add(EFinding::kOk, "settings", settings_.source);
    CheckSettingsFile();
    if (CheckAddress()) {
      CheckKeys();
      CheckClock();
      CheckBucket();
      CheckBestNode();
    }
    CheckPicturePort();
    CheckS3Door();
    CheckCertificate();
    CheckSpace();
    return findings_;
  }

 private:
  void Add(EFinding state, const std::string& subject, const std::string& text, const std::string& advice = "") {
    findings_.push_back({state, subject, text, advice, state == EFinding::kFailure ? kExitFailed : kExitDone});
  }

  void Add(const std::string& subject, const CFailure& failure) {
    findings_.push_back({EFinding::kFailure, subject, failure.what(), failure.GetAdvice(), failure.GetExitCode()});
  }

  void CheckSettingsFile() {
    const std::string& path = settings_.keys_file;
    if (!path.empty() && HostSystem::IsReadableByOthers(path)) {
      Add(EFinding::kWarning, "settings", path + " holds the secret key and can be read by others",
          "take their permission away: chmod 600 " + path);
    }
  }

  bool CheckAddress() {
    try {
      answer_ = CServerLink(settings_).Exchange({});
      Add(EFinding::kOk, "address", settings_.object_server.Url() + " answers");
      return true;
    } catch (const CFailure& failure) {
      const std::string& advice = failure.GetAdvice();
      findings_.push_back({EFinding::kFailure, "address", failure.what(),
                           advice == kAdviceUnreachable ? AdviceUnreachable() : advice, failure.GetExitCode()});
      return false;
    }
  }

  std::string AdviceUnreachable() const {
    return settings_.data_folder.empty() ? "is the server running there, and are host and port right?"
                                         : "is tansyd running with this folder?";
  }

  void CheckKeys() {
    if (answer_.status == 200) {
      Add(EFinding::kOk, "keys", "the server accepts them");
    } else if (answer_.status == 403) {
      findings_.push_back(
          {EFinding::kFailure, "keys", "the server denies access with access key " + Printable(settings_.access_key),
           "compare access and secret key with [credentials] in the server's tansyd.toml", kExitDenied});
    } else {
      Add("keys", CServerLink(settings_).FailureOf({answer_, {}}));
    }
  }

  void CheckClock() {
    const std::time_t server = TansyBase::HttpDate::Parse(answer_.GetHeader("Date"));
    if (server < 0) {
      Add(EFinding::kWarning, "clock", "the server does not tell its time");
      return;
    }
    const std::time_t skew = TansyBase::TimeUtil::Now() - server;
    const std::string text = FormatDuration(static_cast<double>(std::llabs(skew))) +
                             (skew < 0 ? " behind the server's" : " ahead of the server's");
    if (std::llabs(skew) > kLargestSkew) {
      Add(EFinding::kWarning, "clock", "this clock is " + text, "set both clocks from a time server");
    } else {
      Add(EFinding::kOk, "clock", "agrees with the server's");
    }
  }

  void CheckBucket() {
    if (answer_.status != 200) {
      return;
    }
    try {
      const std::vector<BucketRow> buckets = ListBuckets(CServerLink(settings_));
      bucket_ = buckets.empty() ? "" : buckets.front().name;
      if (settings_.pool.empty()) {
        const std::string count = std::to_string(buckets.size());
        Add(buckets.empty() ? EFinding::kWarning : EFinding::kOk, "bucket",
            buckets.empty() ? "there is none yet" : count + (buckets.size() == 1 ? " bucket" : " buckets"),
            buckets.empty() ? "make one: tansy mb BUCKET" : "");
        return;
      }
      for (const BucketRow& bucket : buckets) {
        if (bucket.name == settings_.pool) {
          bucket_ = bucket.name;
          Add(EFinding::kOk, "bucket", Printable(settings_.pool) + " is there");
          return;
        }
      }
      findings_.push_back({EFinding::kFailure, "bucket", "there is no bucket " + Printable(settings_.pool),
                           "make it: tansy mb " + Printable(settings_.pool), kExitNotFound});
    } catch (const CFailure& failure) {
      Add("bucket", failure);
    }
  }

  // Uploads go to an address that the server names. That address may be one that cannot be reached from here.
  void CheckBestNode() {
    if (bucket_.empty()) {
      return;
    }
    ServerAddress node;
    try {
      node = BestNodeAddress(settings_, bucket_);
      CServerLink(settings_, node).Exchange({});
      Add(EFinding::kOk, "uploads", "go to " + node.Url() + ", which answers");
    } catch (const CFailure& failure) {
      findings_.push_back({EFinding::kFailure, "uploads", failure.what(),
                           node.port == 0 ? failure.GetAdvice()
                                          : "the server sends uploads from here to " + node.HostAndPort() +
                                                "; look at --local-ip and --wan-ip of its tansyd",
                           failure.GetExitCode()});
    }
  }

  void CheckPicturePort() {
    try {
      const auto answer = CServerLink(settings_, PictureServer(settings_)).Exchange({.resource = "/Quorvane/Version"});
      const bool fine = answer.status == 200;
      Add(fine ? EFinding::kOk : EFinding::kWarning, "pictures",
          settings_.picture_server.Url() + (fine ? " answers" : " answered " + std::to_string(answer.status)),
          fine ? "" : "'tansy pic' needs it; nothing else does");
    } catch (const CFailure& failure) {
      Add(EFinding::kWarning, "pictures", failure.what(), "'tansy pic' needs it; nothing else does");
    }
  }

  // A listing of the buckets shows that the door is there and takes the keys.
  void CheckS3Door() {
    if (settings_.s3_server.port == 0) {
      Add(EFinding::kOk, "s3", "the server has no S3 door");
      return;
    }
    try {
      ListS3Buckets(CS3Link(settings_));
      Add(EFinding::kOk, "s3", settings_.s3_server.Url() + " answers");
    } catch (const CFailure& failure) {
      Add(EFinding::kWarning, "s3", failure.what(),
          "'tansy ls', 'cp' and 'sync' need it; see --s3-port of tansyd, and s3_url of the configuration");
    }
  }

  void CheckCertificate() {
    if (settings_.object_server.is_https && settings_.insecure) {
      Add(EFinding::kWarning, "certificate", "any certificate is trusted", "trust the server's own with --ca FILE");
    }
    if (settings_.data_folder.empty()) {
      return;
    }
    const std::string path = settings_.data_folder + "/" + CloudStorage::kDefaultCertificatePath + ".crt";
    const std::time_t end = CertificateEnd(path);
    const std::time_t left = end - TansyBase::TimeUtil::Now();
    if (end < 0 && !settings_.object_server.is_https) {
      Add(EFinding::kOk, "certificate", "there is none yet; tansyd makes one when HTTPS is on");
    } else if (end < 0) {
      Add(EFinding::kWarning, "certificate", "there is none at " + path, "tansyd makes one when HTTPS is on");
    } else if (left < 0) {
      Add(EFinding::kFailure, "certificate", path + " has expired", "remove it with its key and start tansyd again");
    } else if (left < kDaysToRenew * kSecondsADay) {
      Add(EFinding::kWarning, "certificate", path + " ends in " + std::to_string(left / kSecondsADay) + " days",
          "replace it");
    } else {
      Add(EFinding::kOk, "certificate", "good for " + std::to_string(left / kSecondsADay) + " days");
    }
  }

  void CheckSpace() {
    CheckSpaceAt(".", "this folder");
    if (!settings_.data_folder.empty()) {
      CheckSpaceAt(settings_.data_folder, "the data folder");
    }
  }

  void CheckSpaceAt(const std::string& folder, const std::string& name) {
    std::error_code error;
    const std::filesystem::space_info space =
        std::filesystem::space(std::filesystem::path(std::u8string(folder.begin(), folder.end())), error);
    if (error) {
      Add(EFinding::kWarning, "space", name + ": " + error.message());
      return;
    }
    const bool little = space.available < kLittleSpace;
    Add(little ? EFinding::kWarning : EFinding::kOk, "space", FormatBytes(space.available) + " free in " + name,
        little ? "make room before large transfers" : "");
  }

  const Settings& settings_;
  TansyNet::CHttpClientResponse answer_;
  std::string bucket_;  // an existing bucket, for questions that need one
  std::vector<Finding> findings_;
};

struct FreeX509 {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FreeBio {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

}  // namespace
}  // namespace details

std::vector<Finding> Examine(const Settings& settings) {
  return details::CExamination(settings).Run();
}

std::time_t CertificateEnd(const std::string& path) {
  std::string content;
  if (HostSystem::ReadWholeFile(path, details::kLargestCertificate, content) != 0) {
    return -1;
  }
  const std::unique_ptr<BIO, details::FreeBio> bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  const std::unique_ptr<X509, details::FreeX509> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  int days = 0;
  int seconds = 0;
  // The difference runs from now to the certificate's end.
  if (certificate == nullptr || ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) != 1) {
    return -1;
  }
  return std::time(nullptr) + days * details::kSecondsADay + seconds;
}

}  // namespace Tansy::Cli
