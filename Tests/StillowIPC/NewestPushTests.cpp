#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "StillowIPC/NewestPush.hpp"

namespace stillow::ipc {
namespace {

SharedBytes status(const char* text) { return std::make_shared<const std::string>(text); }
std::string text(const SharedBytes& bytes) { return bytes ? *bytes : "nothing"; }

TEST(NewestPush, sendsTheFirstAtOnceAndTheNextWhenThatHasLeft) {
  NewestPush pushes;
  EXPECT_EQ(text(pushes.offer(status("1"))), "1");
  EXPECT_EQ(text(pushes.offer(status("2"))), "nothing");
  EXPECT_EQ(text(pushes.noteSent()), "2");
  EXPECT_EQ(text(pushes.noteSent()), "nothing");
  EXPECT_EQ(text(pushes.offer(status("3"))), "3");
}

TEST(NewestPush, keepsOnlyTheNewestOfThoseThatWait) {
  NewestPush pushes;
  (void)pushes.offer(status("1"));
  const std::weak_ptr<const std::string> replaced = [&] {
    auto second = status("2");
    (void)pushes.offer(second);
    return std::weak_ptr(second);
  }();
  (void)pushes.offer(status("3"));
  EXPECT_TRUE(replaced.expired()) << "a status for each change would fill the memory";
  EXPECT_EQ(text(pushes.noteSent()), "3");
  EXPECT_EQ(text(pushes.offer(status("4"))), "nothing") << "the third is on its way";
}

TEST(NewestPush, givesWhatWaitsAheadOfAnAnswerAndNotAgain) {
  NewestPush pushes;
  (void)pushes.offer(status("1"));
  (void)pushes.offer(status("2"));
  EXPECT_EQ(text(pushes.takeWaiting()), "2");
  EXPECT_EQ(text(pushes.takeWaiting()), "nothing");
  EXPECT_EQ(text(pushes.noteSent()), "nothing");
  EXPECT_EQ(text(pushes.offer(status("3"))), "3");
}

}  // namespace
}  // namespace stillow::ipc
