#include "TansyProto/RapidJsonProto.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CpuTime.h"
#include "TansyProto/DocumentPath.h"

namespace TansyProto {
namespace {

using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

TEST(RapidJsonProtoTest, WritesInTheOrderOfTheCalls) {
  CRapidJsonProto document;
  EXPECT_TRUE(document.SetString("/Marker", ""));
  EXPECT_TRUE(document.SetInt("/MaxKeys", 3000));
  EXPECT_TRUE(document.SetBool("/IsTruncated", false));
  EXPECT_TRUE(document.SetInt("/PoolCount", 1));
  EXPECT_TRUE(document.SetString("/List[1]/PoolID", "1"));
  EXPECT_TRUE(document.SetString("/List[1]/PoolName", "local"));
  EXPECT_TRUE(document.SetString("/List[2]/PoolID", "2"));
  EXPECT_TRUE(document.SetString("/A/B/C", "deep"));
  EXPECT_EQ(document.Serialize(),
            R"({"Marker":"","MaxKeys":3000,"IsTruncated":false,"PoolCount":1,)"
            R"("List":[{"PoolID":"1","PoolName":"local"},{"PoolID":"2"}],"A":{"B":{"C":"deep"}}})");
}

TEST(RapidJsonProtoTest, EmptyDocumentIsAnEmptyObject) {
  CRapidJsonProto document;
  EXPECT_EQ(document.Serialize(), "{}");
  EXPECT_FALSE(document.Has("/A"));
  EXPECT_EQ(document.GetString("/A", "missing"), "missing");
  EXPECT_EQ(document.GetInt("/A"), -1);
}

TEST(RapidJsonProtoTest, RefusedWritesLeaveTheDocumentAsItWas) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.SetString("/A/B", "x"));
  ASSERT_TRUE(document.SetInt("/List[1]", 1));
  const std::string before = document.Serialize();
  for (const char* path :
       {"",           "/",     "A",     "/A",      "/List",   "/A/B/C",    "/List/C",      "/List[3]",
        "/List[1]/C", "/A[1]", "/A[2]", "/A/B[1]", "/New[2]", "/New/X[2]", "/New[1]/X[2]", "/A/",
        "//A",        "/A[0]", "/A[x]", "/A/\xFF"}) {
    EXPECT_FALSE(document.SetString(path, "y")) << path;
    EXPECT_FALSE(document.SetInt(path, 1)) << path;
    EXPECT_FALSE(document.SetBool(path, true)) << path;
  }
  EXPECT_EQ(document.Serialize(), before);
}

TEST(RapidJsonProtoTest, ListsTheMembersOfAnObject) {
  CRapidJsonProto document;
  ASSERT_TRUE(
      document.Parse(R"({"q":{"b":"1","a/b[1]":2,"c":true,"d":null,"e":[1],"f":{},"":"x"},"l":[1,{"m":"n"},3]})"));
  const std::vector<std::pair<std::string, std::string>> members = {
      {"b", "1"}, {"a/b[1]", "2"}, {"c", "true"}, {"", "x"}};
  EXPECT_EQ(document.GetMembers("/q"), members);
  EXPECT_EQ(document.GetMembers("/l[2]").size(), 1U);
  EXPECT_TRUE(document.GetMembers("/l").empty());
  EXPECT_TRUE(document.GetMembers("/none").empty());
  EXPECT_EQ(document.GetCount("/l"), 3U);
  EXPECT_EQ(document.GetCount("/q"), 0U);
  EXPECT_EQ(document.GetCount("/none"), 0U);
}

TEST(RapidJsonProtoTest, SaysOfWhichKindAValueIs) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.Parse(
      R"({"n":null,"t":true,"f":false,"i":-1,"most":9223372036854775807,"more":9223372036854775808,"d":1.0,"e":1e3,)"
      R"("s":"1","l":[],"o":{},"in":[1,["x"]]})"));
  EXPECT_EQ(document.GetKind("/none"), EJsonKind::kMissing);
  EXPECT_EQ(document.GetKind("no path"), EJsonKind::kMissing);
  EXPECT_EQ(document.GetKind("/n"), EJsonKind::kNull);
  EXPECT_EQ(document.GetKind("/t"), EJsonKind::kBoolean);
  EXPECT_EQ(document.GetKind("/f"), EJsonKind::kBoolean);
  EXPECT_EQ(document.GetKind("/i"), EJsonKind::kInteger);
  EXPECT_EQ(document.GetKind("/most"), EJsonKind::kInteger);
  EXPECT_EQ(document.GetKind("/more"), EJsonKind::kOtherNumber);
  EXPECT_EQ(document.GetKind("/d"), EJsonKind::kOtherNumber);
  EXPECT_EQ(document.GetKind("/e"), EJsonKind::kOtherNumber);
  EXPECT_EQ(document.GetKind("/s"), EJsonKind::kText);
  EXPECT_EQ(document.GetKind("/l"), EJsonKind::kList);
  EXPECT_EQ(document.GetKind("/o"), EJsonKind::kObject);
  EXPECT_EQ(document.GetKind("/in[1]"), EJsonKind::kInteger);
  EXPECT_EQ(document.GetKind("/in[2]"), EJsonKind::kList);
}

