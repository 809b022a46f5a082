#include "TansyProto/XmlProto.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "CpuTime.h"
#include "TansyProto/DocumentPath.h"
#include "TansyProto/TextRules.h"

namespace TansyProto {
namespace {

using std::string_literals::operator""s;

constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

std::string Text(const CXmlProto& document) {
  std::string text = "unchanged";
  return document.Serialize(text) ? text : "nothing";
}

TEST(XmlProtoTest, WritesInTheOrderOfTheCalls) {
  CXmlProto document;
  EXPECT_TRUE(document.SetString("/InitiateMultipartUploadResult/Bucket", "b"));
  EXPECT_TRUE(document.SetString("/InitiateMultipartUploadResult/Key", "k"));
  EXPECT_TRUE(document.SetInt("/InitiateMultipartUploadResult/UploadId", -12));
  EXPECT_EQ(Text(document), kDeclaration +
                                "<InitiateMultipartUploadResult><Bucket>b</Bucket><Key>k</Key>"
                                "<UploadId>-12</UploadId></InitiateMultipartUploadResult>"s);
}

TEST(XmlProtoTest, ListsGrowOneByOne) {
  CXmlProto document;
  EXPECT_TRUE(document.SetInt("/L/Part[1]/PartNumber", 7));
  EXPECT_TRUE(document.SetInt("/L/Part[1]/PartSize", 70));
  EXPECT_TRUE(document.SetInt("/L/Part[2]/PartNumber", 8));
  EXPECT_FALSE(document.SetInt("/L/Part[4]/PartNumber", 9));
  EXPECT_FALSE(document.SetInt("/L/Part[3]/Inner[2]", 9));
  EXPECT_FALSE(document.SetInt("/L/Other[2]", 9));
  EXPECT_TRUE(document.SetInt("/L/Other", 1));
  EXPECT_TRUE(document.SetInt("/L/Part[3]/PartNumber", 9));
  EXPECT_EQ(Text(document), kDeclaration +
                                "<L><Part><PartNumber>7</PartNumber><PartSize>70</PartSize></Part>"
                                "<Part><PartNumber>8</PartNumber></Part><Other>1</Other>"
                                "<Part><PartNumber>9</PartNumber></Part></L>"s);
  EXPECT_EQ(document.GetInt("/L/Part[3]/PartNumber"), 9);
  EXPECT_EQ(document.GetInt("/L/Part/PartNumber"), 7);
  EXPECT_FALSE(document.Has("/L/Part[4]"));
}

TEST(XmlProtoTest, RefusedWritesLeaveTheDocumentAsItWas) {
  CXmlProto document;
  ASSERT_TRUE(document.SetString("/A/B", "x"));
  const std::string before = Text(document);
  for (const char* path : {"/A/C/D[2]", "/A/C[2]/D", "/C", "/A[2]", "/C/D", "", "/", "A", "/A/", "/A//B", "/A/1x",
                           "/A/b c", "/A/B[0]", "/A/<", "/A/B[x]", "/A/&amp;"}) {
    EXPECT_FALSE(document.SetString(path, "y")) << path;
    EXPECT_FALSE(document.SetInt(path, 1)) << path;
    EXPECT_FALSE(document.SetEmpty(path)) << path;
  }
  EXPECT_EQ(Text(document), before);
}

TEST(XmlProtoTest, WritingAgainReplacesTheText) {
  CXmlProto document;
  ASSERT_TRUE(document.SetString("/A/B", "old"));
  ASSERT_TRUE(document.SetString("/A/C", "c"));
  EXPECT_TRUE(document.SetString("/A/B[1]", "new"));
  EXPECT_TRUE(document.SetString("/A[1]/C", ""));
  EXPECT_EQ(Text(document), kDeclaration + "<A><B>new</B><C/></A>"s);
  EXPECT_EQ(document.GetString("/A/C", "missing"), "");
}

TEST(XmlProtoTest, EmptyElementsAreThere) {
  CXmlProto document;
  EXPECT_TRUE(document.SetEmpty("/ListAllMyBucketsResult/Buckets"));
  EXPECT_EQ(Text(document), kDeclaration + "<ListAllMyBucketsResult><Buckets/></ListAllMyBucketsResult>"s);
  EXPECT_TRUE(document.Has("/ListAllMyBucketsResult/Buckets"));
  EXPECT_TRUE(document.SetString("/ListAllMyBucketsResult/Buckets/Bucket[1]/Name", "n"));
  EXPECT_TRUE(document.SetEmpty("/ListAllMyBucketsResult/Buckets"));
  EXPECT_EQ(document.GetString("/ListAllMyBucketsResult/Buckets/Bucket/Name"), "n");
}

TEST(XmlProtoTest, EmptyDocumentHasNoText) {
  CXmlProto document;
  std::string text = "unchanged";
  EXPECT_FALSE(document.Serialize(text));
  EXPECT_EQ(text, "unchanged");
  EXPECT_FALSE(document.Has("/A"));
  EXPECT_EQ(document.GetString("/A", "missing"), "missing");
  EXPECT_EQ(document.GetInt("/A"), -1);
  EXPECT_EQ(document.GetInt("/A", 5), 5);
}

TEST(XmlProtoTest, ReadsWhatOthersWrite) {
  CXmlProto document;
  ASSERT_TRUE(
      document.Parse("\xEF\xBB\xBF<?xml version='1.0'?>\r\n<!-- c -->\n<CompleteMultipartUpload a='1'>\n"
                     "  <TotalPartNum> 2\n</TotalPartNum>\n  <Part>\n    <PartNumber>1</PartNumber>\n  </Part>\n"
                     "  <Other/>\n  <Part><PartSize>&#53;</PartSize><ETag>a<![CDATA[<b>]]>&amp;<!-- x -->c</ETag>"
                     "</Part>\n</CompleteMultipartUpload>\n"));
  EXPECT_EQ(document.GetInt("/CompleteMultipartUpload/TotalPartNum"), 2);
  EXPECT_EQ(document.GetString("/CompleteMultipartUpload/TotalPartNum"), " 2\n");
  EXPECT_EQ(document.GetInt("/CompleteMultipartUpload/Part[1]/PartNumber"), 1);
  EXPECT_EQ(document.GetInt("/CompleteMultipartUpload/Part[1]/PartSize"), -1);
  EXPECT_EQ(document.GetInt("/CompleteMultipartUpload/Part[2]/PartSize"), 5);
  EXPECT_EQ(document.GetString("/CompleteMultipartUpload/Part[2]/ETag"), "a<b>&c");
  EXPECT_FALSE(document.Has("/CompleteMultipartUpload/Part[3]"));
  EXPECT_FALSE(document.Has("/CompleteMultipartUpload[2]"));
  EXPECT_FALSE(document.Has("/Other"));
  EXPECT_EQ(document.GetString("/CompleteMultipartUpload/Other", "missing"), "");
  EXPECT_EQ(document.GetString("/CompleteMultipartUpload/Part"), "\n    \n  ");
}

TEST(XmlProtoTest, BlanksInTextAreKept) {
  CXmlProto document;
  ASSERT_TRUE(document.Parse("<A><B>  </B><C> x </C><D>\n</D>\n</A>"));
  EXPECT_EQ(document.GetString("/A/B"), "  ");
  EXPECT_EQ(document.GetString("/A/C"), " x ");
  EXPECT_EQ(document.GetString("/A/D"), "\n");
}

TEST(XmlProtoTest, FailedParseLeavesAnEmptyDocument) {
  CXmlProto document;
  ASSERT_TRUE(document.SetString("/A", "x"));
  EXPECT_FALSE(document.Parse("<A>"));
  EXPECT_FALSE(document.Has("/A"));
  EXPECT_EQ(Text(document), "nothing");
  EXPECT_TRUE(document.SetString("/B", "y"));
  EXPECT_EQ(Text(document), kDeclaration + "<B>y</B>"s);
}

TEST(XmlProtoTest, ParseReplacesTheDocumentAndItsLists) {
  CXmlProto document;
  ASSERT_TRUE(document.Parse("<L><P>1</P><P>2</P><P>3</P></L>"));
  EXPECT_EQ(document.GetInt("/L/P[3]"), 3);
  ASSERT_TRUE(document.Parse("<L><P>4</P><P>5</P></L>"));
  EXPECT_FALSE(document.Has("/L/P[3]"));
  EXPECT_EQ(document.GetInt("/L/P[2]"), 5);
  EXPECT_TRUE(document.SetInt("/L/P[3]", 6));
  EXPECT_EQ(document.GetInt("/L/P[3]"), 6);
}

TEST(XmlProtoTest, IntegersAreSixtyFourBits) {
  CXmlProto document;
  for (const std::int64_t value : {INT64_MIN, std::int64_t{-1}, std::int64_t{0}, INT64_MAX}) {
    ASSERT_TRUE(document.SetInt("/A", value));
    EXPECT_EQ(document.GetInt("/A", 1), value);
  }
  for (const char* text : {"", " ", "x", "1x", "1.5", "9223372036854775808"}) {
    ASSERT_TRUE(document.SetString("/A", text));
    EXPECT_EQ(document.GetInt("/A", 77), 77) << text;
  }
}

TEST(XmlProtoTest, EveryCarriableTextComesBack) {
  std::string all;
  for (int c = 0x20; c < 0x7F; ++c) {
    all += static_cast<char>(c);
  }
  for (const std::string& text :
       {all, "]]>"s, "\r"s, "\r\n"s, "\n"s, " "s, "\t \n"s, " \r "s, "\xE4\xB8\xAD\xF0\x9F\x98\x80"s, "&amp;"s}) {
    CXmlProto document;
    ASSERT_TRUE(document.SetString("/A/B", text));
    CXmlProto again;
    ASSERT_TRUE(again.Parse(Text(document))) << Text(document);
    EXPECT_EQ(again.GetString("/A/B"), text);
  }
}

TEST(XmlProtoTest, TextThatXmlCannotCarryStaysWellFormed) {
  CXmlProto document;
  ASSERT_TRUE(document.SetString("/A", "k\x01y\0\xFF."s));
  EXPECT_EQ(Text(document), kDeclaration + "<A>k\xEF\xBF\xBDy\xEF\xBF\xBD\xEF\xBF\xBD.</A>"s);
  CXmlProto again;
  EXPECT_TRUE(again.Parse(Text(document)));
}

TEST(XmlProtoTest, AttributesOfOthersAreCarriedOn) {
  CXmlProto document;
  ASSERT_TRUE(document.Parse("<A x='&quot;&#10;&#13;&#9;&lt;&amp;' y=\"'\"><B/></A>"));
  EXPECT_EQ(Text(document), kDeclaration + "<A x=\"&#34;&#10;&#13;&#9;&lt;&amp;\" y=\"'\"><B/></A>"s);
}

TEST(XmlProtoTest, MovedFromDocumentIsAnEmptyOne) {
  CXmlProto first;
  ASSERT_TRUE(first.SetString("/A/B[1]", "x"));
  CXmlProto second(std::move(first));
  EXPECT_EQ(second.GetString("/A/B"), "x");
  first = CXmlProto(std::move(second));
  EXPECT_FALSE(second.Has("/A"));            // NOLINT(bugprone-use-after-move): this is what is tested
  EXPECT_EQ(Text(second), "nothing");        // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(second.SetString("/C", "z"));  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(first.GetString("/A/B"), "x");
  EXPECT_TRUE(second.Parse("<D/>"));
}

TEST(XmlProtoTest, DeepestDocumentCanBeWrittenReadAndWrittenAgain) {
  std::string path;
  for (std::size_t i = 0; i < kMaxDepth; ++i) {
    path += "/a";
  }
  CXmlProto document;
  EXPECT_FALSE(document.SetString(path + "/a", "x"));
  ASSERT_TRUE(document.SetString(path, "x"));
  CXmlProto again;
  ASSERT_TRUE(again.Parse(Text(document)));
  EXPECT_EQ(again.GetString(path), "x");
  EXPECT_EQ(Text(again), Text(document));
}

TEST(XmlProtoTest, MillionLevelsAreRefusedQuickly) {
  std::string text;
  for (int i = 0; i < 1'000'000; ++i) {
    text += "<a>";
  }
  CXmlProto document;
  EXPECT_LT(CpuSeconds([&] { EXPECT_FALSE(document.Parse(text)); }), 1.0);
}

TEST(XmlProtoTest, EntitiesAreNeverExpanded) {
  CXmlProto document;
  EXPECT_FALSE(document.Parse("<!DOCTYPE a [<!ENTITY b 'ha'><!ENTITY c '&b;&b;'>]><a>&c;</a>"));
  EXPECT_FALSE(document.Parse("<!DOCTYPE a SYSTEM 'file:///etc/passwd'><a/>"));
}

void WriteAndReadParts(int parts) {
  CXmlProto document;
  ASSERT_TRUE(document.SetInt("/CompleteMultipartUpload/TotalPartNum", parts));
  for (int i = 1; i <= parts; ++i) {
    const std::string part = "/CompleteMultipartUpload/Part[" + std::to_string(i) + "]";
    ASSERT_TRUE(document.SetInt(part + "/PartNumber", i) && document.SetInt(part + "/PartSize", 2 * i));
    ASSERT_TRUE(document.SetString(part + "/ETag", "tag"));
  }
  const std::string text = Text(document);
  CXmlProto again;
  ASSERT_TRUE(again.Parse(text));
  for (int i = 1; i <= parts; ++i) {
    const std::string part = "/CompleteMultipartUpload/Part[" + std::to_string(i) + "]";
    ASSERT_EQ(again.GetInt(part + "/PartNumber"), i);
    ASSERT_EQ(again.GetInt(part + "/PartSize"), 2 * i);
  }
  EXPECT_FALSE(again.Has("/CompleteMultipartUpload/Part[" + std::to_string(parts + 1) + "]"));
  EXPECT_EQ(Text(again), text);
}

TEST(XmlProtoTest, LongListsAreWrittenAndReadInNoTime) {
  EXPECT_TRUE(IsLinear(WriteAndReadParts, 100'000));
}

void ReadInOddOrder(int parts) {
  std::string text = "<L>";
  for (int i = 1; i <= parts; ++i) {
    text += "<P>" + std::to_string(i) + "</P><X/>";
  }
  CXmlProto document;
  ASSERT_TRUE(document.Parse(text + "</L>"));
  for (int i = parts; i >= 1; --i) {
    ASSERT_EQ(document.GetInt("/L/P[" + std::to_string(i) + "]"), i);
    const int other = i * 7919 % parts + 1;
    ASSERT_EQ(document.GetInt("/L/P[" + std::to_string(other) + "]"), other);
  }
}

TEST(XmlProtoTest, ListsAreReadInAnyOrder) {
  EXPECT_TRUE(IsLinear(ReadInOddOrder, 40'000));
}

// A model of a document: its elements by full path, in the order in which they were made.
class CModel {
 public:
  bool Set(const std::vector<std::pair<std::string, int>>& steps, const std::string& text) {
    std::string path;
    bool is_new = false;
    std::vector<std::string> made;
    for (const auto& [name, index] : steps) {
      const std::string list = path + "/" + name;
      const int count = is_new ? 0 : counts_[list];
      if (index > count + 1 || (path.empty() && index > count && !texts_.empty())) {
        return false;
      }
      is_new = is_new || index > count;
      path = list + "[" + std::to_string(index) + "]";
      if (is_new) {
        made.push_back(list);
        made.push_back(path);
      }
    }
    for (std::size_t i = 0; i < made.size(); i += 2) {
      ++counts_[made[i]];
      texts_[made[i + 1]];
    }
    texts_[path] = text;
    return true;
  }
  const std::map<std::string, std::string>& Texts() const { return texts_; }

 private:
  std::map<std::string, int> counts_;
  std::map<std::string, std::string> texts_;
};

class XmlProtoRandomTest : public testing::TestWithParam<unsigned> {};

TEST_P(XmlProtoRandomTest, BehavesLikeItsModel) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  std::mt19937 random(GetParam());
  const auto pick = [&random](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
  const auto make_text = [&] {
    std::string text;
    for (int i = pick(6); i > 0; --i) {
      text += "a<&>\"'\r\n\t \x01\xFF]"[pick(14)];
    }
    return text;
  };
  CXmlProto document;
  CModel model;
  for (int round = 0; round < 400; ++round) {
    std::vector<std::pair<std::string, int>> steps;
    std::string path;
    for (int depth = 1 + pick(4), i = 0; i < depth; ++i) {
      steps.emplace_back(i == 0 && pick(10) > 0 ? "r" : std::string(1, "abc"[pick(3)]),
                         1 + (pick(3) > 0 ? 0 : pick(5)));
      const bool names_index = steps.back().second > 1 || pick(2) == 0;
      path += "/" + steps.back().first + (names_index ? "[" + std::to_string(steps.back().second) + "]" : "");
    }
    const std::string text = make_text();
    ASSERT_EQ(document.SetString(path, text), model.Set(steps, MakeCarriable(text, true))) << path;
    if (round % 50 == 0) {
      std::string serialized;
      if (document.Serialize(serialized)) {
        ASSERT_TRUE(document.Parse(serialized)) << serialized;
      }
    }
    document.Has("/r/a[" + std::to_string(1 + pick(6)) + "]/b[2]");  // makes lists at odd moments
  }
  for (const auto& [path, text] : model.Texts()) {
    EXPECT_EQ(document.GetString(path, "missing"), text) << path;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, XmlProtoRandomTest, testing::Range(1U, 41U));

// Bytes that were XML before something happened to them: refused or not, nothing may break, and what is accepted has to
// survive being written.
TEST_P(XmlProtoRandomTest, DamagedDocumentsDoNoHarm) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  std::mt19937 random(GetParam());
  const std::string good =
      "<?xml version=\"1.0\"?><!-- c --><A x='1'><B>t&amp;&#65;</B><C><![CDATA[d]]></C><B/><?p i?>\xE4\xB8\xAD</A>";
  int accepted = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string text = good;
    for (unsigned i = 1 + random() % 3; i > 0; --i) {
      const std::size_t at = random() % text.size();
      switch (random() % 4) {
        case 0:
          text.erase(at, 1 + random() % 4);
          break;
        case 1:
          text.insert(at, 1, "<>/!-[]&;'\"= ?x\x01\xE4"[random() % 17]);
          break;
        case 2:
          text[at] = static_cast<char>(random());
          break;
        default:
          text.insert(at, text.substr(random() % text.size(), random() % 12));
      }
      if (text.empty()) {
        break;
      }
    }
    CXmlProto document;
    if (!document.Parse(text)) {
      continue;
    }
    ++accepted;
    CXmlProto again;
    ASSERT_TRUE(again.Parse(Text(document))) << text;
    EXPECT_EQ(Text(again), Text(document)) << text;
  }
  EXPECT_GT(accepted, 0);
}

}  // namespace
}  // namespace TansyProto
