#include "valtor-bus/NodeProbe.h"

#include <array>
#include <memory>

#include <asio.hpp>

#include "bus/message/PellInternalStreamParser.h"
#include "support/BusRequest.h"

namespace valtor {
namespace {

using Tcp = asio::ip::tcp;

// One node. Its handlers run inside the run of the context, which ends before it.
class Probe {
 public:
  Probe(asio::io_context& context, ProbedNode& node, const BusSettings& login)
      : node_(node), socket_(context), keepAlive_(makeRequest(MessageKind::SET, "", "{}")) {
    bytes_ = frame(payloadOf(loginRequest(login.name, login.connID), login.connID)) +
             frame(payloadOf(keepAlive_, login.connID));
    parser_.setMessageCallback([this](const std::vector<PellInternalMessage>& messages) {
      for (const PellInternalMessage& message : messages) {
        answered_ =
            answered_ || (message.getKind() == MessageKind::ACK && isAnswerTo(keepAlive_, message));
      }
    });
  }

  void start() {
    node_.fault = "no answer";
    asio::error_code error;
    const auto address = asio::ip::make_address(node_.address, error);
    if (error || node_.port < 1 || node_.port > 65535) {
      node_.fault = "no place to connect to";
      return;
    }
    socket_.async_connect(
        {address, static_cast<uint16_t>(node_.port)}, [this](const asio::error_code& result) {
          if (!fails(result)) {
            asio::async_write(socket_, asio::buffer(bytes_),
                              [this](const asio::error_code& sent, std::size_t) { fails(sent); });
            read();
          }
        });
  }

 private:
  bool fails(const asio::error_code& error) {
    if (error == asio::error::no_descriptors || error == asio::error::no_memory) {
      throw asio::system_error(error);  // which says nothing about the node
    }
    if (error && !answered_) {
      node_.fault = error == asio::error::eof ? "it hung up" : error.message();
    }
    return static_cast<bool>(error);
  }

  void read() {
    socket_.async_read_some(asio::buffer(buffer_),
                            [this](const asio::error_code& error, std::size_t count) {
                              if (fails(error)) {
                                return;
                              }
                              parser_.parse(buffer_.data(), count);
                              if (answered_) {
                                node_.fault.clear();
                                asio::error_code ignored;
                                socket_.close(ignored);
                              } else {
                                read();
                              }
                            });
  }

  ProbedNode& node_;
  Tcp::socket socket_;
  const BusRequest keepAlive_;
  std::string bytes_;
  std::array<char, 4096> buffer_{};
  PellInternalStreamParser parser_;
  bool answered_ = false;
};

}  // namespace

void probeNodes(std::vector<ProbedNode>& nodes, const BusSettings& login,
                std::chrono::milliseconds time) {
  asio::io_context context(1);
  std::vector<std::unique_ptr<Probe>> probes;
  for (ProbedNode& node : nodes) {
    probes.push_back(std::make_unique<Probe>(context, node, login));
    probes.back()->start();
  }
  context.run_for(time);
}

}  // namespace valtor
