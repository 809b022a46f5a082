// Buckets.
#include <algorithm>
#include <map>

#include "StorageServer/ObjectServer/ObjectServerSession.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/GuidUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

constexpr const char* kDefaultRegion = "us-east-1";
constexpr std::uint32_t kNoLimit = 0xFFFFFFFF;
constexpr std::uint32_t kAddBucketFlag = 1;

// Buckets whose names other protocols chose are served whatever they are called.
bool IsNameForNewBucket(const std::string& name) {
  const auto is_letter_or_digit = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
  return name.size() >= 3 && name.size() <= 63 && is_letter_or_digit(name.front()) && is_letter_or_digit(name.back()) &&
         name.find("..") == std::string::npos &&
         std::all_of(name.begin(), name.end(), [&](char c) { return is_letter_or_digit(c) || c == '-' || c == '.'; });
}

}  // namespace

void CS3Server::ListBuckets(const Request& request) {
  std::map<std::string, BucketInfo> buckets;
  std::map<std::string, std::string> times;
  CObjectStorageManager::Instance().GetBucketList(buckets);
  if (!CObjectServerSession::QueryBucketTimes(times)) {
    AnswerFailure(request, EError::kInternalError);
    return;
  }
  CXmlWriter xml;
  xml.OpenAnswer("ListAllMyBucketsResult");
  xml.Open("Owner");
  xml.Element("ID", kOwner);
  xml.Element("DisplayName", kOwner);
  xml.Close("Owner");
  xml.Open("Buckets");
  for (const auto& [name, bucket] : buckets) {
    if (!MaySee(request.signer, name)) {
      continue;
    }
    xml.Open("Bucket");
    xml.Element("Name", name);
    xml.Element("CreationDate", ListedTime(times[bucket.name]));
    xml.Close("Bucket");
  }
  xml.Close("Buckets");
  xml.Close("ListAllMyBucketsResult");
  AnswerXml(request, xml.Take());
}

void CS3Server::CreateBucket(const Request& request) {
  if (const Failure failure = CheckUnsupportedHeaders(request.headers)) {
    AnswerFailure(request, failure);
    return;
  }
  auto& catalogue = CObjectStorageManager::Instance();
  catalogue.CatchUp();  // a bucket that another node has just removed is not there any more
  // A bucket of one's own may be made again; all buckets are one's own, because there is one key.
  if (!catalogue.IsBucketExist(request.bucket)) {
    if (!IsNameForNewBucket(request.bucket)) {
      AnswerFailure(request, EError::kInvalidBucketName);
      return;
    }
    BucketInfo bucket;
    bucket.name = request.bucket;
    bucket.guid = TansyBase::GuidUtil::CreateGuid();
    bucket.location = "local";
    bucket.cycle = kNoLimit;
    bucket.size = kNoLimit;
    bucket.flag = kAddBucketFlag;
    if (!catalogue.AddBucket(bucket) && !catalogue.IsBucketExist(request.bucket)) {
      AnswerFailure(request, EError::kInternalError);
      return;
    }
  }
  AnswerEmpty(request, 200, {{"Location", "/" + PercentEncode(request.bucket)}});
}

void CS3Server::HeadBucket(const Request& request) {
  AnswerEmpty(request, 200, {{"x-amz-bucket-region", request.config.region}});
}

void CS3Server::DeleteBucket(const Request& request) {
  bool is_empty = false;
  auto& catalogue = CObjectStorageManager::Instance();
  if (catalogue.RemoveEmptyBucket(request.bucket, is_empty)) {
    AnswerEmpty(request, 204);
  } else if (!is_empty) {
    AnswerFailure(request, EError::kBucketNotEmpty);
  } else {
    AnswerFailure(request, catalogue.IsBucketExist(request.bucket) ? EError::kInternalError : EError::kNoSuchBucket);
  }
}

void CS3Server::GetBucketLocation(const Request& request) {
  CXmlWriter xml;
  xml.OpenAnswer("LocationConstraint");
  // Clients take an empty answer for the first region.
  if (request.config.region != kDefaultRegion) {
    xml.Raw(request.config.region);
  }
  xml.Close("LocationConstraint");
  AnswerXml(request, xml.Take());
}

}  // namespace Tansy::CloudStorage::S3
