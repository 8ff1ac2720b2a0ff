#include "load/Brokers.h"

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <thread>

#include "app/util/UniqueDescriptor.h"

namespace valtor::bench {

namespace {

constexpr const char* kTopic = "bench/route";
constexpr const char* kBroker = "/usr/sbin/mosquitto";

uint16_t freePort() {
  const UniqueDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in name{};
  name.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &name.sin_addr);
  socklen_t size = sizeof name;
  auto* generic = reinterpret_cast<sockaddr*>(&name);
  if (bind(socket.get(), generic, size) != 0 || getsockname(socket.get(), generic, &size) != 0) {
    throw std::runtime_error("no free port");
  }
  return ntohs(name.sin_port);
}

Process startBroker(const std::string& name, uint16_t port, const std::string& more) {
  const std::filesystem::path folder = std::filesystem::path(VALTOR_BENCH_ROOT) / "brokers";
  std::filesystem::create_directories(folder);
  const std::string file = folder / (name + ".conf");
  std::ofstream(file) << "listener " << port << " 127.0.0.1\n"
                      << "allow_anonymous true\npersistence false\nlog_dest none\nuser root\n"
                      << "set_tcp_nodelay true\nmax_queued_messages 0\n"
                      << more;
  return Process(std::vector<std::string>{kBroker, "-c", file});
}

}  // namespace

BrokerClient::BrokerClient(EventLoop& loop, uint16_t port)
    : loop_(loop), client_(nullptr, mosquitto_destroy) {
  static std::once_flag initialized;
  std::call_once(initialized, [] { mosquitto_lib_init(); });
  client_.reset(mosquitto_new(nullptr, true, this));
  mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_message_callback_set(
      client_.get(), [](mosquitto*, void* self, const mosquitto_message* message) {
        NumberedCheck* check = static_cast<BrokerClient*>(self)->check_;
        if (check != nullptr) {
          check->receive({static_cast<const char*>(message->payload),
                          static_cast<std::size_t>(message->payloadlen)});
        }
      });
  // The broker has just been started.
  for (int attempts = 0; mosquitto_connect(client_.get(), "127.0.0.1", port, 60) != 0; ++attempts) {
    if (attempts == 100) {
      throw std::runtime_error("no broker answers");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  socket_ = mosquitto_socket(client_.get());
  loop_.add(socket_, EPOLLIN, [this](uint32_t events) {
    if ((events & EPOLLIN) != 0 && mosquitto_loop_read(client_.get(), 1) != MOSQ_ERR_SUCCESS) {
      throw std::runtime_error("the broker hung up");
    }
    if ((events & EPOLLOUT) != 0) {
      mosquitto_loop_write(client_.get(), 1);
    }
    watch();
  });
  upkeep_ = loop_.every(std::chrono::seconds(1), [this] { mosquitto_loop_misc(client_.get()); });
  watch();
}

BrokerClient::~BrokerClient() {
  loop_.cancel(upkeep_);
  loop_.remove(socket_);
}

void BrokerClient::watch() {
  loop_.change(socket_, EPOLLIN | (mosquitto_want_write(client_.get()) ? EPOLLOUT : 0U));
}

void BrokerClient::subscribe(NumberedCheck& check) {
  check_ = &check;
  mosquitto_subscribe(client_.get(), nullptr, kTopic, 0);
  watch();
}

void BrokerClient::unsubscribe() {
  mosquitto_unsubscribe(client_.get(), nullptr, kTopic);
  watch();
}

void BrokerClient::publish(std::string_view payload) {
  mosquitto_publish(client_.get(), nullptr, kTopic, static_cast<int>(payload.size()),
                    payload.data(), 0, false);
  watch();
}

Brokers::Brokers() : nearPort(freePort()), farPort(freePort()) {
  far = std::make_unique<Process>(startBroker("far", farPort, ""));
  near = std::make_unique<Process>(
      startBroker("near", nearPort,
                  "connection far\naddress 127.0.0.1:" + std::to_string(farPort) +
                      "\ntopic bench/# out 0\nrestart_timeout 1\n"));
}

}  // namespace valtor::bench
