#include "S3Listing.h"

#include <algorithm>
#include <utility>

#include "Output.h"
#include "S3Text.h"
#include "TansyNet/S3Signing.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

[[noreturn]] void FailAsNoListing(const CS3Link& link) {
  throw CFailure(kExitFailed, link.Address().Url() + " answered something that is no listing",
                 "is this the S3 door of an object server?");
}

// Keys come percent-encoded, because XML cannot carry every byte.
RemoteObject ObjectAt(const TansyProto::CXmlProto& xml, const std::string& path) {
  RemoteObject object;
  object.key = TansyNet::S3Signing::PercentDecode(xml.GetString(path + "/Key"));
  object.size = static_cast<std::uint64_t>(xml.GetInt(path + "/Size", 0));
  object.tag = WithoutQuotes(xml.GetString(path + "/ETag"));
  object.modified = xml.GetString(path + "/LastModified");
  return object;
}

std::string ItemPath(const char* list, std::size_t number) {
  return std::string(list) + "[" + std::to_string(number) + "]";
}

S3Request ListRequest(const S3Path& path, const std::string& delimiter, const std::string& token) {
  S3Request request{.path = {path.bucket, ""},
                    .query = {{"list-type", "2"}, {"encoding-type", "url"}, {"prefix", path.key}}};
  if (!delimiter.empty()) {
    request.query.emplace_back("delimiter", delimiter);
  }
  if (!token.empty()) {
    request.query.emplace_back("continuation-token", token);
  }
  return request;
}

// A page has its objects first and then its folders; both are handed out in the order of their names.
void HandOut(const TansyProto::CXmlProto& xml, const ListHandlers& handlers) {
  const auto folder_at = [&](std::size_t number) {
    return TansyNet::S3Signing::PercentDecode(
        xml.GetString(ItemPath("/ListBucketResult/CommonPrefixes", number) + "/Prefix"));
  };
  std::size_t next_folder = 1;
  std::string folder = folder_at(next_folder);
  const auto hand_out_folder = [&] {
    handlers.folder(folder);
    folder = folder_at(++next_folder);
  };
  for (std::size_t i = 1;; ++i) {
    const std::string path = ItemPath("/ListBucketResult/Contents", i);
    if (!xml.Has(path)) {
      break;
    }
    const RemoteObject object = ObjectAt(xml, path);
    while (!folder.empty() && folder < object.key) {
      hand_out_folder();
    }
    handlers.object(object);
  }
  while (!folder.empty()) {
    hand_out_folder();
  }
}

}  // namespace
}  // namespace details

void ListObjects(const CS3Link& link, const S3Path& path, const std::string& delimiter, const ListHandlers& handlers) {
  std::string token;
  for (;;) {
    const TansyNet::CHttpClientResponse answer =
        link.Request(details::ListRequest(path, delimiter, token), Printable(path.Url()));
    TansyProto::CXmlProto xml;
    if (!xml.Parse(answer.body) || !xml.Has("/ListBucketResult")) {
      details::FailAsNoListing(link);
    }
    details::HandOut(xml, handlers);
    if (xml.GetString("/ListBucketResult/IsTruncated") != "true") {
      return;
    }
    const std::string before = std::exchange(token, xml.GetString("/ListBucketResult/NextContinuationToken"));
    if (token.empty() || token == before) {
      details::FailAsNoListing(link);  // the same page would come for ever
    }
  }
}

std::vector<RemoteObject> AllObjects(const CS3Link& link, const S3Path& path) {
  std::vector<RemoteObject> objects;
  ListObjects(link, path, "", {.object = [&](const RemoteObject& object) { objects.push_back(object); }});
  // Whoever compares two lists relies on the order, so a server that has another one must not matter.
  const auto is_before = [](const RemoteObject& left, const RemoteObject& right) { return left.key < right.key; };
  if (!std::is_sorted(objects.begin(), objects.end(), is_before)) {
    std::sort(objects.begin(), objects.end(), is_before);
  }
  return objects;
}

CFailure NothingBelow(const S3Path& folder) {
  return {kExitNotFound, Printable(folder.Url()) + ": there is nothing below it",
          "'tansy ls " + Printable(folder.bucket) + "' lists what there is"};
}

std::vector<RemoteBucket> ListS3Buckets(const CS3Link& link) {
  const TansyNet::CHttpClientResponse answer = link.Request({}, "list of buckets");
  TansyProto::CXmlProto xml;
  if (!xml.Parse(answer.body) || !xml.Has("/ListAllMyBucketsResult")) {
    details::FailAsNoListing(link);
  }
  std::vector<RemoteBucket> buckets;
  for (std::size_t i = 1;; ++i) {
    const std::string path = details::ItemPath("/ListAllMyBucketsResult/Buckets/Bucket", i);
    if (!xml.Has(path)) {
      return buckets;
    }
    buckets.push_back({xml.GetString(path + "/Name"), xml.GetString(path + "/CreationDate")});
  }
}

}  // namespace Tansy::Cli
