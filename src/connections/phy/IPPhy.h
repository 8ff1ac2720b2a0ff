#pragma once

#include <cstdint>
#include <string>

#include "connections/phy/ConnectionPointPhy.h"

namespace valtor {

// An IPv4 endpoint: what TCP and UDP phys have in common. Value-like, without a lock; the owner
// sees to it that nobody reads while it is loaded or set. A description may leave everything but
// its type out, so a loaded phy is not yet a place to connect to: isConnectable() tells.
class IPPhy : public ConnectionPointPhy {
 public:
  // Takes over "type" and, where present, "ipAddress", "port" and "server". -1 and a warning when
  // the type is missing, the address is no dotted IPv4 address, or the port is 0 or above 65536; a
  // "server" that is neither true nor false is warned about and ignored.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "ipAddress", "port", "server"}
  JSONPtr toJSON() const override;
  // Equal types, ports and addresses; which side is the server makes no difference.
  bool isEqual(const ConnectionPointPhy* other) const override;

  // Whether a client can connect there: the address is not empty and the port lies in 1 to 65535.
  // The loader lets other ports through (negative ones and 65536).
  bool isConnectable() const;

  // A dotted IPv4 address, or empty.
  const std::string& getIPAddress() const { return ipAddress_; }
  int32_t getPort() const { return port_; }
  // 1 when the far end is the server that we connect to, 0 when it is a client that connected to
  // us.
  int getServer() const { return server_; }

  // For phys that are built in code. Nothing is checked.
  void setIPAddress(const std::string& ipAddress) { ipAddress_ = ipAddress; }
  void setPort(int32_t port) { port_ = port; }
  void setServer(int server) { server_ = server; }

 protected:
  using ConnectionPointPhy::ConnectionPointPhy;

 private:
  std::string ipAddress_;
  int32_t port_ = 0;
  int server_ = 0;
};

class TCPPhy : public IPPhy {
 public:
  TCPPhy() : IPPhy(PhyTypeNames[kTCPPhy]) {}
};

class UDPPhy : public IPPhy {
 public:
  UDPPhy() : IPPhy(PhyTypeNames[kUDPPhy]) {}
};

}  // namespace valtor
