#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Documents.h"
#include "QXLog/platform/Text.h"
#include "QXLog/support/Facts.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

constexpr double kGiB = 0.0009765625 * 0.0009765625 * 0.0009765625;

TEST(IsEmptyOrNull, OnlyNonEmptyStringsOtherThanTheNullWordsCount) {
  Dictionary dictionary;
  dictionary.set("k", Value("v"));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value()));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(0)));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(5)));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(2.5)));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(true)));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(Array{Value("x")})));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value(dictionary)));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value("")));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value("undefined")));
  EXPECT_TRUE(QXLogHelper::isEmptyOrNull(Value("null")));

  for (const char* text : {"NULL", "Null", "Undefined", " ", "0", " null", "null ", "x"}) {
    EXPECT_FALSE(QXLogHelper::isEmptyOrNull(Value(text))) << '"' << text << '"';
  }
}

class DiskSpaceTest : public testing::LibraryTest {};

TEST_F(DiskSpaceTest, FreeSpaceOfTheVarFileSystemWithTwoToTheSixtyFourthOnFailure) {
  const double unknown = support::freeDiskSpaceOf("/nonexistent/qxlog/var");
  EXPECT_EQ(unknown, 18446744073709551616.0);
  EXPECT_EQ(platform::formatGeneral(unknown * kGiB),
            "1.71799e+10");  // as the launch record shows it
  const double free = QXLogHelper::freeDiskSpace();
  const auto space = std::filesystem::space("/var");
  // Other processes write meanwhile: allow for a little drift.
  EXPECT_NEAR(free, static_cast<double>(space.available), 512.0 * 1024 * 1024);
  EXPECT_LE(free, static_cast<double>(space.capacity));
}

TEST_F(DiskSpaceTest, TotalIsTheDocumentsFileSystemSizeInSinglePrecisionOrZero) {
  const double total = QXLogHelper::totalDiskSpace();
  const auto capacity = std::filesystem::space(platform::documentsDirectory()).capacity;
  EXPECT_EQ(total, static_cast<double>(static_cast<float>(capacity)));
  EXPECT_GT(total, 0.0);
  EXPECT_TRUE(
      console_->contains("Memory Capacity of " + platform::formatFixed(total * kGiB, 6) + " GB ."));
  EXPECT_EQ(support::totalDiskSpaceOf("/nonexistent/qxlog/Documents"), 0.0);
  EXPECT_TRUE(console_->contains(
      "Error Obtaining System Memory Info: Domain = NSPOSIXErrorDomain, Code = 2"));
  EXPECT_EQ(console_->countStartingWith("Memory Capacity"), 1u);
}

TEST(HostOfUrl, FindsTheHostBetweenUserInfoAndPort) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://example.com", "example.com"},
      {"https://example.com:8443/path?q=1#f", "example.com"},
      {"http://user:pa:ss@10.0.0.1:80/", "10.0.0.1"},
      {"http://a@b@host.test/x", "host.test"},
      {"HTTP://Host.Test?x=@", "Host.Test"},
      {"svc+ext://h#frag", "h"},
      {"http://[::1]:8080/", "[::1]"},
      {"file:///tmp/x", ""},
      {"http://:80/", ""},
  };
  for (const auto& [url, host] : cases)
    EXPECT_EQ(support::hostOfUrl(url), std::string(host)) << url;
  for (const char* url : {"", "example.com", "example.com:80/x", "/path", "mailto:a@b.c",
                          "1http://h/", "ht tp://h/", "http:/h", "http://[::1"}) {
    EXPECT_EQ(support::hostOfUrl(url), std::nullopt) << url;
  }
}

TEST(LookupHostIPAddressForURL, ResolvesToADottedIPv4AddressOrEmptyText) {
  const std::pair<NullableString, const char*> cases[] = {
      {"http://localhost:8080/log", "127.0.0.1"},
      {"https://u:p@192.0.2.44/x", "192.0.2.44"},
      {"http://no-such-host.invalid/x", ""},
      {std::nullopt, ""},
      {"", ""},
      {"localhost", ""},
      {"file:///etc/hosts", ""},
      {"http://[::1]:80/", ""},
  };
  for (const auto& [url, address] : cases) {
    EXPECT_EQ(QXLogHelper::lookupHostIPAddressForURL(url), address) << url.value_or("(nil)");
  }
}

