#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "NamespaceTesting.hpp"
#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "PlatformLinuxDaemon/ProcessDiagnosticConnector.hpp"
#include "PlatformLinuxDiagnostic/DiagnosticExchange.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

/// Real HTTPS to a real server, made by the real program, in namespaces with a trust store, a hosts
/// file and a resolver of their own. Needs root.
namespace stillow::platform {
namespace {

using authority::DiagnosticConnectionOutcome;
using std::chrono::milliseconds;
using stillow::test::TemporaryDirectory;
using testing::inOwnNamespaces;
using testing::shell;
using enum authority::DiagnosticConnectionOutcome;

constexpr const char* host = "old-probe.stillow.larchmoor.com";
constexpr const char* otherHost = "new-probe.stillow.larchmoor.com";

/// A machine whose /etc is a copy that may be changed, with a certificate authority that it trusts.
class PrivateMachine {
 public:
  PrivateMachine() {
    shell("ip link set lo up");
    shell("cp -a /etc " + directory.path("etc") + " && mount --bind " + directory.path("etc") +
          " /etc");
    shell("mkdir -p /etc/ssl/certs && rm -f /etc/ssl/certs/ca-certificates.crt");
    makeAuthority("trusted", "/etc/ssl/certs/ca-certificates.crt");
    makeAuthority("stranger", "/etc/stranger.pem");
    pointAtServer("127.0.0.1");
    shell("mkdir -p /etc/stillow-probe-hosts");
    issue("trusted", {host, otherHost});
  }
  ~PrivateMachine() { stopServer(); }
  PrivateMachine(const PrivateMachine&) = delete;
  PrivateMachine& operator=(const PrivateMachine&) = delete;

  void pointAtServer(const std::string& addresses) const {
    std::ofstream hosts("/etc/hosts");
    std::string address;
    for (std::istringstream list(addresses); list >> address;) {
      hosts << address << ' ' << host << ' ' << otherHost << '\n';
    }
  }

  /// The certificate that the server shows.
  void issue(const std::string& authority, std::initializer_list<std::string> names,
             int days = 2) const {
    std::string alternatives;
    for (const auto& name : names) alternatives += (alternatives.empty() ? "DNS:" : ",DNS:") + name;
    const std::string stem = directory.path(authority);
    const std::string folder = "/etc/stillow-probe-hosts";
    std::ofstream(directory.path("extensions")) << "subjectAltName=" << alternatives << '\n';
    shell(
        "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=server "
        "-keyout " +
        folder + "/key.pem -out " + directory.path("request") + " 2>/dev/null");
    shell("openssl x509 -req -in " + directory.path("request") + " -CA " + stem + ".pem -CAkey " +
          stem + ".key -CAcreateserial -days " + std::to_string(days) + " -extfile " +
          directory.path("extensions") + " -out " + folder + "/certificate.pem 2>/dev/null");
  }

  /// Serves with `servers` as the inside of nginx's http block.
  void serve(const std::string& servers) {
    stopServer();
    std::ofstream(directory.path("nginx.conf"))
        << "pid " << directory.path("nginx.pid") << ";\nerror_log " << directory.path("error.log")
        << ";\nevents {}\nhttp {\naccess_log off;\nclient_body_temp_path " << directory.path("b")
        << ";\nproxy_temp_path " << directory.path("p") << ";\nfastcgi_temp_path "
        << directory.path("f") << ";\nuwsgi_temp_path " << directory.path("u")
        << ";\nscgi_temp_path " << directory.path("s") << ";\n"
        << servers << "\n}\n";
    shell("nginx -e " + directory.path("error.log") + " -c " + directory.path("nginx.conf"));
    isServing = true;
  }
  /// What we tell others to install, as it is.
  void serveAsPackaged() {
    std::ifstream file(std::string(STILLOW_FIXTURES) +
                       "/../../Packaging/probe-hosts/stillow-probe-hosts.conf");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    ASSERT_FALSE(text.empty());
    serve(text);
  }
  /// A server for every name whose one location is `location`.
  void serveLocation(const std::string& location, const std::string& listen = "listen 443 ssl;") {
    serve("server { " + listen +
          " ssl_certificate /etc/stillow-probe-hosts/certificate.pem;"
          " ssl_certificate_key /etc/stillow-probe-hosts/key.pem;"
          " default_type text/plain; location / { " +
          location + " } }");
  }
  void stopServer() {
    if (!isServing) return;
    shell("nginx -e " + directory.path("error.log") + " -c " + directory.path("nginx.conf") +
          " -s stop");
    // Its port is free once its process is gone.
    shell("while [ -e " + directory.path("nginx.pid") + " ]; do sleep 0.01; done");
    isServing = false;
  }

