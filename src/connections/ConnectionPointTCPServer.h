#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The record of one TCP server on which external controllers connect: port, protocol and limits. It
// opens no socket. A manager owns its records, tells them apart by type and protocol together, and
// carries newly received descriptions over with isEqual and assign. A value without a lock: only
// whoever handles its manager's requests touches it, one at a time. The loader reports by its
// result only and logs nothing.
class ConnectionPointTCPServer : public AbstractJSONBackedData {
 public:
  explicit ConnectionPointTCPServer(uint32_t port = 0, std::string protocol = "tcp");

  // Takes over "enabled" (true or false), "port", "protocol", "type", "connectionLimit" and
  // "numConnections" in this order. All but the two texts must be there: the first one missing ends
  // the load with -1 and what came before it stays taken over. Numbers are taken as the library
  // reports them, unchecked.
  int loadFromJSON(const cJSON* item) override;
  // The same six members in the order enabled, port, protocol, type, connectionLimit,
  // numConnections.
  JSONPtr toJSON() const override;

  // Whether a description brings anything new. Everything is compared, both address lists
  // included, except enabled; never equal to null.
  virtual bool isEqual(const ConnectionPointTCPServer* other) const;
  // Takes over everything of another record, not null, except its type: the records have the same.
  virtual void assign(const ConnectionPointTCPServer* other);

  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }
  uint32_t getPort() const { return port_; }
  void setPort(uint32_t port) { port_ = port; }
  uint32_t getConnectionLimit() const { return connectionLimit_; }
  void setConnectionLimit(uint32_t limit) { connectionLimit_ = limit; }
  // Connections held now.
  uint32_t getNumConnections() const { return numConnections_; }
  void setNumConnections(uint32_t count) { numConnections_ = count; }
  const std::string& getProtocol() const { return protocol_; }
  // The type of the connection points that the server's clients become; a manager fills in its own
  // where a description names none.
  const std::string& getType() const { return type_; }
  void setType(const std::string& type) { type_ = type; }
  // Addresses to let in and to keep out, in order. No description carries them.
  std::vector<std::string> getAllow() const { return allow_; }
  void setAllow(const std::vector<std::string>& addresses) { allow_ = addresses; }
  std::vector<std::string> getBlock() const { return block_; }
  void setBlock(const std::vector<std::string>& addresses) { block_ = addresses; }

 private:
  bool enabled_ = true;
  uint32_t port_;
  std::string protocol_;
  uint32_t connectionLimit_ = 10;
  uint32_t numConnections_ = 0;
  std::vector<std::string> allow_;
  std::vector<std::string> block_;
  std::string type_;
};

}  // namespace valtor
