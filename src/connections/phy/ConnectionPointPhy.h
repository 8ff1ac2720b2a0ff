#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The type names of the phys, as descriptions spell them.
inline constexpr std::array<const char*, 4> PhyTypeNames = {"serial", "tbus", "tcp", "udp"};

// Indices into PhyTypeNames.
enum PhyTypeIndex : std::size_t { kSerialPhy = 0, kTBusPhy = 1, kTCPPhy = 2, kUDPPhy = 3 };

// One physical way of reaching a device: a serial line, a TBus link, a TCP or a UDP endpoint. The
// class follows from the type name and never changes. Whoever loads a phy owns it alone; a phy owns
// and refers to nothing else and has no lock, so one thread at a time uses it. Failures of a load
// are logged as warnings, and a phy whose load failed may be half filled and is to be discarded.
class ConnectionPointPhy : public AbstractJSONBackedData {
 public:
  // A phy that knows its type and nothing else.
  explicit ConnectionPointPhy(std::string type);

  // A new phy of the class that the item's "type" names (compared exactly), already loaded, or none
  // when the type is missing, no string or unknown, or the load fails; each is logged.
  static std::unique_ptr<ConnectionPointPhy> createFromJSON(const cJSON* item);

  // Takes over "type", which must be there. 0 or -1.
  int loadFromJSON(const cJSON* item) override;
  // {"type"}
  JSONPtr toJSON() const override;

  // Whether both describe the same physical interface; never equal to null. The base compares the
  // types.
  virtual bool isEqual(const ConnectionPointPhy* other) const;

  // Opens the interface. The descriptor (>= 0), which the caller hands back to closePhy, or -1. The
  // base has nothing to open.
  virtual int openPhy();
  // Gives back what openPhy returned. The base prints the phy on the console and closes nothing.
  virtual void closePhy(int fd);

  const std::string& getType() const { return type_; }

 private:
  std::string type_;
};

}  // namespace valtor
