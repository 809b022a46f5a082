#include "BucketList.h"

#include "Failure.h"
#include "Output.h"
#include "ServerLink.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {

std::vector<BucketRow> ListBuckets(const CServerLink& server) {
  const TansyNet::CHttpClientResponse answer = server.Request({.resource = "/"}, "list of buckets");
  TansyProto::CXmlProto xml;
  if (!xml.Parse(answer.body) || !xml.Has("/ListAllMyBucketsResult")) {
    throw CFailure(kExitFailed, server.Address().Url() + " answered something that is no list of buckets",
                   "is this an object server?");
  }
  std::vector<BucketRow> buckets;
  for (std::size_t i = 1;; ++i) {
    const std::string path = "/ListAllMyBucketsResult/Buckets/Bucket[" + std::to_string(i) + "]";
    if (!xml.Has(path)) {
      return buckets;
    }
    buckets.push_back(
        {xml.GetString(path + "/Name"), xml.GetString(path + "/Location"), xml.GetInt(path + "/Size", -1)});
  }
}

std::string ChooseBucket(const Settings& settings) {
  if (!settings.pool.empty()) {
    return settings.pool;
  }
  const std::vector<BucketRow> buckets = ListBuckets(CServerLink(settings));
  if (buckets.empty()) {
    throw CFailure(kExitUsage, "there is no bucket yet", "make one: tansy mb BUCKET");
  }
  if (buckets.size() > 1) {
    std::string names;
    for (std::size_t i = 0; i < buckets.size() && i < 5; ++i) {
      names += (names.empty() ? "" : ", ") + Printable(buckets[i].name);
    }
    throw CFailure(kExitUsage, "which bucket? There are " + std::to_string(buckets.size()),
                   "name one with --pool or TANSY_POOL: " + names + (buckets.size() > 5 ? ", ..." : ""));
  }
  return buckets.front().name;
}

}  // namespace Tansy::Cli