TEST(RapidJsonProtoTest, GivesTheNamesOfAllMembersOfTheRoot) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.Parse(R"({"b":null,"a/b[1]":[1],"":{"inner":1},"b":2})"));
  EXPECT_EQ(document.GetNames(), (std::vector<std::string>{"b", "a/b[1]", "", "b"}));
  ASSERT_TRUE(document.Parse(R"(["b"])"));
  EXPECT_TRUE(document.GetNames().empty());
}

TEST(RapidJsonProtoTest, WritesFractions) {
  CRapidJsonProto document;
  EXPECT_TRUE(document.SetNumber("/a", 0.0005));
  EXPECT_TRUE(document.SetNumber("/b", 60));
  EXPECT_FALSE(document.SetNumber("/c", std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(document.SetNumber("/c", std::numeric_limits<double>::quiet_NaN()));
  EXPECT_EQ(document.Serialize(), R"({"a":0.0005,"b":60.0})");
}

TEST(RapidJsonProtoTest, MakesAnEmptyList) {
  CRapidJsonProto document;
  EXPECT_TRUE(document.SetList("/empty"));
  EXPECT_TRUE(document.SetList("/a/full"));
  EXPECT_TRUE(document.SetInt("/a/full[1]", 5));
  EXPECT_FALSE(document.SetList("/a/full")) << "it is there";
  EXPECT_FALSE(document.SetList("/a/full[3]"));
  EXPECT_TRUE(document.SetList("/a/full[2]"));
  EXPECT_EQ(document.Serialize(), R"({"empty":[],"a":{"full":[5,[]]}})");
}

TEST(RapidJsonProtoTest, WritingAgainReplacesTheValue) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.SetString("/A", "x"));
  ASSERT_TRUE(document.SetInt("/B[1]", 1));
  EXPECT_TRUE(document.SetInt("/A", 2));
  EXPECT_TRUE(document.SetBool("/B[1]", true));
  EXPECT_EQ(document.Serialize(), R"({"A":2,"B":[true]})");
}

TEST(RapidJsonProtoTest, ReadsWhatOthersWrite) {
  CRapidJsonProto document;
  ASSERT_TRUE(
      document.Parse(" {\"ErrorCode\": -50001, \"Message\": \"m\\u4e2d\\n\\u0000\", \"Flag\": true, \"N\": null,\n"
                     "\"List\": [{\"P\": \"1\"}, {\"P\": 2.50}], \"Big\": 18446744073709551615, \"\": 3,"
                     "\"Min\": -9223372036854775808, \"Text\": \" 42 \"} \r\n"sv));
  EXPECT_EQ(document.GetInt("/ErrorCode"), -50001);
  EXPECT_EQ(document.GetString("/ErrorCode"), "-50001");
  EXPECT_EQ(document.GetString("/Message"), "m\xE4\xB8\xAD\n\0"s);
  EXPECT_EQ(document.GetString("/Flag"), "true");
  EXPECT_EQ(document.GetInt("/Flag", 9), 9);
  EXPECT_TRUE(document.Has("/N"));
  EXPECT_EQ(document.GetString("/N", "missing"), "missing");
  EXPECT_EQ(document.GetString("/List[1]/P"), "1");
  EXPECT_EQ(document.GetInt("/List[1]/P"), 1);
  EXPECT_EQ(document.GetString("/List[2]/P"), "2.5");
  EXPECT_EQ(document.GetInt("/List[2]/P", 9), 9);
  EXPECT_FALSE(document.Has("/List[3]"));
  EXPECT_FALSE(document.Has("/List/P"));
  EXPECT_EQ(document.GetString("/List", "missing"), "missing");
  EXPECT_EQ(document.GetString("/Big"), "18446744073709551615");
  EXPECT_EQ(document.GetInt("/Big", 9), 9);
  EXPECT_EQ(document.GetInt("/Min"), INT64_MIN);
  EXPECT_EQ(document.GetInt("/Text"), 42);
}

