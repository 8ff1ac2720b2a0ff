#include <fstream>
#include <unistd.h>

#include "support/Sanitized.h"
#include "tools/valtor-status/PageFixture.h"

namespace valtor::test {
namespace {

class ServerTest : public PageFixture {
 protected:
  StatusStandIn daemon{path};
};

TEST_F(ServerTest, AnswersEveryRequestWithWhatItDeservesAndTheHeadersThatKeepBrowsersSafe) {
  daemon.say(documentJSON(routerJSON("north", "up")));
  ASSERT_TRUE(eventuallyAnswers("/healthz", "ok"));
  const std::string host = "Host: localhost\r\n";
  const std::string end = "Connection: close\r\n\r\n";
  const std::string crossSite = "Sec-Fetch-Site: cross-site\r\n";
  std::string ranges;
  for (int i = 0; i < 2000; ++i) {
    ranges += ",0-0";
  }
  const struct {
    std::string request;
    std::string status;
    std::string part;
  } cases[] = {
      {"GET / HTTP/1.1\r\n" + host + end, "200", "<!doctype html>"},
      {"GET /?x=%00%zz&&== HTTP/1.1\r\n" + host + end, "200", "text/html"},
      {"HEAD / HTTP/1.1\r\n" + host + end, "200", "Content-Length: "},
      {"HEAD /api/events HTTP/1.1\r\n" + host + end, "200", "text/event-stream"},
      {"GET /page.js HTTP/1.1\r\n" + host + end, "200", "text/javascript"},
      {"GET /page.css HTTP/1.1\r\n" + host + end, "200", "text/css"},
      {"GET /api/status HTTP/1.1\r\nHost: CONTROLLER.example:99\r\n" + end, "200", "\"north\""},
      {"GET /metrics HTTP/1.1\r\nHost: [::1]:15080\r\n" + end, "200", "\nvaltor_up 1\n"},
      // Other names lead here when somebody else's name server says so.
      {"GET / HTTP/1.1\r\nHost: localhost.evil.example\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\nHost: [::1].evil.example\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\n" + host + host + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\nHost:\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\nHost: local%68ost\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\nHost: fe80\r\n" + end, "421", "--host-name"},
      {"GET / HTTP/1.1\r\nHost:\t[FE80::7]:15080 \r\n" + end, "200", "text/html"},
      {"GET / HTTP/1.1\r\n" + host + crossSite + end, "200", "text/html"},
      {"GET /api/status HTTP/1.1\r\n" + host + crossSite + end, "403", "others"},
      {"GET /../../etc/passwd HTTP/1.1\r\n" + host + end, "404", "not found"},
      {"GET /%2e%2e/status HTTP/1.1\r\n" + host + end, "404", "not found"},
      {"GET /page.js%00 HTTP/1.1\r\n" + host + end, "404", "not found"},
      {"GET // HTTP/1.1\r\n" + host + end, "404", "not found"},
      {"POST /api/status HTTP/1.1\r\n" + host + "Content-Length: 9\r\n" + end, "405", "only GET"},
      {"DELETE / HTTP/1.1\r\n" + host + end, "405", "Allow: GET, HEAD"},
      {"BREW / HTTP/1.1\r\n" + host + end, "400", ""},
      {"GET /\r\n\r\n", "400", ""},
      {"\r\n\r\n", "400", ""},
      {"GET /" + std::string(9000, 'x') + " HTTP/1.1\r\n" + host + end, "414", ""},
      {"GET / HTTP/1.1\r\nX: " + std::string(20000, 'x'), "431", "too much"},
      {"GET / HTTP/1.1\r\n" + std::string(17000, ':'), "431", "too much"},
      // Ranges and compression are for others: the library would work hard for them.
      {"GET /page.js HTTP/1.1\r\n" + host + "Range: bytes=0-0,0-0," + std::string(4000, '0') +
           "\r\nAccept-Encoding: br, gzip\r\n" + end,
       "200", "Content-Length: "},
      // What two read differently is no request.
      {"GET / HTTP/1.1\r\nHost: localhost\nRange: bytes=0-0" + ranges + "\r\n" + end, "400", ""},
      {"GET / HTTP/1.1\r\nHost: localhost\rRange: bytes=0-0" + ranges + "\r\n" + end, "400", ""},
      {"GET / HTTP/1.1\nRange: bytes=0-0" + ranges + "\r\n" + host + end, "400", ""},
      {"GET / HTTP/1.1\r\n" + host + std::string("X: \0\r\n", 6) + end, "400", ""},
      {"GET / HTTP/1.1\r\n" + host + "Expect: 100-continue\r\n" + end, "200", "text/html"},
  };
  for (const auto& [request, status, part] : cases) {
    const std::string answer = answerTo(request);
    EXPECT_EQ(answer.substr(0, 13), "HTTP/1.1 " + status + " ") << request.substr(0, 80);
    EXPECT_NE(answer.find(part), std::string::npos) << request.substr(0, 80) << answer;
    for (const char* header : {"Content-Security-Policy: default-src 'none'; script-src 'self';",
                               "X-Content-Type-Options: nosniff"}) {
      EXPECT_NE(answer.find(header), std::string::npos) << request.substr(0, 80) << answer;
    }
    EXPECT_EQ(answer.find("Content-Encoding"), std::string::npos);
  }
}

TEST_F(ServerTest, OneConnectionTakesRequestsInARowAndHalfAHeadIsGivenUp) {
  daemon.say(documentJSON(""));
  Browser browser(port());
  browser.send("GET /nowhere HTTP/1.1\r\nHost: localhost\r\n\r\nGET / HTTP/1.1\r\nHo");
  EXPECT_TRUE(browser.shows("not found\n"));
  browser.send("st: localhost\r\n\r\n");
  EXPECT_TRUE(browser.shows("</html>"));
  // What follows a body would be taken for a request.
  browser.send(
      "GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 46\r\n\r\n"
      "GET /nowhere HTTP/1.1\r\nHost: localhost\r\n\r\nxxxx");
  EXPECT_EQ(browser.readTo("\x01 never").find("not found"), std::string::npos);
  EXPECT_TRUE(browser.ends());
  Browser half(port());
  half.send("GET / HTTP/1.1\r\nHost: loc");
  EXPECT_TRUE(half.shows("HTTP/1.1 408 "));
  EXPECT_TRUE(half.ends());
}

TEST_F(ServerTest, ACrowdIsRefusedWithAWordAndRoomComesBack) {
  daemon.say(documentJSON(""));
  ASSERT_TRUE(eventuallyAnswers("/healthz", "ok"));
  std::list<Browser> streams;
  for (std::size_t i = 0; i < PageServer::kMostStreams; ++i) {
    streams.emplace_back(port()).get("/api/events");
    ASSERT_TRUE(streams.back().shows("event: state")) << i;
  }
  // Streams leave room for everything else.
  EXPECT_NE(get("/api/events").find("too many event streams"), std::string::npos);
  EXPECT_NE(get("/healthz").find("ok\n"), std::string::npos);
  std::list<Browser> idle;
  for (std::size_t i = 0; i < 300; ++i) {
    idle.emplace_back(port());
  }
  EXPECT_TRUE(eventuallyAnswers("/healthz", "HTTP/1.1 503 "));
  idle.clear();
  EXPECT_TRUE(eventuallyAnswers("/healthz", "ok\n"));
  for (Browser& stream : streams) {
    EXPECT_TRUE(stream.shows("event: state"));
  }
  streams.pop_front();
  EXPECT_TRUE(eventually([&] {
    Browser again(port());
    again.get("/api/events");
    return again.readTo("\n\n").find("200 OK") != std::string::npos;
  }));
}

TEST_F(ServerTest, ABrowserThatReadsNothingIsLeftBehindAndLosesItsPlace) {
  // A state of some hundred kilobytes fills every buffer between the two soon.
  std::string routers;
  for (int i = 0; i < 3000; ++i) {
    routers += (i > 0 ? "," : "") + routerJSON("n" + std::to_string(i), "up");
  }
  daemon.say(documentJSON(routers));
  ASSERT_TRUE(eventuallyAnswers("/api/status", "id-n2999"));
  Browser lazy(port(), 4096);
  lazy.get("/api/events");
  Browser keen(port());
  keen.get("/api/events");
  ASSERT_TRUE(keen.shows("event: state"));
  daemon.say(documentJSON(routers + "," + routerJSON("late", "down")));
  EXPECT_TRUE(keen.shows("late is listed, down."));
  EXPECT_TRUE(keen.shows("\"uniqueID\":\"id-late\""));
  EXPECT_TRUE(eventually([&] { return server->streams() == 0; }));
  EXPECT_TRUE(lazy.ends());
}

TEST_F(ServerTest, ListensAgainWhenTheSystemHasRefusedToAccept) {
  daemon.say(documentJSON(""));
  Browser stream(port());
  stream.get("/api/events");
  ASSERT_TRUE(stream.shows("event: state"));
  for (int number = 0; number < 1024; ++number) {
    int listens = 0;
    socklen_t size = sizeof listens;
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockopt(number, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens == 1 &&
        getsockname(number, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        address.sin_family == AF_INET && ntohs(address.sin_port) == port()) {
      shutdown(number, SHUT_RD);  // accept() fails from now on
    }
  }
  EXPECT_TRUE(stream.ends());
  ASSERT_TRUE(eventually([&] { return Browser::canConnect(port()); }));
  EXPECT_NE(get("/healthz").find("ok\n"), std::string::npos);
}

class UnreadTest : public PageFixture {
 protected:
  UnreadTest() : PageFixture(std::chrono::minutes(1)) {}
  static std::size_t residentBytes() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  }
};

TEST_F(UnreadTest, StreamsThatNobodyReadsHoldTheSameText) {
  constexpr std::size_t kMost = 100'000'000;  // less than a text of its own for each
  StatusStandIn daemon(path);
  daemon.say(documentJSON("", R"(,"pad":")" + std::string(2'000'000, 'x') + "\""));
  ASSERT_TRUE(eventuallyAnswers("/api/status", "\"pad\""));
  const std::size_t before = residentBytes();
  std::list<Browser> streams;
  for (std::size_t i = 0; i < PageServer::kMostStreams; ++i) {
    streams.emplace_back(port(), 4096).get("/api/events");
  }
  for (Browser& stream : streams) {
    ASSERT_TRUE(stream.shows("event: state"));
  }
  EXPECT_EQ(server->streams(), PageServer::kMostStreams);
  if (!kSanitized) {
    EXPECT_LT(residentBytes(), before + kMost);
  }
}

}  // namespace
}  // namespace valtor::test