  DiagnosticConnectionOutcome connect(const std::string& name = host,
                                      std::chrono::nanoseconds timeout = std::chrono::seconds(60)) {
    return executor.run(connector.connect(name, timeout));
  }

 private:
  void makeAuthority(const std::string& name, const std::string& bundle) const {
    const std::string stem = directory.path(name);
    shell(
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" +
        name + " -keyout " + stem + ".key -out " + stem + ".pem 2>/dev/null && cp " + stem +
        ".pem " + bundle);
  }

  TemporaryDirectory directory;
  bool isServing = false;
  stillow::test::DeterministicExecutor executor;
  ProcessDiagnosticConnector connector{{.blocking = executor.blockingExecutor(),
                                        .commands = std::make_shared<CommandRunner>(),
                                        .program = STILLOW_BIN "/stillow-probe"}};
};

/// A socket of `type` on 127.0.0.1 and `port` that nobody ever reads from.
core::FileDescriptor silentSocket(int type, std::uint16_t port) {
  core::FileDescriptor socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  if (type == SOCK_STREAM) {
    EXPECT_EQ(::listen(socket.get(), 8), 0);
  }
  return socket;
}

TEST(DiagnosticConnection, isAnsweredByTheServerThatWePackage) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveAsPackaged();
    EXPECT_EQ(machine.connect(host), answered);
    EXPECT_EQ(machine.connect(otherHost), answered);
    machine.stopServer();
    EXPECT_EQ(machine.connect(host), connectionFailed) << "nothing of the first time was kept";
  });
}

TEST(DiagnosticConnection, takesWhicheverAddressFamilyWorks) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveAsPackaged();
    machine.pointAtServer("::1");
    EXPECT_EQ(machine.connect(), answered);
    machine.pointAtServer("::1 127.0.0.1");
    EXPECT_EQ(machine.connect(), answered);
    machine.serveLocation("return 200 \"ok $host\";");
    EXPECT_EQ(machine.connect(), answered) << "IPv6 is refused, IPv4 is not";
  });
}

TEST(DiagnosticConnection, resolvesAnewEachTime) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveAsPackaged();
    EXPECT_EQ(machine.connect(), answered);
    machine.pointAtServer("127.0.0.2");
    shell("iptables -A OUTPUT -d 127.0.0.2 -j REJECT");
    EXPECT_EQ(machine.connect(), connectionFailed);
  });
}

TEST(DiagnosticConnection, ignoresWhiteSpaceAroundTheBody) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    for (const char* const body : {"ok $host", "ok $host\\n", " \\r\\n\\tok $host\\n\\n "}) {
      machine.serveLocation(std::string("return 200 \"") + body + "\";");
      EXPECT_EQ(machine.connect(), answered) << body;
    }
  });
}

TEST(DiagnosticConnection, takesAnyOtherAnswerForAnotherHosts) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    for (const char* const location : {
             "return 200 \"ok new-probe.stillow.larchmoor.com\";",  // another host's answer
             "return 200 \"OK $host\";",
             "return 200 \"ok  $host\";",
             "return 200 \"ok $host \\xFF\";",  // no text
             "return 200 \"<html>Please sign in</html>\";",
             "return 200 \"\";",
             "return 404 \"ok $host\";",
             "return 302 https://new-probe.stillow.larchmoor.com/;",
             "return 301 http://localhost/;",
             "return 204;",
         }) {
      machine.serveLocation(location);
      EXPECT_EQ(machine.connect(), answeredByAnotherHost) << location;
    }
  });
}

TEST(DiagnosticConnection, readsNoMoreThanAnAnswerCanHave) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveLocation("root /dev; try_files /zero =500;");
    EXPECT_NE(machine.connect(), answered);
    machine.serveLocation("return 200 \"ok $host" + std::string(4'000, ' ') + "\";");
    EXPECT_EQ(machine.connect(), answeredByAnotherHost);
  });
}

TEST(DiagnosticConnection, acceptsOnlyACertificateThatTheSystemTrustsForTheName) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.issue("stranger", {host});
    machine.serveAsPackaged();
    EXPECT_EQ(machine.connect(), connectionFailed);
    machine.issue("trusted", {otherHost});
    machine.serveAsPackaged();
    EXPECT_EQ(machine.connect(host), connectionFailed);
    EXPECT_EQ(machine.connect(otherHost), answered);
  });
}

TEST(DiagnosticConnection, speaksNothingButHTTPS) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveLocation("return 200 \"ok $host\";", "listen 80; listen 443;");
    EXPECT_EQ(machine.connect(), connectionFailed);
  });
}

