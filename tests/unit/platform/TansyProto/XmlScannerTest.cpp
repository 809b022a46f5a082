#include "TansyProto/XmlScanner.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "TansyProto/DocumentPath.h"

namespace TansyProto {
namespace {

using std::string_view_literals::operator""sv;

class AcceptedXmlTest : public testing::TestWithParam<std::string_view> {};

TEST_P(AcceptedXmlTest, IsAccepted) {
  EXPECT_TRUE(CXmlScanner(GetParam()).Accepts()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AcceptedXmlTest,
    testing::Values("<a/>"sv, "<a></a>"sv, "<a ></a >"sv, "\n <a/> \r\n\t"sv, "\xEF\xBB\xBF<a/>"sv,
                    "<?xml version=\"1.0\"?><a/>"sv, "<?xml version='1.0' encoding='utf-8' standalone='no' ?>\n<a/>"sv,
                    "<?xml version='1.0' standalone='yes'?><a/>"sv, "\xEF\xBB\xBF<?xml version='1.0'?><a/>"sv,
                    "<a>text</a>"sv, "<a>&lt;&gt;&amp;&quot;&apos;&#65;&#x41;&#x10FFFF;</a>"sv,
                    "<a><![CDATA[<b>&nonsense;]]></a>"sv, "<a><![CDATA[]]]]></a>"sv, "<a>]] ></a>"sv, "<a>></a>"sv,
                    "<!-- c --><a/><!-- d -->"sv, "<a><!----></a>"sv, "<?pi?><a><?pi data ?x?></a>"sv,
                    "<?xml-stylesheet href='x'?><a/>"sv, "<a b='1' c=\"2\"/>"sv, "<a b = '1'\n c='2' />"sv,
                    "<a b='\"' c=\"'\" d='>'/>"sv, "<a b='&lt;&#10;'/>"sv, "<ns:a xmlns:ns='u'/>"sv, "<_a-b.c1/>"sv,
                    "<\xE4\xB8\xAD>\xE6\x96\x87</\xE4\xB8\xAD>"sv, "<a><a><a/></a></a>"sv,
                    "<a>tab\tline\nreturn\r</a>"sv));

class RefusedXmlTest : public testing::TestWithParam<std::string_view> {};

TEST_P(RefusedXmlTest, IsRefused) {
  EXPECT_FALSE(CXmlScanner(GetParam()).Accepts()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Structure, RefusedXmlTest,
                         testing::Values(""sv, " "sv, "text"sv, "<"sv, "<a"sv, "<a>"sv, "</a>"sv, "<a></b>"sv,
                                         "<a><b></a></b>"sv, "<a/><b/>"sv, "<a/>text"sv, "text<a/>"sv, "<a></a></a>"sv,
                                         "< a/>"sv, "<a/ >"sv, "</ a>"sv, "<1a/>"sv, "<-a/>"sv, "<a b/>"sv,
                                         "<a b=1/>"sv, "<a b='1/>"sv, "<a b='1'c='2'/>"sv, "<a b='1' b='2'/>"sv,
                                         "<a b='<'/>"sv, "<a/ b='1'>"sv, "</a b='1'>"sv, "<a><b/>"sv, "<>"sv,
                                         "<a>\xEF\xBB\xBF"sv, "{\"a\":1}"sv));

INSTANTIATE_TEST_SUITE_P(
    MarkupAndReferences, RefusedXmlTest,
    testing::Values("<!DOCTYPE a><a/>"sv, "<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>"sv, "<!doctype a><a/>"sv,
                    "<a><!DOCTYPE b></a>"sv, "<!ELEMENT a ANY><a/>"sv, "<a>&x;</a>"sv, "<a>&</a>"sv, "<a>& b</a>"sv,
                    "<a>&amp</a>"sv, "<a>&;</a>"sv, "<a>&#;</a>"sv, "<a>&#x;</a>"sv, "<a>&#0;</a>"sv, "<a>&#1;</a>"sv,
                    "<a>&#xD800;</a>"sv, "<a>&#xFFFE;</a>"sv, "<a>&#x110000;</a>"sv, "<a>&#99999999999;</a>"sv,
                    "<a>&#-65;</a>"sv, "<a>&#+65;</a>"sv, "<a>&#X41;</a>"sv, "<a b='&x;'/>"sv, "<a b='&'/>"sv,
                    "<a>]]></a>"sv, "<a><![CDATA[</a>"sv, "<a><![cdata[]]></a>"sv, "<![CDATA[]]><a/>"sv,
                    "<a><!-- -- --></a>"sv, "<a><!-- ---></a>"sv, "<a><!-- </a>"sv, "<!><a/>"sv, "<a><!-></a>"sv,
                    "<?><a/>"sv, "<?pi <a/>"sv, "<?pi+?><a/>"sv, "<?xml?><a/>"sv, "<?XML version='1.0'?><a/>"sv,
                    " <?xml version='1.0'?><a/>"sv, "<a><?xml version='1.0'?></a>"sv, "<?xml encoding='utf-8'?><a/>"sv,
                    "<?xml version='1.0' version='1.0'?><a/>"sv,
                    "<?xml version='1.0' standalone='no' encoding='utf-8'?><a/>"sv,
                    "<?xml version='1.0' other='1'?><a/>"sv, "<?xml version='1.0'><a/>"sv));

INSTANTIATE_TEST_SUITE_P(Bytes, RefusedXmlTest,
                         testing::Values("<a>\0</a>"sv, "<a/>\0"sv, "\0<a/>"sv, "<a\0/>"sv, "<a>\x01</a>"sv,
                                         "<a>\x1F</a>"sv, "<a b='\x02'/>"sv, "<a>\xFF</a>"sv, "<a>\xC0\x80</a>"sv,
                                         "<a>\xE0\x80\x80</a>"sv, "<a>\xED\xA0\x80</a>"sv, "<a>\xEF\xBF\xBE</a>"sv,
                                         "<a>\xF4\x90\x80\x80</a>"sv, "<a>\xE4\xB8</a>"sv, "<\xC3>"sv,
                                         "\xFF\xFE<\0a\0/\0>\0"sv, "<!-- \xFF --><a/>"sv));

std::string Nested(std::size_t depth, const char* open, const char* close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) {
    text += open;
  }
  for (std::size_t i = 0; i < depth; ++i) {
    text += close;
  }
  return text;
}

TEST(XmlScannerTest, DepthHasALimit) {
  EXPECT_TRUE(CXmlScanner(Nested(kMaxDepth, "<a>", "</a>")).Accepts());
  EXPECT_FALSE(CXmlScanner(Nested(kMaxDepth + 1, "<a>", "</a>")).Accepts());
  EXPECT_FALSE(CXmlScanner(Nested(1'000'000, "<a>", "</a>")).Accepts());
}

TEST(XmlScannerTest, NumberOfElementsAndAttributesHasALimit) {
  std::string elements = "<r>";
  for (std::size_t i = 0; i < kMaxDocumentValues - 2; ++i) {
    elements += "<a/>";
  }
  EXPECT_TRUE(CXmlScanner(elements + "</r>").Accepts());
  EXPECT_FALSE(CXmlScanner(elements + "<a/></r>").Accepts());

  std::string attributes = "<r";
  for (std::size_t i = 0; i < kMaxDocumentValues; ++i) {
    attributes += " a" + std::to_string(i) + "=''";
  }
  EXPECT_FALSE(CXmlScanner(attributes + "/>").Accepts());
}

TEST(XmlScannerTest, LengthHasALimit) {
  const std::string start = "<a>";
  const std::string end = "</a>";
  const std::string most(kMaxDocumentBytes - start.size() - end.size(), 'x');
  EXPECT_TRUE(CXmlScanner(start + most + end).Accepts());
  EXPECT_FALSE(CXmlScanner(start + most + "x" + end).Accepts());
}

TEST(XmlScannerTest, NamesOfElements) {
  for (const auto name : {"a"sv, "_"sv, "A1-b.c"sv, "ns:x"sv, "\xE4\xB8\xAD"sv}) {
    EXPECT_TRUE(IsXmlName(name)) << name;
  }
  for (const auto name : {""sv, "1"sv, "-a"sv, ".a"sv, "a b"sv, "a>"sv, "a\0"sv, "a\xFF"sv, "\xC3"sv, "a/"sv}) {
    EXPECT_FALSE(IsXmlName(name)) << name;
  }
}

}  // namespace
}  // namespace TansyProto
