#include "util/fs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

TEST(FsTest, SelfpathNamesThisProgram) {
  std::string self = vorn::fs::selfpath();
  ASSERT_FALSE(self.empty());
  EXPECT_EQ(self[0], '/');
  EXPECT_EQ(self.substr(self.rfind('/') + 1), "util_test");
}

TEST(FsTest, AbspathKeepsDotComponents) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(vorn::fs::abspath("/a/../b"), "/a/../b");
  EXPECT_EQ(vorn::fs::abspath("x/../y.xml"), std::string(cwd) + "/x/../y.xml");
}

TEST(FsTest, MakePath) {
  vorn::test::TempDir tmp;
  std::string nested = tmp / "a/b/c";
  EXPECT_TRUE(vorn::fs::make_path(nested));
  struct stat st;
  ASSERT_EQ(stat(nested.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_TRUE(vorn::fs::make_path(nested));  // existing and writable
}

TEST(FsTest, MakePathRefusesReadOnlyDirectory) {
  if (geteuid() == 0) {
    GTEST_SKIP() << "root may write anywhere";
  }
  vorn::test::TempDir tmp;
  std::string dir = tmp / "ro";
  ASSERT_EQ(mkdir(dir.c_str(), 0555), 0);
  EXPECT_FALSE(vorn::fs::make_path(dir));
}

}  // namespace
