#include <gtest/gtest.h>

#include "StillowFiltering/Wire/HTTPHostReader.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;

std::string readRequest(std::string_view request) { return text(readHTTPHost(bytesOf(request))); }

TEST(HTTPHostReader, findsTheHostInCapturedRequests) {
  struct Row {
    const char* fixture;
    const char* answer;
  };
  const Row rows[]{{"curl-http.stream", "www.example.org"},
                   {"curl-http-post.stream", "www.example.org"},
                   {"curl-proxied-http.stream", "www.example.org"},
                   {"curl-proxied-https.stream", "none"},
                   {"python-http-odd-case.stream", "www.example.org"},
                   {"python-http-folded.stream", "www.example.org"},
                   {"curl-tls.stream", "none"}};
  for (const auto& row : rows) {
    EXPECT_EQ(text(readHTTPHost(loadFixture(row.fixture))), row.answer) << row.fixture;
  }
}

TEST(HTTPHostReader, readsTheFieldInAnyCaseAndWithoutItsPort) {
  for (const char* field :
       {"Host: example.com", "host:example.com", "HOST:\t example.com \t", "hOsT: EXAMPLE.com",
        "Host: example.com:8080", "Host: example.com:", "Host: example.com.:80"}) {
    const std::string request =
        std::string{"GET / HTTP/1.1\r\nAccept: */*\r\n"} + field + "\r\n\r\n";
    EXPECT_EQ(readRequest(request), "example.com") << field;
  }
}

TEST(HTTPHostReader, acceptsLinesThatEndInLFAlone) {
  EXPECT_EQ(readRequest("GET / HTTP/1.0\nX: y\nHost: example.com\n\n"), "example.com");
}

TEST(HTTPHostReader, acceptsEveryMethodAndEmptyLinesBeforeTheRequest) {
  for (const char* method :
       {"GET", "POST", "OPTIONS", "PROPFIND", "M-SEARCH", "get", "X", "CONNECTX"}) {
    EXPECT_EQ(readRequest(std::string{method} + " / HTTP/1.1\r\nHost: a.example\r\n\r\n"),
              "a.example")
        << method;
  }
  EXPECT_EQ(readRequest("\r\n\r\nGET / HTTP/1.1\r\nHost: a.example\r\n\r\n"), "a.example");
  EXPECT_EQ(readRequest("OPTIONS * HTTP/1.1\r\nHost: a.example\r\n\r\n"), "a.example");
}

TEST(HTTPHostReader, unfoldsTheHostField) {
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost:\r\n example.com\r\n\r\n"), "example.com");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: \r\n\t\r\n   example.com \r\n \r\n\r\n"),
            "example.com");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com\r\n :80\r\n\r\n"), "none");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: exam\r\n ple.com\r\n\r\n"), "none");
}

TEST(HTTPHostReader, waitsUntilItKnowsThatTheHostIsNotFolded) {
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com"), "need more");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com\r\n"), "need more");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com\r\n "), "need more");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com\r\nA"), "example.com");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: example.com\r\n\r"), "example.com");
}

TEST(HTTPHostReader, doesNotTakeAFoldedLineForTheHost) {
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nX: a\r\n Host: b.example\r\nHost: c.example\r\n\r\n"),
            "c.example");
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\n Host: b.example\r\n\r\n"), "none");
}

TEST(HTTPHostReader, doesNotTakeAnotherFieldForTheHost) {
  EXPECT_EQ(
      readRequest("GET /?Host:%20a.example HTTP/1.1\r\nX-Host: b.example\r\nHosts: c.example\r\n"
                  "Host : d.example\r\nReferer: http://e.example/\r\n\r\nHost: f.example\r\n\r\n"),
      "none");
}

TEST(HTTPHostReader, readsTheFirstHostOfSeveral) {
  EXPECT_EQ(readRequest("GET / HTTP/1.1\r\nHost: a.example\r\nHost: b.example\r\n\r\n"),
            "a.example");
}

TEST(HTTPHostReader, prefersAnAbsoluteTargetToTheField) {
  struct Row {
    const char* target;
    const char* answer;
  };
  const Row rows[]{{"http://a.example/path?q#f", "a.example"},
                   {"HTTP://A.Example", "a.example"},
                   {"https://a.example:8443/", "a.example"},
                   {"http://a.example?q", "a.example"},
                   {"ws+x-1.0://a.example", "a.example"},
                   {"http://u:p@a.example:80/", "a.example"},
                   {"http://u@v@a.example/@b", "a.example"},
                   {"http://192.0.2.1/", "none"},
                   {"http://[2001:db8::1]:80/", "none"},
                   {"http:///path", "none"},
                   {"http://a%2eexample/", "none"},
                   {"http://a.example:8x/", "none"},
                   {"/http://a.example/", "field.example"},
                   {"://a.example/", "field.example"},
                   {"/?u=http://a.example/", "field.example"}};
  for (const auto& row : rows) {
    const std::string request =
        std::string{"GET "} + row.target + " HTTP/1.1\r\nHost: field.example\r\n\r\n";
    EXPECT_EQ(readRequest(request), row.answer) << row.target;
  }
}

