#pragma once

#include <chrono>
#include <cstddef>
#include <httplib.h>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

// A browser's connection under the HTTP library, which would read request lines and headers for as
// long as somebody sends some. This one reads a request's head itself, within limits of size and
// time. Of the headers the library gets none as it came: a line that it splits otherwise than we do
// would make it match regular expressions or compress. Owns its socket. One thread.
class HttpConnection final : public httplib::Stream {
 public:
  static constexpr std::size_t kLongestHead = 16384;      // bytes
  static constexpr std::chrono::seconds kIdle{5};         // before a request's first byte
  static constexpr std::chrono::seconds kHeadTime{5};     // from there to the head's end
  static constexpr std::chrono::seconds kAnswerTime{30};  // to take an answer

  // An answer of which nothing is taken for "stall" is given up.
  HttpConnection(UniqueDescriptor socket, std::chrono::milliseconds stall);
  ~HttpConnection() override;

  enum class Head { Complete, Closed, Broken, TooLong, TooLate };
  // Reads up to the end of a request's head, of which the library reads the request line next, and
  // a header of ours that says whether the connection stays.
  Head readHead();
  // The values of that head's headers that are used here, Host and Sec-Fetch-Site, as they came.
  const httplib::Headers& headers() const { return headers_; }
  // Whether more than a head has come with the request, so that what follows is no request.
  bool hasBody() const { return hasBody_; }
  // An answer without end: only the stall counts.
  void endless() { deadline_ = Clock::time_point::max(); }
  // Answers without the library.
  void answer(const std::string& text);

  bool is_readable() const override { return !head_.empty(); }
  // Whether the far end is still there.
  bool is_writable() const override;
  ssize_t read(char* bytes, std::size_t size) override;
  ssize_t write(const char* bytes, std::size_t size) override;
  void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  socket_t socket() const override { return socket_.get(); }

 private:
  using Clock = std::chrono::steady_clock;

  bool takeHead(std::size_t size);
  void takeHeader(std::string_view line);

  UniqueDescriptor socket_;
  const std::chrono::milliseconds stall_;
  std::string input_;  // what has come and is not used up
  std::string head_;   // what the library has not read of the request
  httplib::Headers headers_;
  bool hasBody_ = false;
  Clock::time_point deadline_ = Clock::time_point::max();  // of the answer
};

}  // namespace valtor