TEST(InterfaceAddress, ReadsTheIPv4AddressOfTheNamedInterface) {
  EXPECT_EQ(support::ipv4AddressOfInterface("lo"), "127.0.0.1");
  EXPECT_EQ(support::ipv4AddressOfInterface("qxlog-none0"), "");
  EXPECT_EQ(support::ipv4AddressOfInterface(""), "");
}

// Runs `body` in a forked child inside a network namespace of its own and
// returns what it wrote, or nothing when the namespace cannot be made.
std::optional<std::string> inPrivateNetwork(const std::string& setup) {
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return std::nullopt;
  const pid_t child = fork();
  if (child == 0) {
    close(pipeEnds[0]);
    std::string answer = "skip";
    if (unshare(CLONE_NEWNET) == 0) {
      std::string before = QXLogHelper::getIPAddress();
      if (std::system(setup.c_str()) == 0) answer = before + "|" + QXLogHelper::getIPAddress();
    }
    ssize_t written = write(pipeEnds[1], answer.data(), answer.size());
    _exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 1);
  }
  close(pipeEnds[1]);
  const std::string answer = testing::readToEnd(pipeEnds[0]);
  close(pipeEnds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (answer == "skip" || answer.empty()) return std::nullopt;
  return answer;
}

TEST(GetIPAddress, TakesTheLastIPv4AddressOfEn0) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private network namespace";
  const std::string setup =
      "{ ip link add en0 type dummy || ip link add en0 type veth peer name qxpeer0; } "
      "2>/dev/null && ip addr add 192.0.2.7/24 dev en0 && ip addr add 198.51.100.9/24 dev en0 "
      "&& ip -6 addr add 2001:db8::7/64 dev en0 2>/dev/null; "
      "ip link add en1 type veth peer name qxpeer1 2>/dev/null && ip addr add 203.0.113.5/24 dev "
      "en1";
  const std::optional<std::string> answer = inPrivateNetwork(setup);
  if (!answer) GTEST_SKIP() << "no network namespace or no way to make an en0 interface";
  // Before en0 exists: nothing; afterwards: its last IPv4 address, not en1's.
  EXPECT_EQ(*answer, "|198.51.100.9");
}

class DayTest : public testing::LibraryTest {
 protected:
  // 2023-11-15 00:00:00 in UTC+8.
  static constexpr double kMidnight = 1699977600.0;
};

TEST_F(DayTest, DayStringFollowsTheLocalZone) {
  clock_->setUtcOffset(hours(8));
  clock_->setWallSeconds(kMidnight - 1);
  EXPECT_EQ(QXLogHelper::obtainCurrentTime(), "2023-11-14");
  EXPECT_EQ(QXLogHelper::timeStamp(Value()), "2023-11-14");
  clock_->setWallSeconds(kMidnight);
  EXPECT_EQ(QXLogHelper::obtainCurrentTime(), "2023-11-15");
  EXPECT_EQ(QXLogHelper::timeStamp(Value("1999-01-01")), "2023-11-15");
  // The same moment is still the 14th at UTC-5.
  clock_->setUtcOffset(hours(-5));
  EXPECT_EQ(QXLogHelper::obtainCurrentTime(), "2023-11-14");
  // Early years keep four digits.
  clock_->setUtcOffset(hours(0));
  clock_->setWallSeconds(-62135596800.0 + 86400.0 * 40);  // 0001-02-10
  EXPECT_EQ(QXLogHelper::obtainCurrentTime(), "0001-02-10");
}

TEST_F(DayTest, TokenIsTheSaltedDigestOfTheLocalDay) {
  clock_->setUtcOffset(hours(8));
  clock_->setWallSeconds(kMidnight - 1);
  const auto evening = QXLogHelper::tokenString(std::nullopt);
  // md5("2023-11-14Rk4TqzWmLpVhNc7XsJdBfYoE")
  EXPECT_EQ(evening, "8c3861b4f4b09b1889834f09e88f7df9"s);
  for (const char* argument : {"", "0", "1.7e+12", "2023-11-15"}) {
    EXPECT_EQ(QXLogHelper::tokenString(std::string(argument)), evening) << argument;
  }
  clock_->advance(std::chrono::seconds(1));
  const auto morning = QXLogHelper::tokenString("0"s);
  // md5("2023-11-15Rk4TqzWmLpVhNc7XsJdBfYoE")
  EXPECT_EQ(morning, "061eae6e85eaa4107518d8237f442b85"s);
  clock_->advance(hours(23) + std::chrono::minutes(59) + std::chrono::seconds(59));
  EXPECT_EQ(QXLogHelper::tokenString(std::nullopt), morning);
}

}  // namespace
}  // namespace qxlog
