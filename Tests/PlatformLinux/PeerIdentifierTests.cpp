#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PeerTestPKI.hpp"
#include "PeerTestProcess.hpp"
#include "PlatformLinuxPeer/CodeSignature.hpp"
#include "PlatformLinuxPeer/SignedExecutablePeerIdentifier.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"

namespace stillow::platform::test {
namespace {

using ipc::CodeIdentity;
using ipc::CodeSigningRequirement;

const std::string builtProbe = STILLOW_BIN "/PeerProbe";
const CodeIdentity application{"com.larchmoor.Stillow", "Q4ZT8NWK2R", true};

/// Peers are copies of the probe in a directory of the test's, signed by the test's own key.
class SignedExecutablePeer : public testing::Test {
 protected:
  SignedExecutablePeer() { std::filesystem::copy_file(builtProbe, probe); }

  [[nodiscard]] CodeSigningAnchor anchorOf(const KeyPair& pair) const {
    writeFile(directory / "anchor.pem", pair.pem());
    return *CodeSigningAnchor::load(directory / "anchor.pem", ::geteuid());
  }
  void signProbe(const KeyPair& with, const std::string& name = "com.larchmoor.Stillow") const {
    writeFile(probe + ".cms", sign(statementOf(probe, name).text(), with));
  }
  void signProbe() const { signProbe(signer); }

  /// A process that runs the probe and has connected.
  struct Peer {
    ChildProcess process;
    core::FileDescriptor connection;
  };
  [[nodiscard]] Peer connect(pid_t pid = 0) const {
    auto process = spawn(probe, listener.path(), pid);
    auto connection = listener.accept();
    return {std::move(process), std::move(connection)};
  }

  using Identity = std::expected<CodeIdentity, std::string>;
  [[nodiscard]] Identity identify(const Peer& peer) {
    const auto connected = peers.connectedPeer(peer.connection.get());
    if (!connected) return std::unexpected(connected.error());
    return (*connected)->codeIdentity();
  }
  [[nodiscard]] Identity identifyNewPeer() { return identify(connect()); }

  static void expectRefusal(const Identity& identity, const std::string& reason) {
    ASSERT_FALSE(identity.has_value());
    EXPECT_NE(identity.error().find(reason), std::string::npos) << identity.error();
  }

