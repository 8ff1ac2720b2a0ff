#include "valtor-status/PageServer.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <httplib.h>
#include <netdb.h>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <utility>

#include "app/util/Mutex.h"
#include "app/util/UniqueDescriptor.h"
#include "support/JSONText.h"
#include "valtor-status/ConnectionThreads.h"
#include "valtor-status/HttpConnection.h"
#include "valtor-status/Metrics.h"
#include "valtor-status/PageFiles.h"

namespace valtor {
namespace {

using Clock = std::chrono::steady_clock;
using Request = httplib::Request;
using Response = httplib::Response;

constexpr std::chrono::seconds kComment{10};  // between two signs of life of a stream
constexpr std::chrono::seconds kLook{1};      // between two looks at whether a browser is there
constexpr std::chrono::milliseconds kBatchInterval{100};
constexpr std::size_t kMostText = 524288;  // bytes, of states a second and of messages at once
constexpr Clock::duration kPace =
    std::chrono::seconds(2);            // between two states at most: the page takes 3 s for old
constexpr std::size_t kSlice = 16384;   // bytes that are sent at once
constexpr std::size_t kRequests = 100;  // on one connection
constexpr std::size_t kRefused = 64;    // connections that may still read why

const char* const kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

std::string canned(const std::string& status, const std::string& text) {
  return "HTTP/1.1 " + status + "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
         std::to_string(text.size()) + "\r\nContent-Security-Policy: " + kPolicy +
         "\r\nX-Content-Type-Options: nosniff\r\nCache-Control: no-store\r\nConnection: close\r\n" +
         "\r\n" + text;
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char byte) { return std::tolower(byte); });
  return text;
}

// Without the port; an IPv6 address stands in brackets.
std::string hostOf(const std::string& header) {
  const std::size_t bracket = header.rfind(']');
  const std::size_t colon = header.find(':', bracket == std::string::npos ? 0 : bracket);
  return lowerCase(header.substr(0, colon));
}

// As it stands in a Host header: an IPv6 address in brackets.
std::string hostFor(const std::string& name) {
  const bool isBare = std::count(name.begin(), name.end(), ':') > 1 && name.front() != '[';
  return isBare ? "[" + lowerCase(name) + "]" : hostOf(name);
}

bool isAddress(const std::string& text) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  if (text.empty() || getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0) {
    return false;
  }
  freeaddrinfo(found);
  return true;
}

// Counts the event streams that are open; one holds a place as long as it lives.
class Places {
 public:
  explicit Places(std::size_t most) : most_(most) {}

  // None when all are taken.
  std::shared_ptr<const void> take() {
    if (taken_.fetch_add(1) >= most_) {
      --taken_;
      return nullptr;
    }
    return {this, [](Places* places) { --places->taken_; }};
  }
  std::size_t taken() const { return taken_; }

 private:
  const std::size_t most_;
  std::atomic<std::size_t> taken_{0};
};

// What all event streams have in common. A stream is asked for its next piece again and again, on
// the thread of its connection.
class EventStream {
 public:
  explicit EventStream(std::shared_ptr<const void> place) : place_(std::move(place)) {}
  virtual ~EventStream() = default;
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;

  // False when the browser is gone or takes nothing.
  bool sendNext(httplib::DataSink& sink) {
    if (!sink.is_writable()) {
      return false;
    }
    if (waiting_.empty()) {
      if (!std::exchange(begun_, true)) {
        say("retry: 1000\n\n");
      }
      gather(Clock::now() + kLook);
      if (waiting_.empty() && Clock::now() >= sent_ + kComment) {
        say(": \n\n");
      }
    }
    if (!waiting_.empty() && !sendSlice(sink)) {
      return false;
    }
    if (ended_ && waiting_.empty()) {
      sink.done();
    }
    return true;
  }

