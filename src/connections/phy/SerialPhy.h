#pragma once

#include <cstdint>
#include <string>
#include <termios.h>

#include "connections/phy/ConnectionPointPhy.h"

namespace valtor {

// Index of a line speed; the speeds are in SerialPhy.cpp. Any speed without an index of its own is
// kUnsupported: it renders as 0 and the line runs at 115200 baud.
enum class SerialBaud : int {
  k9600 = 0,
  k19200 = 1,
  k38400 = 2,
  k57600 = 3,
  k115200 = 4,
  kUnsupported = 5,
};

enum class SerialParity : int { kNone = 0, kOdd = 1, kEven = 2 };

// The electrical standard of the line.
enum class SerialPortType : int { kRS232 = 0, kRS422 = 1, kRS485 = 2 };

// A serial line: the path of its terminal device and its line settings, and the driver that opens
// and closes it. The phy remembers the device's settings of the latest open, but not its
// descriptor: that is the caller's from openPhy to closePhy. No lock; the caller must not close
// while another thread uses the descriptor. Failures are logged and reported, nothing throws.
class SerialPhy : public ConnectionPointPhy {
 public:
  // No device path, 38400 baud, no parity, RS-232, one stop bit.
  SerialPhy();

  // Takes over "type", which must be there, else -1 and a warning. Everything else is optional:
  // "port", "portType" and "parity" count only as strings, and no value makes the load fail.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "port", "portType", "stopBits", "baudRate", "parity"}
  JSONPtr toJSON() const override;
  // Equal in everything that a description holds.
  bool isEqual(const ConnectionPointPhy* other) const override;

  // Opens the device, raw, at the described speed and parity, always with one stop bit, selects the
  // line standard and discards pending input. The descriptor, or -1 with a log line and nothing
  // left open; the device then keeps the settings that were applied so far. Blocks while the
  // device's driver waits for carrier (a device whose settings lack CLOCAL). A second open while
  // the first is in use takes the first one's settings for those to restore.
  int openPhy() override;
  // Restores the settings found by the latest openPhy and closes the descriptor; 0 and negative
  // numbers are ignored. A failure to restore is logged and the descriptor closed all the same.
  void closePhy(int fd) override;

  // The device path.
  const std::string& getPort() const { return port_; }
  SerialBaud getBaudRate() const { return baudRate_; }
  SerialParity getParity() const { return parity_; }
  SerialPortType getPortType() const { return portType_; }
  // As described; the driver does not use it.
  uint32_t getStopBits() const { return stopBits_; }

  // For phys that are built in code. A value that no standard has is reported by openPhy.
  void setPortType(SerialPortType portType) { portType_ = portType; }

 private:
  void prepareWorkingSettings();
  void selectLineStandard(int fd) const;

  std::string port_;
  SerialBaud baudRate_ = SerialBaud::k38400;
  SerialParity parity_ = SerialParity::kNone;
  SerialPortType portType_ = SerialPortType::kRS232;
  uint32_t stopBits_ = 1;
  termios savedSettings_{};    // as found at the latest open
  termios workingSettings_{};  // as applied at the latest open
};

}  // namespace valtor