  ScratchDirectory directory;
  std::string probe = directory / "probe";
  Listener listener{directory / "socket"};
  KeyPair authority = makeAuthority();
  KeyPair signer = makeSigner(authority, "Q4ZT8NWK2R");
  double now = 4'000'000'000;
  std::shared_ptr<SignedExecutableIdentifier> identifier =
      std::make_shared<SignedExecutableIdentifier>(
          anchorOf(authority), [this] { return core::Date::fromUnixSeconds(now); });
  SignedExecutablePeerIdentifier peers{identifier};
};

TEST_F(SignedExecutablePeer, isWhomItsSignatureNames) {
  signProbe();
  const auto peer = connect();
  const auto connected = peers.connectedPeer(peer.connection.get());
  ASSERT_TRUE(connected.has_value()) << connected.error();
  EXPECT_EQ((*connected)->process(), (ipc::PeerProcess{peer.process.pid(), ::geteuid()}));
  const auto identity = (*connected)->codeIdentity();
  ASSERT_TRUE(identity.has_value()) << identity.error();
  EXPECT_EQ(*identity, application);
  EXPECT_TRUE(CodeSigningRequirement::trustedPeers().isSatisfiedBy(*identity));
}

// The key of the build and scripts/codesign, against the anchor where a daemon would find it.
TEST_F(SignedExecutablePeer, signedByTheBuildIsTrustedByADaemonOfTheSameBuild) {
  SignedExecutableIdentifier ofTheBuild(CodeSigningAnchor::installed(),
                                        [] { return core::Date{}; });
  const auto process = spawn(builtProbe, listener.path());
  const auto connection = listener.accept();
  const auto pinned = PinnedProcess::connectedPeer(connection.get());
  ASSERT_TRUE(pinned.has_value()) << pinned.error();
  const auto identity = ofTheBuild.identify(*pinned);
  ASSERT_TRUE(identity.has_value()) << identity.error();
  EXPECT_EQ(*identity, application);
}

TEST_F(SignedExecutablePeer, withoutASignatureIsAStranger) {
  expectRefusal(identifyNewPeer(), "is not signed");
}

TEST_F(SignedExecutablePeer, signedUnderAStrangersAuthorityIsAStranger) {
  signProbe(makeSigner(makeAuthority("Stranger"), "Q4ZT8NWK2R"));
  expectRefusal(identifyNewPeer(), "has a signature that does not hold");
}

TEST_F(SignedExecutablePeer, ofAnotherTeamOrNameDoesNotSatisfyTheRequirement) {
  signProbe(makeSigner(authority, "OTHERTEAM"));
  auto identity = identifyNewPeer();
  ASSERT_TRUE(identity.has_value()) << identity.error();
  EXPECT_EQ(*identity, (CodeIdentity{"com.larchmoor.Stillow", "OTHERTEAM", true}));
  EXPECT_FALSE(CodeSigningRequirement::trustedPeers().isSatisfiedBy(*identity));

  signProbe(signer, "com.larchmoor.Other");
  identity = identifyNewPeer();
  ASSERT_TRUE(identity.has_value()) << identity.error();
  EXPECT_EQ(*identity, (CodeIdentity{"com.larchmoor.Other", "Q4ZT8NWK2R", true}));
  EXPECT_FALSE(CodeSigningRequirement::trustedPeers().isSatisfiedBy(*identity));
}

TEST_F(SignedExecutablePeer, changedAfterSigningIsAStranger) {
  auto content = readFile(probe) + "trailer";
  writeFile(probe, content);
  signProbe();
  ASSERT_TRUE(identifyNewPeer().has_value());
  writeFile(probe, content + "x");
  expectRefusal(identifyNewPeer(), "has the signature of another file");
  content.back() = 'R';
  writeFile(probe, content);
  expectRefusal(identifyNewPeer(), "has the signature of another file");
}

TEST_F(SignedExecutablePeer, withTheSignatureOfAnotherFileIsAStranger) {
  const auto other = directory / "other";
  writeFile(other, "another program");
  writeFile(probe + ".cms", sign(statementOf(other, "com.larchmoor.Stillow").text(), signer));
  expectRefusal(identifyNewPeer(), "has the signature of another file");
  EXPECT_EQ(identifier->executablesRead(), 0U) << "the sizes tell already";
}

// Everything a stranger can put in the signature's place; nothing of it may hold us up or be read.
TEST_F(SignedExecutablePeer, withSomethingElseInTheSignaturesPlaceIsAStranger) {
  const auto place = probe + ".cms";
  writeFile(place, "garbage");
  expectRefusal(identifyNewPeer(), "is not a CMS signature");
  writeFile(place, std::string(codeSignatureBytesMax + 1, 'x'));
  expectRefusal(identifyNewPeer(), "File too large");
  ASSERT_EQ(::unlink(place.c_str()), 0);
  ASSERT_EQ(::mkfifo(place.c_str(), 0644), 0);
  expectRefusal(identifyNewPeer(), "cannot be read");
  ASSERT_EQ(::unlink(place.c_str()), 0);
  ASSERT_EQ(::mkdir(place.c_str(), 0755), 0);
  expectRefusal(identifyNewPeer(), "cannot be read");
  ASSERT_EQ(::rmdir(place.c_str()), 0);
  ASSERT_EQ(::symlink("/etc/passwd", place.c_str()), 0);
  expectRefusal(identifyNewPeer(), "cannot be read");
  EXPECT_EQ(identifier->executablesRead(), 0U);
}

TEST_F(SignedExecutablePeer, replacedWhileItRunsIsAStranger) {
  signProbe();
  const auto peer = connect();
  ASSERT_TRUE(identify(peer).has_value());
  const auto replacement = directory / "replacement";
  std::filesystem::copy_file(probe, replacement);
  std::filesystem::rename(replacement, probe);
  expectRefusal(identify(peer), "is not there any more");
  EXPECT_TRUE(identifyNewPeer().has_value()) << "what runs the replacement is whom it says";
}

TEST_F(SignedExecutablePeer, deletedWhileItRunsIsAStranger) {
  signProbe();
  const auto peer = connect();
  // A second name keeps the file alive, so that only its old name is gone.
  std::filesystem::create_hard_link(probe, directory / "second");
  std::filesystem::remove(probe);
  expectRefusal(identify(peer), "is not there any more");
  std::filesystem::remove(directory / "second");
  expectRefusal(identify(peer), "is not there any more");
}

// The connection may be closed by its owner while another thread still looks at the peer.
TEST_F(SignedExecutablePeer, isIdentifiedWithoutItsConnection) {
  signProbe();
  auto peer = connect();
  const auto connected = peers.connectedPeer(peer.connection.get());
  ASSERT_TRUE(connected.has_value());
  // Kept open under another number, because the probe ends with its connection.
  const core::FileDescriptor held(::fcntl(peer.connection.get(), F_DUPFD_CLOEXEC, 0));
  peer.connection = core::FileDescriptor();
  EXPECT_TRUE((*connected)->codeIdentity().has_value());
}

TEST_F(SignedExecutablePeer, thatEndedBeforeItWasLookedAtIsAStranger) {
  signProbe();
  auto peer = connect();
  peer.process.kill();
  const auto connected = peers.connectedPeer(peer.connection.get());
  ASSERT_FALSE(connected.has_value());
  EXPECT_NE(connected.error().find("has ended"), std::string::npos) << connected.error();
}

// An unsigned program connects, ends, and a signed one gets its process id.
TEST_F(SignedExecutablePeer, isNotMistakenForALaterProcessWithItsID) {
  auto stranger = connect();
  const auto pid = stranger.process.pid();
  const auto connected = peers.connectedPeer(stranger.connection.get());
  ASSERT_TRUE(connected.has_value()) << connected.error();
  stranger.process.kill();
  signProbe();
  const auto trusted = connect(pid);
  ASSERT_EQ(trusted.process.pid(), pid);
  ASSERT_TRUE(identify(trusted).has_value());

  expectRefusal((*connected)->codeIdentity(), "has ended");
  expectRefusal(identify(stranger), "has ended");
}

// What only a kernel without peer descriptors has to put up with, and why the peer is looked at as
// soon as it is accepted.
TEST_F(SignedExecutablePeer, isMistakenForALaterProcessOnlyIfLookedAtByIDTooLate) {
  auto stranger = connect();
  const auto pid = stranger.process.pid();
  constexpr auto byID = PinnedProcess::PeerNaming::byCredentials;
  const auto inTime = PinnedProcess::connectedPeer(stranger.connection.get(), byID);
  ASSERT_TRUE(inTime.has_value()) << inTime.error();
  expectRefusal(identifier->identify(*inTime), "is not signed");
  stranger.process.kill();
  EXPECT_FALSE(inTime->isRunning());
  signProbe();
  const auto trusted = connect(pid);

  EXPECT_FALSE(inTime->openExecutable().has_value());
  EXPECT_FALSE(inTime->executableName().has_value());
  expectRefusal(identifier->identify(*inTime), "has ended");
  const auto tooLate = PinnedProcess::connectedPeer(stranger.connection.get(), byID);
  ASSERT_TRUE(tooLate.has_value());
  EXPECT_TRUE(identifier->identify(*tooLate).has_value());
}

TEST_F(SignedExecutablePeer, isAStrangerAsLongAsTheAnchorIsMissing) {
  signProbe();
  SignedExecutableIdentifier without(CodeSigningAnchor::load(directory / "no.pem", ::geteuid()),
                                     [] { return core::Date{}; });
  const auto peer = connect();
  const auto pinned = PinnedProcess::connectedPeer(peer.connection.get());
  ASSERT_TRUE(pinned.has_value());
  expectRefusal(without.identify(*pinned), "The signing anchor ");
}

TEST_F(SignedExecutablePeer, isReadWholeOnlyOnceUntilItsFileChanges) {
  auto content = readFile(probe) + "trailer";
  writeFile(probe, content);
  signProbe();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(identifyNewPeer().has_value());
  EXPECT_EQ(identifier->executablesRead(), 1U);

  struct stat before{};
  struct stat after{};
  ASSERT_EQ(::stat(probe.c_str(), &before), 0);
  content.back() = 'R';
  // Same inode, same size, and the old modification time put back: only the change time tells. It
  // moves in steps, so the file is written until the next step is reached.
  for (int i = 0; i < 100'000; ++i) {
    writeFile(probe, content);
    const timespec times[]{before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, probe.c_str(), times, 0), 0);
    ASSERT_EQ(::stat(probe.c_str(), &after), 0);
    if (FileVersion::of(after) != FileVersion::of(before)) break;
  }
  ASSERT_EQ(after.st_ino, before.st_ino);
  ASSERT_EQ(after.st_size, before.st_size);
  ASSERT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  expectRefusal(identifyNewPeer(), "has the signature of another file");
  EXPECT_EQ(identifier->executablesRead(), 2U);
}

TEST_F(SignedExecutablePeer, isReadAgainWhileAChangeOfItsFileMightNotShow) {
  signProbe();
  struct stat status{};
  ASSERT_EQ(::stat(probe.c_str(), &status), 0);
  now = static_cast<double>(status.st_ctim.tv_sec) + 1;
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(identifyNewPeer().has_value());
  EXPECT_EQ(identifier->executablesRead(), 3U);
}

TEST_F(SignedExecutablePeer, isIdentifiedFromManyThreadsAtOnce) {
  signProbe();
  const auto peer = connect();
  const auto connected = peers.connectedPeer(peer.connection.get());
  ASSERT_TRUE(connected.has_value());
  std::atomic<int> identified = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 10; ++j) {
        if ((*connected)->codeIdentity() == application) ++identified;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(identified, 80);
  EXPECT_LE(identifier->executablesRead(), threads.size()) << "at most once by each at first";
}

TEST(PinnedProcess, isNoProcessThatHasEnded) {
  const auto child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  // First not yet waited for, then gone.
  EXPECT_FALSE(PinnedProcess::withID(child).has_value());
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  const auto gone = PinnedProcess::withID(child);
  ASSERT_FALSE(gone.has_value());
  EXPECT_EQ(gone.error(), "Process " + std::to_string(child) + " has ended.");
}

TEST(PinnedProcess, opensTheExecutableOfItsProcess) {
  const auto self = PinnedProcess::withID(::getpid());
  ASSERT_TRUE(self.has_value()) << self.error();
  EXPECT_EQ(self->pid(), ::getpid());
  EXPECT_TRUE(self->isRunning());
  const auto executable = self->openExecutable();
  ASSERT_TRUE(executable.has_value()) << executable.error();
  struct stat opened{};
  struct stat expected{};
  ASSERT_EQ(::fstat(executable->get(), &opened), 0);
  ASSERT_EQ(::stat("/proc/self/exe", &expected), 0);
  EXPECT_EQ(opened.st_ino, expected.st_ino);
  EXPECT_EQ(self->executableName(), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(PinnedProcess, needsASocketThatHasAPeer) {
  const core::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(PinnedProcess::connectedPeer(socket.get()).has_value()) << "not connected";
  const core::FileDescriptor tcp(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_FALSE(PinnedProcess::connectedPeer(tcp.get()).has_value());
  EXPECT_FALSE(PinnedProcess::connectedPeer(-1).has_value());
  EXPECT_FALSE(PinnedProcess::withID(0).has_value());
}

// Seen from within a process namespace, a process outside has no id, and 0 is nobody's.
TEST(PinnedProcess, isNoProcessOfAnOuterNamespace) {
  int sockets[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
  const core::FileDescriptor near(sockets[0]);
  const core::FileDescriptor far(sockets[1]);
  const auto child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::unshare(CLONE_NEWPID) != 0) ::_exit(2);
    const auto inside = ::fork();
    if (inside == 0) {
      const auto outer = PinnedProcess::connectedPeer(near.get());
      const bool isTold = !outer && outer.error() == "The peer lives in another process namespace.";
      ::_exit(isTold ? 0 : 1);
    }
    int status = 0;
    (void)::waitpid(inside, &status, 0);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 3);
  }
  EXPECT_EQ(ChildProcess(child).wait(), 0);
}

}  // namespace
}  // namespace stillow::platform::test
