#include <gmock/gmock.h>
#include <unistd.h>

#include "PlatformLinuxFilter/QueueStatus.hpp"

namespace stillow::platform {
namespace {

constexpr std::string_view twoQueues =
    " 5301  31102     0 2    512     0     0        0  1\n"
    " 5300   4211     3 2   8292     7     9      121  1\n";

TEST(QueueStatus, readsTheLineOfItsQueue) {
  EXPECT_EQ(QueueStatus::parse(twoQueues, 5300), (QueueStatus{.portID = 4211,
                                                              .waiting = 3,
                                                              .droppedQueueFull = 7,
                                                              .droppedSocketFull = 9,
                                                              .lastPacketID = 121}));
}

TEST(QueueStatus, isAbsentWhenNobodyIsBound) {
  EXPECT_EQ(QueueStatus::parse("", 5300), std::nullopt);
  EXPECT_EQ(QueueStatus::parse(twoQueues, 530), std::nullopt);
  EXPECT_EQ(QueueStatus::parse(twoQueues, 5302), std::nullopt);
}

TEST(QueueStatus, readsNoLineThatIsCutShortOrOutOfRange) {
  for (const std::string_view text :
       {"5300", " 5300 4211 3 2 8292 7 9\n", " 5300 4211 3 2 8292 7 9 12x 1\n",
        " 5300 -1 3 2 8292 7 9 121 1\n", " 5300 99999999999 3 2 8292 7 9 121 1\n", "\n\n"}) {
    EXPECT_EQ(QueueStatus::parse(text, 5300), std::nullopt) << text;
  }
}

TEST(QueueStatus, readsPortsAboveTheSignedRange) {
  // A second netlink socket of a process gets a port of the kernel's choice, near 2^32.
  const auto status = QueueStatus::parse(" 5300 4294962975 0 2 8292 0 0 4294967295 1", 5300);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->portID, 4'294'962'975U);
  EXPECT_EQ(status->lastPacketID, 4'294'967'295U);
}

TEST(QueueHolder, isNamedByItsProcess) {
  const auto self = static_cast<std::uint32_t>(::getpid());
  const auto description = queueHolderDescription(self);
  EXPECT_THAT(description, testing::EndsWith(" (process " + std::to_string(self) + ")"));
  EXPECT_THAT(description, testing::Not(testing::HasSubstr("unknown")));
  EXPECT_EQ(queueHolderDescription(4'294'962'975U), "an unknown program (netlink port 4294962975)");
}

}  // namespace
}  // namespace stillow::platform