 protected:
  // Says what there is to say; nothing at the deadline.
  virtual void gather(Clock::time_point deadline) = 0;
  void say(std::string text) {
    waiting_.push_back(std::make_shared<const std::string>(std::move(text)));
  }
  // The data is not copied: streams that nobody reads hold the same.
  void sayEvent(const char* name, LiveState::Text data) {
    say("event: " + std::string(name) + "\nid: " + std::to_string(++number_) + "\ndata: ");
    waiting_.push_back(std::move(data));
    say("\n\n");
  }
  void sayEvent(const char* name, std::string data) {
    sayEvent(name, std::make_shared<const std::string>(std::move(data)));
  }
  void end() { ended_ = true; }

 private:
  bool sendSlice(httplib::DataSink& sink) {
    std::string slice;
    while (!waiting_.empty() && slice.size() < kSlice) {
      const std::string& text = *waiting_.front();
      const std::size_t count = std::min(text.size() - at_, kSlice - slice.size());
      slice.append(text, at_, count);
      at_ += count;
      if (at_ == text.size()) {
        waiting_.pop_front();
        at_ = 0;
      }
    }
    sent_ = Clock::now();
    return sink.write(slice.data(), slice.size());
  }

  const std::shared_ptr<const void> place_;
  std::deque<LiveState::Text> waiting_;
  std::size_t at_ = 0;  // how much of the first one has been sent
  bool begun_ = false;
  bool ended_ = false;
  uint64_t number_ = 0;
  Clock::time_point sent_ = Clock::now();
};

class StateStream final : public EventStream {
 public:
  StateStream(LiveState& state, std::shared_ptr<const void> place)
      : EventStream(std::move(place)), state_(state) {}

 protected:
  void gather(Clock::time_point deadline) override {
    if (!std::exchange(began_, true)) {
      sayEvent("state", state_.whole(mark_));
      return;
    }
    std::this_thread::sleep_until(std::min(due_, deadline));
    if (due_ > deadline) {
      return;
    }
    const LiveState::News news = state_.next(mark_, deadline);
    for (const History::Event& entry : news.events) {
      sayEvent("event", eventJSON(entry));
    }
    if (news.state != nullptr) {
      // The documents of a thousand routers would keep the machine busy otherwise.
      const std::chrono::duration<double> time(static_cast<double>(news.state->size()) / kMostText);
      due_ = Clock::now() + std::min(std::chrono::duration_cast<Clock::duration>(time), kPace);
      sayEvent("state", news.state);
    }
  }

 private:
  LiveState& state_;
  LiveState::Mark mark_;
  bool began_ = false;
  Clock::time_point due_;
};

class FollowStream final : public EventStream {
 public:
  FollowStream(std::shared_ptr<FollowRelay> relay, std::shared_ptr<const void> place)
      : EventStream(std::move(place)), relay_(std::move(relay)) {}

 protected:
  void gather(Clock::time_point deadline) override {
    std::this_thread::sleep_until(std::min(due_, deadline));
    FollowRelay::Batch batch = relay_->take(deadline);
    due_ = batch.lines.empty() ? due_ : Clock::now() + kBatchInterval;
    // More than one only when more came than goes into one.
    for (std::size_t size = 0; !batch.lines.empty();) {
      std::string list;
      for (const std::string& line : batch.lines) {
        list += (list.empty() ? "[" : ",") + line;
      }
      size += list.size();
      sayEvent("message", list + "]");
      const bool goesOn = batch.more && size < kMostText;
      batch = goesOn ? relay_->take(Clock::now())
                     : FollowRelay::Batch{{}, false, batch.ended, batch.reason};
    }
    if (batch.ended) {
      sayEvent("end", "{\"reason\":" + quotedJSON(batch.reason) + "}");
      end();
    }
  }

 private:
  const std::shared_ptr<FollowRelay> relay_;
  Clock::time_point due_;
};

}  // namespace