TEST(HTTPHostReader, takesWhatGoesToAProxyForNone) {
  EXPECT_EQ(readRequest("CONNECT a.example:443 HTTP/1.1\r\nHost: a.example:443\r\n\r\n"), "none");
  EXPECT_EQ(readRequest("CONNECT "), "none");
  EXPECT_EQ(readRequest("CONNECT"), "need more");
}

TEST(HTTPHostReader, hasNoNameWhenTheFieldHoldsNone) {
  for (const char* value :
       {"", "192.0.2.1", "192.0.2.1:80", "[::1]", "[::1]:80", "::1", "a..b", "a b.example",
        "a.example, b.example", "a.example:x", "a.example:80:80", "u@a.example",
        "b\xc3\xbc"
        "cher.example",
        "a.example/path", "a\rb.example"}) {
    const std::string request = std::string{"GET / HTTP/1.1\r\nHost: "} + value + "\r\n\r\n";
    EXPECT_EQ(readRequest(request), "none") << value;
  }
  EXPECT_EQ(readRequest("GET / HTTP/1.0\r\nAccept: */*\r\n\r\n"), "none");
  EXPECT_EQ(readRequest("GET / HTTP/1.0\r\n\r\n"), "none");
}

TEST(HTTPHostReader, knowsOtherProtocolsAtTheirFirstWrongByte) {
  struct Row {
    std::string_view what;
    std::string_view bytes;
  };
  const Row rows[]{{"SSH", "SSH-2.0-OpenSSH_9.2p1\r"},
                   {"DNS over TCP", {"\0", 1}},
                   {"SOCKS 5", "\x05"},
                   {"SOCKS 4", "\x04"},
                   {"TLS", "\x16"},
                   {"HTTP/2", "PRI * HTTP/2"},
                   {"HTTP/0.9", "GET /\r"},
                   {"mail", "EHLO client.example\r"},
                   {"PROXY protocol 1", "PROXY TCP4 1"},
                   {"PROXY protocol 2", {"\r\n\r\n\0", 5}},
                   {"chat", "NICK somebody\r"},
                   {"version without digit", "GET / HTTP/1.x"},
                   {"a version too long", "GET / HTTP/1.11"},
                   {"control character in the target", "GET /\x01"},
                   {"two blanks", "GET  "},
                   {"no method", " "},
                   {"method too long", "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFG"},
                   {"letters outside ASCII", "\xc3"}};
  for (const auto& row : rows) {
    EXPECT_EQ(readRequest(row.bytes), "none") << row.what;
    EXPECT_EQ(readRequest(row.bytes.substr(0, row.bytes.size() - 1)), "need more") << row.what;
  }
}

TEST(HTTPHostReader, givesUpAtTheInspectionBound) {
  const std::string start = "GET /" + std::string(5'000, 'a');
  EXPECT_EQ(readRequest(start.substr(0, inspectedBytesMax - 1)), "need more");
  EXPECT_EQ(readRequest(start.substr(0, inspectedBytesMax)), "none");
  EXPECT_EQ(readRequest(start + " HTTP/1.1\r\nHost: a.example\r\n\r\n"), "none");
}

TEST(HTTPHostReader, neverChangesAnAnswer) {
  const std::string requests[]{
      "GET / HTTP/1.1\r\nX: a\r\n b\r\nHost:\r\n example.com\r\n\r\nbody Host: "
      "other.example\r\n\r\n",
      "GET http://a.example/ HTTP/1.1\nHost: b.example\n\n",
      "POST /x HTTP/1.1\r\nhost: example.com:80\r\n\r\n" + std::string(5'000, 'x'),
      "CONNECT a.example:443 HTTP/1.1\r\nHost: b.example\r\n\r\nGET / HTTP/1.1\r\nHost: "
      "c.example\r\n\r\n",
      "GET / HTTP/1.0\r\n\r\nHost: late.example\r\n\r\n"};
  for (const auto& request : requests) {
    const std::string answer = readRequest(request);
    bool isSettled = false;
    for (std::size_t size = 0; size <= request.size(); ++size) {
      const std::string reading = readRequest(request.substr(0, size));
      if (!isSettled && reading == "need more") continue;
      isSettled = true;
      ASSERT_EQ(reading, answer) << request.substr(0, 20) << " after " << size << " bytes";
    }
    EXPECT_TRUE(isSettled);
  }
}

}  // namespace
}  // namespace stillow::filtering
