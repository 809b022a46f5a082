#include "BucketList.h"

#include "ServerLink.h"
#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {

std::vector<BucketRow> ListBuckets(const CServerLink& server) {
  const TansyNet::CHttpClientResponse answer = server.Request("GET", "/", "list of buckets");
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

}  // namespace Tansy::Cli
