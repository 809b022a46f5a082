#include "logging/QualifiedName.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "logging/Logging.h"

#define NAME_HERE                                                                  \
  []() -> std::string {                                                            \
    static constexpr auto name = ::logging::CutQualifiedName(TANSY_FUNCTION_TEXT); \
    return name.text;                                                              \
  }()

// This does what TANSY_LOG does, without the lambda around it.
#define RETURN_NAME                                                              \
  static constexpr auto name = ::logging::CutQualifiedName(TANSY_FUNCTION_TEXT); \
  return name.text

namespace Tansy::CloudStorage {
namespace {

template <std::size_t Length>
consteval auto Cut(const char (&pretty)[Length]) {
  return logging::CutQualifiedName(pretty);
}

struct Config {};

}  // namespace

namespace details {
namespace {

std::string InUnnamedNamespace(int) {
  RETURN_NAME;
}

}  // namespace
}  // namespace details

class CSample {
 public:
  CSample() : constructed(NAME_HERE) {}
  explicit CSample(std::string& destroyed) : destroyed_(&destroyed) {}
  virtual ~CSample() {
    if (destroyed_ != nullptr) {
      *destroyed_ = NAME_HERE;
    }
  }

  virtual std::string Virtual(const std::map<std::string, std::vector<int>>&) const { RETURN_NAME; }
  static std::string Static() noexcept { RETURN_NAME; }
  std::string operator()(int) const { RETURN_NAME; }
  std::string operator[](int) const { RETURN_NAME; }
  std::string operator<(int) const { RETURN_NAME; }
  std::string operator<<(int) const { RETURN_NAME; }
  std::string operator->*(int) const { RETURN_NAME; }
  std::string operator==(const char*) const { RETURN_NAME; }
  operator std::string() const { RETURN_NAME; }
  operator std::vector<std::string>() const { return {NAME_HERE}; }
  std::function<std::string(int)> ReturnsFunction(std::function<int(int)>) const {
    return [](int) -> std::string { RETURN_NAME; };
  }
  template <class Value>
  std::string Template(Value) const {
    RETURN_NAME;
  }
  auto Deduced() const { return std::string(NAME_HERE); }

  std::string constructed;