TEST(DiagnosticConnection, takesNoProxyFromTheEnvironment) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveAsPackaged();
    for (const char* const name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
      (void)::setenv(name, "http://127.0.0.1:9", 1);
    }
    EXPECT_EQ(exchangeDiagnostic(host, std::chrono::seconds(60)).outcome, answered);
    EXPECT_EQ(machine.connect(), answered);
  });
}

TEST(DiagnosticConnection, givesUpOnAServerThatNeverAnswers) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    const auto server = silentSocket(SOCK_STREAM, 443);
    EXPECT_EQ(machine.connect(host, milliseconds(300)), connectionFailed);
  });
}

TEST(DiagnosticConnection, doesNotWaitForAResolverThatNeverAnswers) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    const auto resolver = silentSocket(SOCK_DGRAM, 53);
    std::ofstream("/etc/resolv.conf") << "nameserver 127.0.0.1\noptions timeout:20 attempts:1\n";
    std::ofstream("/etc/nsswitch.conf") << "hosts: files dns\n";
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(machine.connect("nowhere.example", milliseconds(300)), connectionFailed);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10))
        << "the resolver itself takes twenty seconds";
  });
}

TEST(DiagnosticConnection, failsWhereThereIsNoNetwork) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    EXPECT_EQ(machine.connect(), connectionFailed);
    machine.pointAtServer("192.0.2.1");
    EXPECT_EQ(machine.connect(), connectionFailed);
    EXPECT_EQ(machine.connect("no such host"), connectionFailed);
    EXPECT_EQ(machine.connect(""), connectionFailed);
  });
}

using Failure = DiagnosticExchange::Failure;

DiagnosticExchange exchange(const std::string& name = host,
                            CertificateTimes times = CertificateTimes::verified) {
  return exchangeDiagnostic(name, std::chrono::seconds(60), times);
}

core::Date now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return core::Date::fromUnixSeconds(std::chrono::duration<double>(sinceEpoch).count());
}

TEST(DiagnosticExchange, tellsWhatTheServersClockSays) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.serveAsPackaged();
    const core::Date before = now();
    const auto made = exchange();
    EXPECT_EQ(made.outcome, answered);
    EXPECT_EQ(made.failure, Failure::none);
    EXPECT_EQ(made.httpStatus, 200);
    ASSERT_TRUE(made.serverDate);
    // Whole seconds, and the server's notion of now may be one old.
    EXPECT_GE(*made.serverDate - before, -2.5);
    EXPECT_LE(*made.serverDate - now(), 0.0);
  });
}

TEST(DiagnosticExchange, tellsWhyNobodyAnswered) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    EXPECT_EQ(exchange().failure, Failure::notConnected);
    EXPECT_EQ(exchange("nowhere.example").failure, Failure::nameNotResolved);
    machine.serveLocation("return 444;");
    EXPECT_EQ(exchange().failure, Failure::cut);
    machine.issue("stranger", {host});
    machine.serveAsPackaged();
    EXPECT_EQ(exchange().failure, Failure::certificateNotTrusted);
    machine.issue("trusted", {otherHost});
    machine.serveAsPackaged();
    EXPECT_EQ(exchange().failure, Failure::certificateNotTrusted);
    EXPECT_FALSE(exchange().detail.empty());
    machine.issue("trusted", {host});
    machine.serveLocation("return 302 https://portal.example/;");
    EXPECT_EQ(exchange().failure, Failure::none);
    EXPECT_EQ(exchange().outcome, answeredByAnotherHost);
    shell("rm /etc/ssl/certs/ca-certificates.crt");
    EXPECT_EQ(exchange().failure, Failure::trustStoreUnusable);
  });
}

TEST(DiagnosticExchange, looksThroughNothingButTheTimesOfACertificate) {
  inOwnNamespaces([] {
    PrivateMachine machine;
    machine.issue("trusted", {host}, -1);
    machine.serveAsPackaged();
    EXPECT_EQ(exchange().failure, Failure::certificateOutsideItsTime);
    EXPECT_EQ(exchange().outcome, connectionFailed);
    EXPECT_FALSE(exchange().serverDate);
    EXPECT_TRUE(exchange(host, CertificateTimes::ignored).serverDate);
    EXPECT_EQ(exchange(otherHost, CertificateTimes::ignored).failure,
              Failure::certificateNotTrusted);
    machine.issue("stranger", {host}, -1);
    machine.serveAsPackaged();
    EXPECT_EQ(exchange(host, CertificateTimes::ignored).failure, Failure::certificateNotTrusted);
  });
}

TEST(DiagnosticExchange, namesTheFileOfTheTrustedAuthorities) {
  EXPECT_EQ(trustStorePath(), "/etc/ssl/certs/ca-certificates.crt");
}

}  // namespace
}  // namespace stillow::platform
