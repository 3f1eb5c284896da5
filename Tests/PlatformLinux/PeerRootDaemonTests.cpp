#include <filesystem>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PeerTestPKI.hpp"
#include "PeerTestProcess.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"

namespace stillow::platform::test {
namespace {

// These tests need what they are about: to be root and to give files away.
class RootDaemon : public testing::Test {
 protected:
  RootDaemon() {
    std::filesystem::create_directories(below);
    EXPECT_EQ(::chmod(top.path().c_str(), 0755), 0);
    EXPECT_EQ(::chmod(below.c_str(), 0755), 0);
  }
  [[nodiscard]] std::string errorFor(const std::filesystem::path& path) const {
    const auto met = requireRootOnlyDirectory(path);
    return met ? "" : met.error();
  }
  static void expectRefusal(const std::expected<void, std::string>& result,
                            const std::string& reason) {
    ASSERT_FALSE(result.has_value());
    EXPECT_NE(result.error().find(reason), std::string::npos) << result.error();
  }

  ScratchDirectory top;
  std::string below = top / "below";
  std::string socketPath = below + "/socket";
};

TEST_F(RootDaemon, isWhoeverListensAsRootWhereOnlyRootCanWrite) {
  const Listener listener(socketPath);
  const auto connection = connectTo(socketPath);
  const auto met = requireRootDaemon(connection.get(), socketPath);
  EXPECT_TRUE(met.has_value()) << met.error();
}

TEST_F(RootDaemon, isNobodyElse) {
  const auto socket = boundSocket(socketPath);
  constexpr uid_t nobody = 65534;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  core::FileDescriptor readEnd(ready[0]);
  core::FileDescriptor writeEnd(ready[1]);
  const auto child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const bool listens = ::setuid(nobody) == 0 && ::listen(socket.get(), 1) == 0;
    (void)!::write(ready[1], listens ? "y" : "n", 1);
    for (;;) ::pause();
  }
  const ChildProcess daemon(child);
  writeEnd = core::FileDescriptor();
  char answer = 0;
  ASSERT_EQ(::read(readEnd.get(), &answer, 1), 1);
  ASSERT_EQ(answer, 'y');
  const auto connection = connectTo(socketPath);
  expectRefusal(requireRootDaemon(connection.get(), socketPath), "is not root but user 65534");
}

TEST_F(RootDaemon, needsAConnection) {
  const core::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(requireRootDaemon(socket.get(), socketPath).has_value());
}

TEST_F(RootDaemon, doesNotCountWhereOthersCanPutTheirSocket) {
  const Listener listener(socketPath);
  const auto connection = connectTo(socketPath);
  ASSERT_EQ(::chmod(below.c_str(), 0777), 0);
  expectRefusal(requireRootDaemon(connection.get(), socketPath), "can be written by others");
}

TEST_F(RootDaemon, directoryBelongsToRootAndIsWrittenByRootAlone) {
  struct Row {
    const char* what;
    mode_t mode;
    uid_t owner;
    const char* reason;
  };
  const Row rows[]{
      {"as installed", 0755, 0, ""},
      {"private", 0700, 0, ""},
      {"writable for its group", 0775, 0, "can be written by others"},
      {"writable for everybody", 0777, 0, "can be written by others"},
      {"sticky and writable for everybody", 01777, 0, "can be written by others"},
      {"another's", 0755, 12345, "does not belong to root"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    ASSERT_EQ(::chown(below.c_str(), row.owner, 0), 0) << "this takes root";
    ASSERT_EQ(::chmod(below.c_str(), row.mode), 0);
    const auto error = errorFor(socketPath);
    EXPECT_EQ(error.empty(), *row.reason == '\0') << error;
    EXPECT_NE(error.find(row.reason), std::string::npos) << error;
  }
}

TEST_F(RootDaemon, directoriesAboveAreRootsTooOrSticky) {
  ASSERT_EQ(::chmod(top.path().c_str(), 01777), 0);
  EXPECT_EQ(errorFor(socketPath), "");
  ASSERT_EQ(::chmod(top.path().c_str(), 0777), 0);
  EXPECT_NE(errorFor(socketPath).find("can be written by others"), std::string::npos);
  ASSERT_EQ(::chmod(top.path().c_str(), 0755), 0);
  ASSERT_EQ(::chown(top.path().c_str(), 12345, 0), 0);
  EXPECT_NE(errorFor(socketPath).find("does not belong to root"), std::string::npos);
}

TEST_F(RootDaemon, pathIsAbsoluteAndPlain) {
  ASSERT_EQ(::symlink("below", (top / "link").c_str()), 0);
  EXPECT_NE(errorFor(top / "link/socket").find("is a link"), std::string::npos);
  EXPECT_NE(errorFor(top / "missing/socket").find("cannot be looked at"), std::string::npos);
  for (const std::string& path :
       {std::string(), std::string("socket"), top / "below/../below/socket", top / "./socket"}) {
    SCOPED_TRACE(path);
    EXPECT_NE(errorFor(path).find("is not absolute and plain"), std::string::npos);
  }
}

}  // namespace
}  // namespace stillow::platform::test