 private:
  std::string* destroyed_ = nullptr;
};

template <class Value>
class CTemplate {
 public:
  CTemplate() : constructed(NAME_HERE) {}
  std::string Member(Value) { RETURN_NAME; }
  template <class Other>
  std::string MemberTemplate(Other) {
    RETURN_NAME;
  }
  std::string constructed;
};

template <class Value, int kCount>
std::string FunctionTemplate(Value) {
  RETURN_NAME;
}

const char* ReturnsPointer(std::string& out) {
  out = NAME_HERE;
  return "";
}
const std::string& ReturnsReference(std::string& out) {
  out = NAME_HERE;
  return out;
}
void (*ReturnsFunctionPointer(std::string& out))(int) {
  out = NAME_HERE;
  return nullptr;
}
decltype(1 + 1) ReturnsDecltype(std::string& out) {
  out = NAME_HERE;
  return 0;
}
std::string operator""_name(const char*, std::size_t) {
  RETURN_NAME;
}

namespace {

const std::string kPrefix = "Tansy::CloudStorage::";

TEST(QualifiedName, FreeFunctionsKeepTheirNamespaces) {
  std::string out;
  ReturnsPointer(out);
  EXPECT_EQ(out, kPrefix + "ReturnsPointer");
  ReturnsReference(out);
  EXPECT_EQ(out, kPrefix + "ReturnsReference");
  ReturnsFunctionPointer(out);
  EXPECT_EQ(out, kPrefix + "ReturnsFunctionPointer");
  ReturnsDecltype(out);
  EXPECT_EQ(out, kPrefix + "ReturnsDecltype");
  EXPECT_EQ(""_name, kPrefix + "operator\"\"_name");
}

TEST(QualifiedName, UnnamedNamespacesAreLeftOut) {
  EXPECT_EQ(details::InUnnamedNamespace(1), kPrefix + "details::InUnnamedNamespace");
}

TEST(QualifiedName, MembersConstructorsAndDestructors) {
  EXPECT_EQ(CSample().constructed, kPrefix + "CSample::CSample");
  std::string destroyed;
  { const CSample sample(destroyed); }
  EXPECT_EQ(destroyed, kPrefix + "CSample::~CSample");
  EXPECT_EQ(CSample().Virtual({}), kPrefix + "CSample::Virtual");
  EXPECT_EQ(CSample::Static(), kPrefix + "CSample::Static");
  EXPECT_EQ(CSample().Deduced(), kPrefix + "CSample::Deduced");
}

TEST(QualifiedName, Operators) {
  const CSample sample;
  EXPECT_EQ(sample(1), kPrefix + "CSample::operator()");
  EXPECT_EQ(sample[1], kPrefix + "CSample::operator[]");
  EXPECT_EQ(sample < 1, kPrefix + "CSample::operator<");
  EXPECT_EQ(sample << 1, kPrefix + "CSample::operator<<");
  EXPECT_EQ(sample->*1, kPrefix + "CSample::operator->*");
  EXPECT_EQ(sample.operator==(""), kPrefix + "CSample::operator==");
  // Compilers write the type differently; what matters is that the name does not end inside it.
  const std::string to_string = sample;
  EXPECT_EQ(to_string.rfind(kPrefix + "CSample::operator ", 0), 0u) << to_string;
  EXPECT_EQ(to_string.find('('), std::string::npos) << to_string;
  const std::string to_vector = std::vector<std::string>(sample)[0];
  EXPECT_EQ(to_vector.rfind(kPrefix + "CSample::operator ", 0), 0u) << to_vector;
  EXPECT_NE(to_vector.find("vector"), std::string::npos) << to_vector;
}

TEST(QualifiedName, LambdasGoByTheFunctionThatTheyStandIn) {
  EXPECT_EQ(CSample().ReturnsFunction({})(1), kPrefix + "CSample::ReturnsFunction");
  const auto nested = [] { return [] { return std::string(NAME_HERE); }(); };
  EXPECT_NE(nested().find("LambdasGoByTheFunctionThatTheyStandIn_Test::TestBody"), std::string::npos) << nested();
  EXPECT_EQ(nested().find("lambda"), std::string::npos) << nested();
}

TEST(QualifiedName, ArgumentsOfFunctionTemplatesAreLeftOutThoseOfClassesKept) {
  EXPECT_EQ(CSample().Template(1), kPrefix + "CSample::Template");
  EXPECT_EQ((FunctionTemplate<std::vector<int>, 3>({})), kPrefix + "FunctionTemplate");
  CTemplate<int> sample;
  EXPECT_EQ(sample.constructed.rfind(kPrefix + "CTemplate<", 0), 0u) << sample.constructed;
  EXPECT_TRUE(sample.Member(1).ends_with(">::Member")) << sample.Member(1);
  EXPECT_TRUE(sample.MemberTemplate("").ends_with(">::MemberTemplate")) << sample.MemberTemplate("");
}

// These are the texts that other compilers produce, so that a change of the cutting code is checked against them too.
TEST(QualifiedName, TextsOfOneCompiler) {
  EXPECT_STREQ(Cut("std::string (anonymous namespace)::Load(const std::string &)").text, "Load");
  EXPECT_STREQ(Cut("const char *Tansy::details::(anonymous namespace)::Name(int)").text, "Tansy::details::Name");
  EXPECT_STREQ(Cut("auto Tansy::Run(int)::(anonymous class)::operator()() const").text, "Tansy::Run");
  EXPECT_STREQ(Cut("void Tansy::Run(T) [T = std::map<int, char>]").text, "Tansy::Run");
  EXPECT_STREQ(Cut("auto (anonymous class)::operator()() const").text, "(anonymous class)::operator()");
}

TEST(QualifiedName, TextsOfAnotherCompiler) {
  EXPECT_STREQ(Cut("int __cdecl Tansy::CloudStorage::CObjectServer::Init(const struct Config &)").text,
               "Tansy::CloudStorage::CObjectServer::Init");
  EXPECT_STREQ(Cut("__cdecl Tansy::CSample::CSample(void)").text, "Tansy::CSample::CSample");
  EXPECT_STREQ(Cut("__cdecl Tansy::CSample::~CSample(void)").text, "Tansy::CSample::~CSample");
  EXPECT_STREQ(Cut("class std::basic_string<char,struct std::char_traits<char> > __cdecl "
                   "Tansy::details::`anonymous-namespace'::Make<int>(int)")
                   .text,
               "Tansy::details::Make");
  EXPECT_STREQ(Cut("auto __cdecl Tansy::Run::<lambda_1>::operator ()(int) const").text,
               "Tansy::Run::<lambda_1>::operator ()");
  EXPECT_STREQ(Cut("bool __cdecl Tansy::CThing<class A>::operator <(int)").text, "Tansy::CThing<class A>::operator <");
}

TEST(QualifiedName, OddTextsDoNotBreakTheCutter) {
  EXPECT_STREQ(Cut("main").text, "main");
  EXPECT_STREQ(Cut("").text, "");
  EXPECT_STREQ(Cut("int main(int, char**)").text, "main");
  EXPECT_STREQ(Cut("std::string Name[abi:cxx11](int)").text, "Name");
  EXPECT_STREQ(Cut("void Unclosed<int").text, "Unclosed<int");
  EXPECT_STREQ(Cut("void myoperator(int)").text, "myoperator");
}

}  // namespace
}  // namespace Tansy::CloudStorage
