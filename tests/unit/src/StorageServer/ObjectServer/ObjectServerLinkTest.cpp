// Links: what stands behind the token of a query changes nothing of what was signed.
#include "ObjectServerMultipartFixture.h"
#include "StorageServer/ServerComm.h"
#include "TansyBase/Encrypt.h"

namespace Tansy::Tests {
namespace {

class CObjectServerLinkTest : public CObjectServerMultipartFixture {
 protected:
  // A request that carries nothing but a link, with `appended` behind the token.
  FakeAnswer SendLink(const std::string& method, const std::string& key, const std::string& query,
                      const std::string& appended, const std::string& body = {}) {
    const std::string text = method + "\n\n\n\n\n" + Path(key) + "?" + query;
    std::string token =
        TansyBase::Encrypt::Base64Encode("quorvane access-key:" + CloudStorage::SignHmacSha1(text, "secret-key"));
    for (std::size_t plus = token.find('+'); plus != std::string::npos; plus = token.find('+', plus)) {
      token.replace(plus, 1, "%2B");
    }
    return SendMessage(Message({method, Path(key), query + "&token=" + token + appended, body, {}}));
  }
};

TEST_F(CObjectServerLinkTest, APartIsStoredUnderTheNumberThatWasSigned) {
  const std::string upload_id = NewTask("k");
  EXPECT_TRUE(IsXml(SendLink("POST", "k", "upload_id=" + upload_id + "&part_number=1", "&part_number=7", "part"), ""));
  EXPECT_EQ(StateOf(upload_id).first_part, 1u);
  EXPECT_EQ(StateOf(upload_id).parts.size(), 1u);
}

TEST_F(CObjectServerLinkTest, AnotherTaskBehindTheTokenIsNotMeant) {
  const std::string upload_id = NewTask("k");
  const std::string other = NewTask("other");
  EXPECT_TRUE(SendLink("GET", "k", "upload_id=" + upload_id, "&upload_id=" + other).body.find(upload_id) !=
              std::string::npos);
}

TEST_F(CObjectServerLinkTest, ALinkToReadAnObjectReadsIt) {
  NewObject(bucket_, "k", "bytes");
  EXPECT_EQ(SendLink("GET", "k", "shared=1", "&upload_id=1").body, "bytes");
}

TEST_F(CObjectServerLinkTest, ALinkToListPartsSendsNone) {
  const std::string upload_id = NewTask("k");
  // With the appended words this would be a part; without them it is a completion, and not a right one.
  EXPECT_TRUE(
      IsError(SendLink("POST", "k", "upload_id=" + upload_id, "&part_number=1", "part"), 400, "InvalidXmlContent"));
  EXPECT_EQ(StateOf(upload_id).first_part, 0u);
}

}  // namespace
}  // namespace Tansy::Tests
