#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Facts.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using std::chrono::hours;

TEST(IsEmptyOrNull, OnlyNonEmptyStringsOtherThanTheNullWordsCount) {
  Dictionary dictionary;
  dictionary.set("k", Value("v"));
  for (const Value& value :
       {Value(), Value(0), Value(5), Value(2.5), Value(true), Value(Array{Value("x")}),
        Value(dictionary), Value(""), Value("undefined"), Value("null")}) {
    EXPECT_TRUE(QXLogHelper::isEmptyOrNull(value));
  }
  for (const char* text : {"NULL", "Null", "Undefined", " ", "0", " null", "null ", "x"}) {
    EXPECT_FALSE(QXLogHelper::isEmptyOrNull(Value(text))) << '"' << text << '"';
  }
}

TEST(FreeDiskSpace, TwoToTheSixtyFourthWhenTheFileSystemCannotBeRead) {
  const double unknown = support::freeDiskSpaceOf("/nonexistent/qxlog/var");
  EXPECT_EQ(unknown, 18446744073709551616.0);
  constexpr double kGiB = 0.0009765625 * 0.0009765625 * 0.0009765625;
  EXPECT_EQ(serial::formatGeneral(unknown * kGiB), "1.71799e+10");  // as the launch record
}

TEST(LookupHostIPAddressForURL, ResolvesToADottedIPv4AddressOrEmptyText) {
  const std::pair<NullableString, const char*> cases[] = {
      {"http://localhost:8080/log", "127.0.0.1"},
      {"https://u:p@192.0.2.44/x", "192.0.2.44"},
      {"http://no-such-host.invalid/x", ""},
      {std::nullopt, ""},
      {"localhost", ""},
      {"http://[::1]:80/", ""}};
  for (const auto& [url, address] : cases) {
    EXPECT_EQ(QXLogHelper::lookupHostIPAddressForURL(url), address) << url.value_or("(nil)");
  }
}

TEST(GetIPAddress, TakesTheLastIPv4AddressOfEn0) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private network namespace";
  // In a child in a network namespace of its own: before en0 exists, nothing;
  // afterwards its last IPv4 address, not en1's.
  const std::string setup =
      "{ ip link add en0 type dummy || ip link add en0 type veth peer name qxpeer0; } "
      "2>/dev/null && ip addr add 192.0.2.7/24 dev en0 && ip addr add 198.51.100.9/24 dev en0 "
      "&& ip -6 addr add 2001:db8::7/64 dev en0 2>/dev/null; ip link add en1 type veth peer "
      "name qxpeer1 2>/dev/null && ip addr add 203.0.113.5/24 dev en1";
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(pipeEnds[0]);
    std::string answer = "skip";
    if (unshare(CLONE_NEWNET) == 0) {
      const std::string before = QXLogHelper::getIPAddress();
      if (std::system(setup.c_str()) == 0) answer = before + "|" + QXLogHelper::getIPAddress();
    }
    const ssize_t written = write(pipeEnds[1], answer.data(), answer.size());
    _exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 1);
  }
  close(pipeEnds[1]);
  const std::string answer = testing::readToEnd(pipeEnds[0]);
  close(pipeEnds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (answer == "skip" || answer.empty()) GTEST_SKIP() << "no network namespace or no en0";
  EXPECT_EQ(answer, "|198.51.100.9");
}

class DayTest : public testing::LibraryTest {};

TEST_F(DayTest, TokenIsTheSaltedDigestOfTheLocalDay) {
  constexpr double kMidnight = 1699977600.0;  // 2023-11-15 00:00:00 in UTC+8
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