TEST(RapidJsonProtoTest, RootMayBeAnyValueButHoldsMembersOnlyAsAnObject) {
  for (const char* text : {"null", "1", "\"x\"", "[1]", "true"}) {
    CRapidJsonProto document;
    EXPECT_TRUE(document.Parse(text)) << text;
    EXPECT_FALSE(document.Has("/A"));
    EXPECT_FALSE(document.SetInt("/A", 1)) << text;
    EXPECT_EQ(document.Serialize(), text);
  }
}

class RefusedJsonTest : public testing::TestWithParam<std::string_view> {};

TEST_P(RefusedJsonTest, LeavesAnEmptyDocument) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.SetInt("/Before", 1));
  EXPECT_FALSE(document.Parse(GetParam())) << GetParam();
  EXPECT_EQ(document.Serialize(), "{}");
  EXPECT_TRUE(document.SetInt("/After", 1));
}

INSTANTIATE_TEST_SUITE_P(Texts, RefusedJsonTest,
                         testing::Values(""sv, " "sv, "{"sv, "}"sv, "{}{}"sv, "{} x"sv, "[1,]"sv, "{\"a\"}"sv,
                                         "{\"a\":}"sv, "{a:1}"sv, "{'a':1}"sv, "{\"a\":1,}"sv, "// c\n{}"sv, "nul"sv,
                                         "NaN"sv, "Infinity"sv, "01"sv, "+1"sv, ".5"sv, "1."sv, "1e999"sv,
                                         "[{\"a\":-2.51e308}]"sv, "\"\n\""sv, "\"\\x\""sv, "\"\\u12\""sv,
                                         "\"\\ud800\""sv, "\"\\ud800\\ud800\""sv, "\"\\ud800x\\udc00\""sv,
                                         "\"\\udc00\""sv, "\"\\ud83d\\ude00\\ude00\""sv, "{\"\\udfff\":1}"sv,
                                         "\"\xFF\""sv, "\"\xC0\x80\""sv, "\"\xED\xA0\x80\""sv, "{}\0"sv, "{}\0x"sv,
                                         "\0{}"sv, "{\"a\":1\0}"sv, "\"a\0b\""sv, "<a/>"sv, "\xFF\xFE{\0}\0"sv));

TEST(RapidJsonProtoTest, TextIsEscapedAndComesBack) {
  std::string all;
  for (int c = 0; c < 0x80; ++c) {
    all += static_cast<char>(c);
  }
  all += "\xE4\xB8\xAD\xF0\x9F\x98\x80";
  CRapidJsonProto document;
  ASSERT_TRUE(document.SetString("/A", all));
  CRapidJsonProto again;
  ASSERT_TRUE(again.Parse(document.Serialize()));
  EXPECT_EQ(again.GetString("/A"), all);
}

TEST(RapidJsonProtoTest, SurrogatePairsAreOneCharacter) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.Parse(R"({"A":"\ud83d\uDE00\\ude00\u005c","B":"x"})"));
  EXPECT_EQ(document.GetString("/A"), "\xF0\x9F\x98\x80\\ude00\\");
  EXPECT_EQ(document.GetString("/B"), "x");
}

TEST(RapidJsonProtoTest, NumbersOfManyDigitsDoNoHarm) {
  for (const std::string& digits : {std::string(200, '1'), std::string(2000, '9'), "0." + std::string(2000, '0') + "1",
                                    std::string(300, '7') + "." + std::string(900, '3')}) {
    for (const char* exponent : {"", "e308", "e-308", "e-999", "E+5", "e2147483648", "e-2147483648"}) {
      CRapidJsonProto document;
      if (document.Parse("[" + digits + exponent + "]")) {
        CRapidJsonProto again;
        EXPECT_TRUE(again.Parse(document.Serialize())) << digits << exponent << ": " << document.Serialize();
      }
    }
  }
}

TEST(RapidJsonProtoTest, BytesThatAreNoTextAreReplaced) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.SetString("/A", "k\xFF\xC0z"));
  EXPECT_EQ(document.Serialize(), "{\"A\":\"k\xEF\xBF\xBD\xEF\xBF\xBDz\"}");
  CRapidJsonProto again;
  EXPECT_TRUE(again.Parse(document.Serialize()));
}