class PageServer::Impl final : public httplib::Server {
 public:
  Impl(Settings settings, LiveState& state, FollowRelays& relays)
      : settings_(std::move(settings)), state_(state), relays_(relays) {
    hosts_ = {"localhost", "127.0.0.1", "[::1]", hostFor(settings_.address)};
    for (const std::string& name : settings_.hostNames) {
      hosts_.insert(hostFor(name));
    }
    hosts_.erase("");
    set_default_headers({{"Content-Security-Policy", kPolicy},
                         {"X-Content-Type-Options", "nosniff"},
                         {"X-Frame-Options", "DENY"},
                         {"Referrer-Policy", "no-referrer"},
                         {"Cross-Origin-Resource-Policy", "same-origin"}});
    set_keep_alive_max_count(kRequests);
    set_payload_max_length(0);
    set_idle_interval(1);
    // Only one program may have the port: the library would let others share it.
    set_socket_options([](socket_t socket) {
      const int on = 1;
      setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    new_task_queue = [this] {
      // The library takes it over.
      return new ConnectionThreads(  // NOLINT(*-owning-memory)
          kMostConnections, [this] { closeRefused(0); },
          [this] {
            pauses_ = true;
            endConnections();
          });
    };
    set_pre_routing_handler([this](const Request& request, Response& response) {
      serve(request, response);
      return HandlerResponse::Handled;
    });
  }

  ~Impl() override {
    if (!thread_.joinable()) {
      return;
    }
    {
      const Locked lock(lock_);
      ends_ = true;
      changed_.notify_all();
    }
    // The library forgets a stop that comes before it has begun.
    while (!hasEnded_) {
      if (svr_sock_ != INVALID_SOCKET) {
        stop();
      }
      endConnections();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    thread_.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool begin() {
    if (!bind()) {
      return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
  }

  int port() const { return port_; }
  std::size_t streams() const { return streams_.taken(); }

 private:
  // A socket in the list of those that are served; goes before the socket does.
  class Entry {
   public:
    Entry(Impl& server, int socket) : server_(server), socket_(socket) {
      const Locked lock(server_.lock_);
      server_.open_.insert(socket_);
    }
    ~Entry() {
      const Locked lock(server_.lock_);
      server_.open_.erase(socket_);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    Impl& server_;
    const int socket_;
  };

  bool bind() {
    if (!isAddress(settings_.address)) {
      errno = 0;
      return false;
    }
    errno = 0;
    int port = port_ > 0 ? port_.load() : settings_.port;
    if (port == 0) {
      port = bind_to_any_port(settings_.address);
    } else if (!bind_to_port(settings_.address, port)) {
      port = -1;
    }
    // The library's own backlog is 5.
    if (port > 0 && ::listen(svr_sock_, SOMAXCONN) == 0) {
      port_ = port;
      return true;
    }
    closeListener();  // or it would stand in the way of the next attempt
    return false;
  }

  // Keeps errno.
  void closeListener() {
    const int error = errno;
    UniqueDescriptor(svr_sock_.exchange(INVALID_SOCKET)).reset();
    errno = error;
  }

  void run() {
    bool bound = true;
    for (;;) {
      if (bound) {
        acceptor_ = std::this_thread::get_id();
        pauses_ = false;
        accept();
      }
      // The library gives up when the system refuses to accept, for want of memory for one.
      {
        const Locked lock(lock_);
        if (changed_.wait_for(lock_, kLook, [this]() VALTOR_REQUIRES(lock_) { return ends_; })) {
          break;
        }
      }
      bound = bindAgain();
    }
    closeRefused(0);
    hasEnded_ = true;
  }

  void accept() {
    try {
      listen_after_bind();
    } catch (const std::exception&) {
      closeListener();
    }
  }

  bool bindAgain() {
    try {
      return bind();
    } catch (const std::exception&) {
      return false;
    }
  }

  // Called by the library in the connection's thread, or in the one that accepts when there is
  // none.
  bool process_and_close_socket(socket_t number) override {
    UniqueDescriptor socket(number);
    try {
      if (std::this_thread::get_id() == acceptor_) {
        refuse(std::move(socket));
        return true;
      }
      HttpConnection connection(std::move(socket), settings_.stall);
      const Entry entry(*this, number);
      serveConnection(connection);
    } catch (const std::exception&) {
      // Memory ran out: the connection is closed.
    }
    return true;
  }

  void serveConnection(HttpConnection& connection) {
    bool goesOn = true;
    for (std::size_t count = 1; goesOn && !pauses_ && svr_sock_ != INVALID_SOCKET; ++count) {
      switch (connection.readHead()) {
        case HttpConnection::Head::Complete: {
          bool closes = false;
          bool understood = false;
          const bool last = count == kRequests || connection.hasBody() || isCrowded();
          goesOn = process_request(connection, last, closes,
                                   [&](Request& request) {
                                     understood = true;
                                     request.headers.insert(connection.headers().begin(),
                                                            connection.headers().end());
                                     if (request.path == "/api/events") {
                                       connection.endless();
                                     }
                                   }) &&
                   understood && !closes && !last;
          break;
        }
        case HttpConnection::Head::Broken:
          connection.answer(canned("400 Bad Request", "a line is broken\n"));
          goesOn = false;
          break;
        case HttpConnection::Head::TooLong:
          connection.answer(canned("431 Request Header Fields Too Large", "too much\n"));
          goesOn = false;
          break;
        case HttpConnection::Head::TooLate:
          connection.answer(canned("408 Request Timeout", "too late\n"));
          goesOn = false;
          break;
        case HttpConnection::Head::Closed:
          goesOn = false;
          break;
      }
    }
  }

  bool isCrowded() {
    const Locked lock(lock_);
    return open_.size() > kMostConnections * 3 / 4;
  }

  void endConnections() {
    const Locked lock(lock_);
    for (const int socket : open_) {
      shutdown(socket, SHUT_RDWR);
    }
  }

  // Without waiting for anything. A close at once would reset the connection when the request
  // comes, and the answer would be lost with it.
  void refuse(UniqueDescriptor socket) {
    static const std::string kAnswer =
        canned("503 Service Unavailable", "too many connections, try again in some seconds\n");
    ::send(socket.get(), kAnswer.data(), kAnswer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(socket.get(), SHUT_WR);
    refused_.push_back(std::move(socket));
    closeRefused(kRefused);
  }

  void closeRefused(std::size_t left) {
    while (refused_.size() > left) {
      refused_.pop_front();
    }
  }

  void serve(const Request& request, Response& response) {
    response.set_header("Cache-Control", "no-store");
    if (request.method != "GET" && request.method != "HEAD") {
      response.set_header("Allow", "GET, HEAD");
      refuseWith(response, 405, "only GET and HEAD\n");
    } else if (request.get_header_value_count("Host") != 1 ||
               hosts_.count(hostOf(request.get_header_value("Host"))) == 0) {
      refuseWith(response, 421, "not served under this name, see --host-name\n");
    } else if (request.path != "/" && request.get_header_value("Sec-Fetch-Site") == "cross-site") {
      refuseWith(response, 403, "not for the pages of others\n");
    } else {
      servePath(request, response);
    }
  }

  void servePath(const Request& request, Response& response) {
    const auto file = [&](std::string_view content, const char* type) {
      giveShared(response, content, nullptr, type);
    };
    if (request.path == "/") {
      file(kPageIndex, "text/html; charset=utf-8");
    } else if (request.path == "/page.js") {
      file(kPageScript, "text/javascript; charset=utf-8");
    } else if (request.path == "/page.css") {
      file(kPageStyle, "text/css; charset=utf-8");
    } else if (request.path == "/chart.js") {
      serveChart(response);
    } else if (request.path == "/api/status") {
      LiveState::Mark mark;
      const LiveState::Text text = state_.whole(mark);
      giveShared(response, *text, text, "application/json");
    } else if (request.path == "/api/events") {
      serveEvents(request, response);
    } else if (request.path == "/metrics") {
      response.status = 200;
      response.set_content(metricsText(state_.figures(), settings_.version),
                           "text/plain; version=0.0.4");
    } else if (request.path == "/healthz") {
      const std::string problem = state_.problem();
      response.status = problem.empty() ? 200 : 503;
      response.set_content(problem.empty() ? "ok\n" : problem + "\n", "text/plain; charset=utf-8");
    } else {
      refuseWith(response, 404, "not found\n");
    }
  }

  // Without a copy for each browser, some of which are slow to take it.
  static void giveShared(Response& response, std::string_view content,
                         const std::shared_ptr<const void>& owner, const char* type) {
    response.status = 200;
    response.set_content_provider(
        content.size(), type,
        [content, owner](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          return sink.write(content.data() + offset, std::min(length, kSlice));
        });
  }

  void serveChart(Response& response) {
    const LiveState::Text content = chart();
    if (content->empty()) {
      refuseWith(response, 404, "no " + settings_.chartFile + "\n");
      return;
    }
    response.headers.erase("Cache-Control");
    response.set_header("Cache-Control", "max-age=3600");
    giveShared(response, *content, content, "text/javascript; charset=utf-8");
  }

  // One for all who take it at the moment.
  LiveState::Text chart() {
    const Locked lock(chartLock_);
    LiveState::Text content = chart_.lock();
    if (content == nullptr) {
      std::ifstream file(settings_.chartFile, std::ios::binary);
      content = std::make_shared<const std::string>(std::istreambuf_iterator<char>(file),
                                                    std::istreambuf_iterator<char>());
      chart_ = content;
    }
    return content;
  }

  void serveEvents(const Request& request, Response& response) {
    std::shared_ptr<const void> place = streams_.take();
    if (place == nullptr) {
      response.set_header("Retry-After", "5");
      refuseWith(response, 503, "too many event streams, try again in some seconds\n");
      return;
    }
    response.status = 200;
    if (request.method == "HEAD") {
      response.set_content("", "text/event-stream");
      return;
    }
    std::shared_ptr<EventStream> stream;
    if (request.has_param("follow")) {
      stream = std::make_shared<FollowStream>(relays_.follow(request.get_param_value("follow")),
                                              std::move(place));
    } else {
      stream = std::make_shared<StateStream>(state_, std::move(place));
    }
    response.set_chunked_content_provider(
        "text/event-stream", [this, stream](std::size_t /*offset*/, httplib::DataSink& sink) {
          return !pauses_ && !state_.hasEnded() && stream->sendNext(sink);
        });
  }

  static void refuseWith(Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_content(text, "text/plain; charset=utf-8");
  }

  const Settings settings_;
  LiveState& state_;
  FollowRelays& relays_;
  std::set<std::string> hosts_;
  Places streams_{kMostStreams};
  std::atomic<int> port_{0};
  std::atomic<std::thread::id> acceptor_;
  std::deque<UniqueDescriptor> refused_;  // of the thread that accepts
  Mutex chartLock_;
  std::weak_ptr<const std::string> chart_ VALTOR_GUARDED_BY(chartLock_);
  Mutex lock_;
  std::condition_variable_any changed_;
  std::set<int> open_ VALTOR_GUARDED_BY(lock_);  // the sockets that are served
  bool ends_ VALTOR_GUARDED_BY(lock_) = false;
  std::atomic<bool> pauses_{false};  // nobody is served until it listens again
  std::atomic<bool> hasEnded_{false};
  std::thread thread_;
};

PageServer::PageServer(Settings settings, LiveState& state, FollowRelays& relays)
    : impl_(std::make_unique<Impl>(std::move(settings), state, relays)) {}
PageServer::~PageServer() = default;
bool PageServer::start() { return impl_->begin(); }
int PageServer::port() const { return impl_->port(); }
std::size_t PageServer::streams() const { return impl_->streams(); }

}  // namespace valtor
