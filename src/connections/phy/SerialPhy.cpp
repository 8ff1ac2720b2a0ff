#include "connections/phy/SerialPhy.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <syslog.h>

#include "app/util/ErrnoText.h"
#include "app/util/UniqueDescriptor.h"

namespace valtor {

namespace {

// Modem-control bit "user output 1", from Linux asm-generic/termios.h. glibc's headers leave it out
// and the kernel's header cannot be included beside <termios.h>.
constexpr int kModemOutput1 = 0x2000;  // TIOCM_OUT1

struct BaudEntry {
  int baud;
  speed_t code;
};

// By SerialBaud.
constexpr std::array<BaudEntry, 5> kBauds = {
    {{9600, B9600}, {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200}}};
// By SerialParity and by SerialPortType.
constexpr std::array<const char*, 3> kParityNames = {"none", "odd", "even"};
constexpr std::array<const char*, 3> kPortTypeNames = {"RS-232", "RS-422", "RS-485"};

SerialBaud baudFromNumber(int baud) {
  for (std::size_t index = 0; index < kBauds.size(); ++index) {
    if (kBauds[index].baud == baud) {
      return static_cast<SerialBaud>(index);
    }
  }
  return SerialBaud::kUnsupported;
}

// Null for an index without a speed of its own.
const BaudEntry* baudEntry(SerialBaud baud) {
  const auto index = static_cast<std::size_t>(baud);
  return index < kBauds.size() ? &kBauds[index] : nullptr;
}

// The place of a text in a table of names, or the fallback.
template <class Enum>
Enum fromName(const std::array<const char*, 3>& names, const char* text, Enum fallback) {
  for (std::size_t index = 0; index < names.size(); ++index) {
    if (std::strcmp(names[index], text) == 0) {
      return static_cast<Enum>(index);
    }
  }
  return fallback;
}

// The name of a value; values outside the table have the first one.
template <class Enum>
const char* nameOf(const std::array<const char*, 3>& names, Enum value) {
  const auto index = static_cast<std::size_t>(value);
  return index < names.size() ? names[index] : names[0];
}

}  // namespace

SerialPhy::SerialPhy() : ConnectionPointPhy(PhyTypeNames[kSerialPhy]) {}

int SerialPhy::loadFromJSON(const cJSON* item) {
  if (stringMember(item, "type") == nullptr) {
    syslog(LOG_WARNING, "SerialPhy::loadFromJSON - type not specified.\n");
    return -1;
  }
  if (ConnectionPointPhy::loadFromJSON(item) != 0) {
    return -1;
  }
  if (const char* port = stringMember(item, "port"); port != nullptr) {
    port_ = port;
  }
  if (const char* portType = stringMember(item, "portType"); portType != nullptr) {
    portType_ = fromName(kPortTypeNames, portType, SerialPortType::kRS232);
  }
  if (const cJSON* stopBits = cJSON_GetObjectItem(item, "stopBits"); stopBits != nullptr) {
    stopBits_ = static_cast<uint32_t>(stopBits->valueint);
  }
  if (const cJSON* baudRate = cJSON_GetObjectItem(item, "baudRate"); baudRate != nullptr) {
    baudRate_ = baudFromNumber(baudRate->valueint);
  }
  if (const char* parity = stringMember(item, "parity"); parity != nullptr) {
    parity_ = fromName(kParityNames, parity, SerialParity::kEven);
  }
  return 0;
}

JSONPtr SerialPhy::toJSON() const {
  JSONPtr object = ConnectionPointPhy::toJSON();
  const BaudEntry* entry = baudEntry(baudRate_);
  cJSON_AddStringToObject(object.get(), "port", port_.c_str());
  cJSON_AddStringToObject(object.get(), "portType", nameOf(kPortTypeNames, portType_));
  cJSON_AddNumberToObject(object.get(), "stopBits", stopBits_);
  cJSON_AddNumberToObject(object.get(), "baudRate", entry != nullptr ? entry->baud : 0);
  cJSON_AddStringToObject(object.get(), "parity", nameOf(kParityNames, parity_));
  return object;
}

bool SerialPhy::isEqual(const ConnectionPointPhy* other) const {
  const auto* serial = dynamic_cast<const SerialPhy*>(other);
  return serial != nullptr && ConnectionPointPhy::isEqual(other) && port_ == serial->port_ &&
         baudRate_ == serial->baudRate_ && parity_ == serial->parity_ &&
         portType_ == serial->portType_ && stopBits_ == serial->stopBits_;
}

int SerialPhy::openPhy() {
  UniqueDescriptor device(::open(port_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!device.valid()) {
    syslog(LOG_CRIT, "CANNOT open %s, %s\n", port_.c_str(), errnoText(errno).c_str());
    return -1;
  }
  syslog(LOG_DEBUG, "%s: open(%s) return fd=%d ...\n", "virtual int SerialPhy::openPhy()",
         port_.c_str(), device.get());
  // What is no terminal fails here too, and is reported when the settings are applied.
  tcgetattr(device.get(), &savedSettings_);
  tcgetattr(device.get(), &workingSettings_);
  prepareWorkingSettings();
  if (tcsetattr(device.get(), TCSANOW, &workingSettings_) != 0) {
    syslog(LOG_CRIT, "tcsetattr() failed, !!! ...... %s\n", errnoText(errno).c_str());
    return -1;
  }
  selectLineStandard(device.get());
  if (tcflush(device.get(), TCIFLUSH) != 0) {
    syslog(LOG_CRIT, "tcflush() failed, !!! ...... %s\n", errnoText(errno).c_str());
    return -1;
  }
  syslog(LOG_INFO, "Serial Phy(%s) opened successfully. fd=%d ******\n", port_.c_str(),
         device.get());
  return device.release();
}

// Raw mode, the described line, and reads that wait for one byte and then take what is there.
void SerialPhy::prepareWorkingSettings() {
  const BaudEntry* entry = baudEntry(baudRate_);
  const speed_t speed = entry != nullptr ? entry->code : B115200;
  cfmakeraw(&workingSettings_);
  workingSettings_.c_cflag = CS8 | CREAD | CLOCAL;
  // Sets the code in the control flags as well as the two speed fields beside them.
  cfsetspeed(&workingSettings_, speed);
  if (parity_ == SerialParity::kOdd) {
    workingSettings_.c_cflag |= PARENB | PARODD;
  } else if (parity_ == SerialParity::kEven) {
    workingSettings_.c_cflag |= PARENB;
  }
  workingSettings_.c_cc[VMIN] = 1;
  workingSettings_.c_cc[VTIME] = 0;
}

// The transceiver is switched by a modem-control output: set for RS-232, clear for the two
// differential standards. Devices without modem-control lines refuse; they have nothing to switch.
void SerialPhy::selectLineStandard(int fd) const {
  const int bits = kModemOutput1;
  switch (portType_) {
    case SerialPortType::kRS232:
      ::ioctl(fd, TIOCMBIS, &bits);
      break;
    case SerialPortType::kRS422:
    case SerialPortType::kRS485:
      ::ioctl(fd, TIOCMBIC, &bits);
      break;
    default:
      syslog(LOG_ERR, "invalid serial mode %d", static_cast<int>(portType_));
      break;
  }
}

void SerialPhy::closePhy(int fd) {
  if (fd <= 0) {
    return;
  }
  const UniqueDescriptor device(fd);
  if (tcsetattr(fd, TCSANOW, &savedSettings_) != 0) {
    syslog(LOG_CRIT, "tcsetattr() failed, !!! ...... %s\n", errnoText(errno).c_str());
  }
  std::printf("virtual void SerialPhy::closePhy(int)\n");
}

}  // namespace valtor