std::string Nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(RapidJsonProtoTest, DepthHasALimit) {
  CRapidJsonProto document;
  EXPECT_TRUE(document.Parse(Nested(kMaxDepth)));
  EXPECT_EQ(document.Serialize(), Nested(kMaxDepth));
  EXPECT_FALSE(document.Parse(Nested(kMaxDepth + 1)));
  std::string objects;
  for (int i = 0; i < 1'000'000; ++i) {
    objects += "{\"a\":";
  }
  for (const std::string& text : {Nested(1'000'000), std::string(10'000'000, '['), objects}) {
    EXPECT_LT(CpuSeconds([&] { EXPECT_FALSE(document.Parse(text)); }), 1.0);
  }
  EXPECT_TRUE(document.Parse("\"" + std::string(1000, '[') + "\""));
  EXPECT_TRUE(document.Parse("\"\\\"" + std::string(1000, '[') + "\""));
}

TEST(RapidJsonProtoTest, NumberOfValuesAndLengthHaveALimit) {
  CRapidJsonProto document;
  std::string text = "[0";
  for (std::size_t i = 0; i < kMaxDocumentValues - 1; ++i) {
    text += ",0";
  }
  EXPECT_TRUE(document.Parse(text + "]"));
  EXPECT_FALSE(document.Parse(text + ",0]"));
  EXPECT_TRUE(document.Parse("\"" + std::string(kMaxDocumentBytes - 2, 'x') + "\""));
  EXPECT_FALSE(document.Parse("\"" + std::string(kMaxDocumentBytes - 1, 'x') + "\""));
}

TEST(RapidJsonProtoTest, MovedFromDocumentIsAnEmptyOne) {
  CRapidJsonProto first;
  ASSERT_TRUE(first.SetString("/A", "x"));
  CRapidJsonProto second(std::move(first));
  EXPECT_EQ(second.GetString("/A"), "x");
  EXPECT_EQ(first.Serialize(), "{}");  // NOLINT(bugprone-use-after-move): this is what is tested
  EXPECT_FALSE(first.Has("/A"));       // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(first.SetInt("/B", 1));  // NOLINT(bugprone-use-after-move)
  first = std::move(second);
  EXPECT_EQ(first.Serialize(), R"({"A":"x"})");
  EXPECT_TRUE(second.SetBool("/C", true));  // NOLINT(bugprone-use-after-move)
}

void WriteAndReadList(int size) {
  CRapidJsonProto document;
  for (int i = 1; i <= size; ++i) {
    ASSERT_TRUE(document.SetInt("/List[" + std::to_string(i) + "]/ID", i));
  }
  CRapidJsonProto again;
  ASSERT_TRUE(again.Parse(document.Serialize()));
  for (int i = size; i >= 1; --i) {
    ASSERT_EQ(again.GetInt("/List[" + std::to_string(i) + "]/ID"), i);
  }
}

TEST(RapidJsonProtoTest, LongListsAreWrittenAndReadInNoTime) {
  EXPECT_TRUE(IsLinear(WriteAndReadList, 100'000));
}

class RapidJsonProtoRandomTest : public testing::TestWithParam<unsigned> {};

TEST_P(RapidJsonProtoRandomTest, DamagedDocumentsDoNoHarm) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  std::mt19937 random(GetParam());
  const std::string good = "{\"A\":[1,-2.5e3,{\"B\":\"t\\u0041\\n\xE4\xB8\xAD\"}],\"C\":true,\"D\":null,\"E\":{}}";
  int accepted = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string text = good;
    const std::size_t at = random() % text.size();
    switch (random() % 3) {
      case 0:
        text.erase(at, 1 + random() % 4);
        break;
      case 1:
        text.insert(at, 1, "{}[]:,\"\\019-+.eE tfn\x01\xE4"[random() % 24]);
        break;
      default:
        text[at] = static_cast<char>(random());
    }
    CRapidJsonProto document;
    if (!document.Parse(text)) {
      continue;
    }
    ++accepted;
    CRapidJsonProto again;
    ASSERT_TRUE(again.Parse(document.Serialize())) << text;
  }
  EXPECT_GT(accepted, 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RapidJsonProtoRandomTest, testing::Range(1U, 21U));

TEST(RapidJsonProtoTest, GivesTheTextOfOneValue) {
  CRapidJsonProto document;
  ASSERT_TRUE(document.Parse(R"({"a": [["b", 1], {"c": "d"}], "e": "f"})"));
  EXPECT_EQ(document.Serialize("/a[1]"), R"(["b",1])");
  EXPECT_EQ(document.Serialize("/a[2]"), R"({"c":"d"})");
  EXPECT_EQ(document.Serialize("/e"), R"("f")");
  EXPECT_EQ(document.Serialize("/a[3]"), "");
  EXPECT_EQ(document.Serialize("/g"), "");
}

}  // namespace
}  // namespace TansyProto
