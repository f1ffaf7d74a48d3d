// Whatever lies at a queue file's path when the library starts: a FIFO, a
// device, a link that leads nowhere or to /dev/zero, a sparse gigabyte. The
// queue reads as damaged without blocking or reading it, the host reports and
// delivers, and a regular file takes the path's place. A link to a regular
// queue file is followed, and its target is never written through the link.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "QXLog/QXLog.h"
#include "QXLog/serial/PropertyList.h"
#include "QXLog/support/QueueFiles.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

enum class Planted { kFifo, kDevice, kDanglingLink, kLinkToZero, kSparseGigabyte, kLinkToQueue };

struct Case {
  Planted planted;
  std::string consoleLine;  // the one line the load writes, or none
};

const std::string kNotRegular =
    "QXLog: queue file UserStatisticalLog.plist is not a regular file; read as damaged";
const std::string kTooLarge = "QXLog: queue file UserStatisticalLog.plist holds more than " +
                              std::to_string(support::kMaxQueueFileBytes) +
                              " bytes; read as damaged";

class HostileQueueFileTest : public UploadTest, public ::testing::WithParamInterface<Case> {
 protected:
  std::string elsewhere() const { return documentsPath("elsewhere"); }

  void plant(Planted planted) {
    const std::string path = documentsPath(kActionFile);
    switch (planted) {
      case Planted::kFifo:
        ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
        break;
      case Planted::kDevice:
        fs::create_symlink("/dev/null", path);
        break;
      case Planted::kDanglingLink:
        fs::create_symlink(elsewhere(), path);
        break;
      case Planted::kLinkToZero:
        fs::create_symlink("/dev/zero", path);
        break;
      case Planted::kSparseGigabyte:
        std::ofstream(path) << "<plist";
        fs::resize_file(path, uintmax_t{1} << 30);
        break;
      case Planted::kLinkToQueue: {
        std::string xml;
        serial::appendXmlPropertyList(xml, Array{Value(strings({{"a_1", "before"}}))});
        std::ofstream(elsewhere()) << xml;
        fs::create_symlink(elsewhere(), path);
        break;
      }
    }
  }
};

TEST_P(HostileQueueFileTest, TheHostReportsAndDeliversAndARegularFileTakesThePathsPlace) {
  const Case& c = GetParam();
  plant(c.planted);
  logEnvReady(true);
  recordActionLog("after", "1");
  settle();

  ASSERT_EQ(server_->requestCount(), 1u);
  const bool followed = c.planted == Planted::kLinkToQueue;
  const std::vector<std::string> expected =
      followed ? std::vector<std::string>{"before", "after"} : std::vector<std::string>{"after"};
  EXPECT_EQ(sentItems(0), expected);
  EXPECT_EQ(console_->countStartingWith("QXLog: queue file"), c.consoleLine.empty() ? 0u : 1u);
  EXPECT_TRUE(c.consoleLine.empty() || console_->contains(c.consoleLine));
  // Confirmed: the queue file is gone, whatever had been planted there, and a
  // link's target was neither created nor changed.
  EXPECT_FALSE(fs::exists(fs::symlink_status(documentsPath(kActionFile))));
  EXPECT_EQ(fs::exists(elsewhere()), followed);
  if (followed) {
    EXPECT_EQ(items(readQueueFile("elsewhere").value_or(Array())),
              std::vector<std::string>{"before"});
  }
}

std::string nameOf(const ::testing::TestParamInfo<Case>& info) {
  static const char* const names[] = {"Fifo",       "Device",         "DanglingLink",
                                      "LinkToZero", "SparseGigabyte", "LinkToQueue"};
  return names[static_cast<int>(info.param.planted)];
}

INSTANTIATE_TEST_SUITE_P(
    Planted, HostileQueueFileTest,
    ::testing::Values(Case{Planted::kFifo, kNotRegular}, Case{Planted::kDevice, kNotRegular},
                      Case{Planted::kDanglingLink, ""}, Case{Planted::kLinkToZero, kNotRegular},
                      Case{Planted::kSparseGigabyte, kTooLarge}, Case{Planted::kLinkToQueue, ""}),
    nameOf);

}  // namespace
}  // namespace qxlog::testing
