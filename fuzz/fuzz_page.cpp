// What the server of the live page takes in: requests of browsers over a real connection, documents
// of the daemon, and the byte stream of a bus that it only looks at. The first letter of an input
// chooses; the rest is its text, or several between NULs.

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <set>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "bus/message/PellInternalStreamParser.h"
#include "fuzz/Fuzzing.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-status/FollowRelays.h"
#include "valtor-status/FrameSkimmer.h"
#include "valtor-status/LiveState.h"
#include "valtor-status/Metrics.h"
#include "valtor-status/PageServer.h"

namespace valtor::fuzz {

namespace {

using Parts = std::vector<std::string>;

constexpr const char* kDocument =
    R"({"startTime":1,"now":5,"routers":[{"name":"Router 1","uniqueID":"r1","state":"up"}]})";

// --- Requests ------------------------------------------------------------------------------------

// One for the whole run, with threads of its own.
struct Site {
  Site()
      : state("1.0.0"), relays("/nowhere"), server({"127.0.0.1", 0, {}, "1.0.0"}, state, relays) {
    require(state.answered(kDocument, {}), "a daemon answers");
    require(server.start(), "the server starts");
  }
  ~Site() { state.end(); }
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  LiveState state;
  FollowRelays relays;
  PageServer server;
};

Site& site() {
  static Site site;
  return site;
}

UniqueDescriptor connectTo(int port) {
  UniqueDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(static_cast<uint16_t>(port));
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // connect() is refused to all that is examined.
  require(syscall(SYS_connect, socket.get(), &name, sizeof name) == 0, "the server accepts");
  const timeval longest{120, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
  return socket;
}

// Everything that the server answers to a browser that sends these bytes and no more; of a stream
// of events its head. That goes on as long as its reader is there: of bytes behind a request nobody
// reads, and behind many of them the end does not arrive.
std::string answerTo(const std::string& bytes) {
  const UniqueDescriptor socket = connectTo(site().server.port());
  // Who refuses early closes early.
  static_cast<void>(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0);
  shutdown(socket.get(), SHUT_WR);
  constexpr std::size_t kKeptAnswer = std::size_t{1} << 20;
  std::string text;
  std::array<char, 65536> part{};
  for (;;) {
    const ssize_t count = recv(socket.get(), part.data(), part.size(), 0);
    if (count < 0 && errno == EINTR) {
      continue;  // libFuzzer's alarm; a recv with a time-out does not go on by itself
    }
    if (count <= 0) {
      require(count == 0 || errno == ECONNRESET, "the server ends a connection that has ended");
      return text;
    }
    if (text.size() < kKeptAnswer) {  // a thousand requests in one input have long answers
      text.append(part.data(), static_cast<std::size_t>(count));
    }
    const std::size_t end = text.find("\r\n\r\n");
    if (end != std::string::npos && text.find("text/event-stream") < end) {
      return text;
    }
  }
}

bool isHeader(const std::string& name) {
  static const std::set<std::string> kHeaders = {"Accept-Ranges",
                                                 "Allow",
                                                 "Cache-Control",
                                                 "Connection",
                                                 "Content-Length",
                                                 "Content-Range",
                                                 "Content-Security-Policy",
                                                 "Content-Type",
                                                 "Cross-Origin-Resource-Policy",
                                                 "Keep-Alive",
                                                 "Referrer-Policy",
                                                 "Retry-After",
                                                 "Transfer-Encoding",
                                                 "X-Content-Type-Options",
                                                 "X-Frame-Options"};
  return kHeaders.count(name) > 0;
}

void request(const Parts& parts) {
  std::string text;
  for (const char byte : parts[0]) {
    // So that a text editor can write a request.
    text += byte == '\n' ? "\r\n" : std::string(1, byte);
  }
  const std::string answer = answerTo(text);
  if (answer.empty()) {
    return;
  }
  require(answer.compare(0, 9, "HTTP/1.1 ") == 0, "an answer is one of HTTP");
  const int status = std::atoi(answer.c_str() + 9);
  constexpr std::array<int, 10> kKnown = {200, 206, 400, 403, 404, 405, 408, 414, 421, 431};
  require(std::find(kKnown.begin(), kKnown.end(), status) != kKnown.end() || status == 503,
          "with a status that is meant");
  const std::string head = answer.substr(0, answer.find("\r\n\r\n"));
  require(head.find("default-src 'none'") != std::string::npos, "and the policy of the page");
  for (std::size_t at = head.find("\r\n"); at != std::string::npos;
       at = head.find("\r\n", at + 2)) {
    const std::size_t colon = head.find(": ", at);
    require(colon != std::string::npos && isHeader(head.substr(at + 2, colon - at - 2)),
            "and no header that the request made");
  }
}

// --- Documents -----------------------------------------------------------------------------------

void show(Parts parts) {
  constexpr std::size_t kMostLooks = 8;  // each renders everything
  parts.resize(std::min(parts.size(), kMostLooks));
  LiveState state("1.0.0");
  LiveState::Mark mark;
  state.whole(mark);
  BusParticipant::View bus;
  for (const std::string& part : parts) {
    const std::string document = compactJSON(withoutBrokenUtf8(part)).value_or("");
    if (!state.answered(document, bus)) {
      state.silent(part, bus);
    }
    bus.up = !bus.up;
    const LiveState::News news = state.next(mark, LiveState::Clock::time_point());
    require(news.state != nullptr && compactJSON(*news.state).has_value(), "the news are JSON");
    for (const History::Event& event : news.events) {
      require(compactJSON(eventJSON(event)).has_value(), "an event is JSON");
    }
    LiveState::Mark again;
    const LiveState::Text whole = state.whole(again);
    require(compactJSON(*whole).has_value() && whole->find('\n') == std::string::npos,
            "the whole state is JSON in one line");
    require(again.revision == mark.revision && again.event == mark.event, "marks agree");
  }
  const std::string metrics = metricsText(state.figures(), "1.0.0");
  require(withoutBrokenUtf8(metrics) == metrics && metrics.back() == '\n', "metrics are lines");
  for (std::size_t at = 0; at < metrics.size(); at = metrics.find('\n', at) + 1) {
    require(metrics.compare(at, 7, "valtor_") == 0 || metrics.compare(at, 2, "# ") == 0,
            "each of a metric or about one");
  }
}

// --- The bus -------------------------------------------------------------------------------------

using Seen = std::vector<std::pair<std::string, bool>>;

Seen skimmed(const std::string& stream, std::size_t chunk) {
  Seen seen;
  FrameSkimmer skimmer(
      [&seen](std::string_view payload, bool whole) { seen.emplace_back(payload, whole); });
  for (std::size_t done = 0; done < stream.size(); done += chunk) {
    skimmer.take(stream.data() + done, std::min(chunk, stream.size() - done));
  }
  return seen;
}

void skim(const Parts& parts) {
  std::string stream;
  Seen wanted;
  for (const std::string& part : parts) {
    if (!part.empty()) {
      stream += frame(part);
      wanted.emplace_back(part.substr(0, FrameSkimmer::kKept), part.size() <= FrameSkimmer::kKept);
    }
  }
  require(skimmed(stream, 7) == wanted, "every frame is seen");
  const std::string& raw = parts[0];
  require(skimmed(raw, 3) == skimmed(raw, raw.size() + 1), "chunks do not matter");
}

constexpr std::array<void (*)(const Parts&), 3> kReaders = {
    request, [](const Parts& parts) { show(parts); }, skim};

}  // namespace

// A request has buffers of the connection and of its answer, the page itself among them; of a
// document the name of each router stands in a line for each figure and rule.
const MemoryLimit kMemoryLimit{250, 3'000'000};

void prepare() { site(); }

void examine(Input input) {
  const auto reader = kReaders[input.choose(kReaders.size())];
  reader(input.parts());
}

}  // namespace valtor::fuzz
