#include "service/replica/local_name.h"

#include <set>

#include <gtest/gtest.h>

namespace vondle {
namespace {

using namespace std::string_literals;

struct NameCase {
  std::string server;
  std::string local;
  std::optional<NameProblem> problem;
};

const std::vector<NameCase> NAMES = {
    {"thesis.odt", "thesis.odt", std::nullopt},
    {"Grüße ☃ 𝄞", "Grüße ☃ 𝄞", std::nullopt},
    {"100%.txt", "100%.txt", std::nullopt},
    {"a%2Fb", "a%2Fb", std::nullopt},
    {"%", "%", std::nullopt},
    {"...", "...", std::nullopt},
    {" ", " ", std::nullopt},
    {"line\nbreak", "line\nbreak", std::nullopt},
    {std::string(255, 'x'), std::string(255, 'x'), std::nullopt},
    {"", "%=", NameProblem::empty},
    {".", "%=.", NameProblem::dots},
    {"..", "%=..", NameProblem::dots},
    {"/", "%=%2F", NameProblem::separator},
    {"../../etc/passwd", "%=..%2F..%2Fetc%2Fpasswd", NameProblem::separator},
    {"50%/50%", "%=50%25%2F50%25", NameProblem::separator},
    {"nul\0byte"s, "%=nul%00byte", NameProblem::separator},
    {"latin\xe9", "%=latin%E9", NameProblem::notUTF8},
    {"overlong\xc0\xaf", "%=overlong%C0%AF", NameProblem::notUTF8},
    {"overlong\xe0\x80\xaf", "%=overlong%E0%80%AF", NameProblem::notUTF8},
    {"surrogate\xed\xa0\x80", "%=surrogate%ED%A0%80", NameProblem::notUTF8},
    {"too high\xf4\x90\x80\x80", "%=too high%F4%90%80%80", NameProblem::notUTF8},
    {"cut short\xe2\x98", "%=cut short%E2%98", NameProblem::notUTF8},
    {"%=", "%=%25=", NameProblem::reserved},
    {"%=a%2Fb", "%=%25=a%252Fb", NameProblem::reserved},
};

TEST(LocalNameTest, EachServerNameHasItsLocalNameAndComesBackFromIt) {
  for (const auto& [server, local, problem] : NAMES) {
    EXPECT_EQ(nameProblem(server), problem) << server;
    EXPECT_EQ(localName(server, "id"), local);
    EXPECT_EQ(serverName(local), server);
  }
}

TEST(LocalNameTest, LocalNamesCanStandInAFolder) {
  auto names = NAMES;
  for (const auto length : {256UL, 300UL, 5'000'000UL}) names.push_back({std::string(length, 'x'), "", std::nullopt});
  names.push_back({std::string(200, '/'), "", std::nullopt});
  for (const auto& name : names) {
    for (const auto& local : {localName(name.server, "id"), distinctLocalName(name.server, "id", 0),
                              distinctLocalName(name.server, "id", 1)}) {
      EXPECT_FALSE(local.empty());
      EXPECT_LE(local.size(), MAX_LOCAL_NAME);
      EXPECT_EQ(local.find('/'), std::string::npos);
      EXPECT_EQ(local.find('\0'), std::string::npos);
      EXPECT_NE(local, ".");
      EXPECT_NE(local, "..");
      const auto problem = nameProblem(local);
      EXPECT_TRUE(!problem || problem == NameProblem::reserved) << local;
    }
  }
}

TEST(LocalNameTest, ALongNameIsCutBetweenCharactersAndKeepsItsExtension) {
  std::string server;
  for (int i = 0; i < 100; ++i) server += "☃";
  server += ".tar.gz";
  const auto local = localName(server, "id");
  EXPECT_EQ(nameProblem(server), NameProblem::tooLong);
  EXPECT_LE(local.size(), MAX_LOCAL_NAME);
  EXPECT_GT(local.size(), MAX_LOCAL_NAME - 3);
  EXPECT_TRUE(local.ends_with(".gz")) << local;
  EXPECT_TRUE(local.starts_with("%=☃☃☃")) << local;
  EXPECT_EQ(nameProblem(local), NameProblem::reserved) << "must be UTF-8 still";
  EXPECT_EQ(serverName(local), std::nullopt);
}

TEST(LocalNameTest, ANameThatGrowsTooLongWhenEscapedIsCut) {
  const std::string server(120, '/');
  EXPECT_LE(localName(server, "id").size(), MAX_LOCAL_NAME);
  EXPECT_NE(localName(server, "id"), localName(server + "/", "other"));
}

TEST(LocalNameTest, NamesToldApartDifferByIdentifierAndAttemptAndAreStable) {
  const std::set<std::string> names = {localName("a.txt", "1"), distinctLocalName("a.txt", "1", 0),
                                       distinctLocalName("a.txt", "2", 0), distinctLocalName("a.txt", "1", 1)};
  EXPECT_EQ(names.size(), 4U);
  EXPECT_EQ(distinctLocalName("a.txt", "1", 0), "%=a%#f3f456e6a24d75de.txt");
  EXPECT_EQ(serverName(distinctLocalName("a.txt", "1", 0)), std::nullopt);
}

TEST(LocalNameTest, TextsThatNoServerNameLeadsToHaveNone) {
  for (const auto* local :
       {"", ".", "..", "a/b", "latin\xe9", "%=plain", "%=%2f", "%=%2", "%=%zz", "%=%41", "%=a%#00.txt"})
    EXPECT_EQ(serverName(local), std::nullopt) << local;
  std::string tooLong(LOCAL_NAME_MARK);
  for (int i = 0; i < 100; ++i) tooLong += "%2F";
  EXPECT_EQ(serverName(tooLong), std::nullopt);
}

}  // namespace
}  // namespace vondle
