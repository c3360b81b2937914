// File names from UIDs: the UID itself when it is a safe name, a hash of it otherwise.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platforms/vdir/VdirFileNames.h"

namespace vesp::vdir {
namespace {

bool isHashName(const std::string& name) {
  if (name.size() != 36 || name.substr(32) != ".ics") return false;
  return name.find_first_not_of("0123456789abcdef") == 32;
}

TEST(VdirFileNamesTest, ASafeUidNamesItsFile) {
  EXPECT_EQ(fileNameForUid("abc-123"), "abc-123.ics");
  EXPECT_EQ(fileNameForUid("A.b_c+d-E"), "A.b_c+d-E.ics");
  const std::string longUid(200, 'u');
  EXPECT_EQ(fileNameForUid(longUid), longUid + ".ics");
}

TEST(VdirFileNamesTest, AnyOtherUidIsNamedByItsHashAndNeverLeavesTheCollection) {
  const std::string hostile[] = {"",
                                 "../../x",
                                 "a/b",
                                 "..",
                                 ".",
                                 ".hidden",
                                 "line\nbreak",
                                 "e1@example.org",
                                 "with space",
                                 "caf\xC3\xA9",
                                 std::string("nul\0byte", 8),
                                 std::string(201, 'u'),
                                 std::string(600, 'x')};
  std::set<std::string> names;
  for (const std::string& uid : hostile) {
    const std::string name = fileNameForUid(uid);
    EXPECT_TRUE(isHashName(name)) << name;
    EXPECT_EQ(name.find('/'), std::string::npos);
    EXPECT_NE(name.front(), '.');
    EXPECT_EQ(fileNameForUid(uid), name) << "the same UID must always find the same name";
    names.insert(name);
  }
  EXPECT_EQ(names.size(), std::size(hostile));
}

TEST(VdirFileNamesTest, UidsThatDifferOnlyInCaseOrByOneByteGetDifferentNames) {
  EXPECT_NE(fileNameForUid("Meeting"), fileNameForUid("meeting"));
  EXPECT_NE(fileNameForUid("a@b"), fileNameForUid("A@b"));
  std::set<std::string> names;
  for (int at = 0; at < 10000; ++at) names.insert(fileNameForUid("item " + std::to_string(at) + "@example.org"));
  EXPECT_EQ(names.size(), 10000u);
}

}  // namespace
}  // namespace vesp::vdir
