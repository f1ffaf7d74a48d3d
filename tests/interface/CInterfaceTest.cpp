#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

TEST(CInterfaceTest, AC11HostBuildsAgainstTheHeaderAndRuns) {
  char pattern[] = "/tmp/qxlog-c-host-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  std::string command = std::string(QXLOG_TEST_C_HOST) + " " + pattern;
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::filesystem::remove_all(pattern);
}

}  // namespace
