#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <syslog.h>
#include <termios.h>

#include "app/util/UniqueDescriptor.h"
#include "connections/phy/SerialPhy.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace {

// What a pseudo-terminal cannot show: it drops parity and has no modem-control lines. The calls
// below stand before the C library's, note what was asked for, and go on to it. One test at a time.
struct Asked {
  std::vector<tcflag_t> controlFlags;                     // of each tcsetattr
  std::vector<std::pair<unsigned long, int>> modemLines;  // request and bits
  int descriptor = -1;                                    // of the latest tcsetattr
  bool failSettings = false;                              // tcsetattr fails with EIO
  bool failFlush = false;                                 // tcflush fails with EIO
};
Asked asked;

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" {
int tcsetattr(int fd, int actions, const termios* settings) noexcept {
  asked.controlFlags.push_back(settings->c_cflag);
  asked.descriptor = fd;
  return asked.failSettings
             ? failWith(EIO)
             : next<int(int, int, const termios*)>("tcsetattr")(fd, actions, settings);
}

int tcflush(int fd, int queue) noexcept {
  return asked.failFlush ? failWith(EIO) : next<int(int, int)>("tcflush")(fd, queue);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == TIOCMBIS || request == TIOCMBIC) {
    asked.modemLines.emplace_back(request, *static_cast<const int*>(argument));
  }
  return next<int(int, unsigned long, ...)>("ioctl")(fd, request, argument);
}
}

namespace valtor {
namespace {

// A pseudo-terminal pair. The observer keeps the terminal's settings alive and readable while the
// phy opens and closes it.
class PseudoTerminal {
 public:
  PseudoTerminal() : far_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    char name[128] = "";
    if (grantpt(far_.get()) != 0 || unlockpt(far_.get()) != 0 ||
        ptsname_r(far_.get(), name, sizeof name) != 0) {
      throw std::runtime_error("no pseudo-terminal");
    }
    path_ = name;
    observer_.reset(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    asked = {};
  }

  const std::string& path() const { return path_; }
  termios settings() const {
    termios found{};
    EXPECT_EQ(tcgetattr(observer_.get(), &found), 0);
    return found;
  }
  void apply(const termios& settings) const {
    EXPECT_EQ(tcsetattr(observer_.get(), TCSANOW, &settings), 0);
    asked = {};
  }
  // Lets the far end send, and waits until there is something to read; before the open that is a
  // whole line.
  void receive(const std::string& bytes) const {
    EXPECT_EQ(write(far_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    pollfd readable{observer_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 30000), 1);
  }

 private:
  UniqueDescriptor far_;
  UniqueDescriptor observer_;
  std::string path_;
};

SerialPhy phyAt(const std::string& path, const std::string& members = "") {
  SerialPhy phy;
  const OwnedJSON item = parseJSON(R"({"type":"serial","port":")" + path + "\"" + members + "}");
  EXPECT_EQ(phy.loadFromJSON(item.get()), 0);
  return phy;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(SerialDriver, RunsTheLineRawAsDescribedWithOneStopBit) {
  struct Case {
    const char* members;
    speed_t speed;
    tcflag_t parity;
  };
  for (const Case& c : {Case{R"(,"baudRate":9600,"parity":"none")", B9600, 0},
                        Case{R"(,"baudRate":19200,"parity":"even")", B19200, PARENB},
                        Case{R"(,"parity":"odd")", B38400, PARENB | PARODD},
                        Case{R"(,"baudRate":57600,"parity":"space")", B57600, PARENB},
                        Case{R"(,"baudRate":115200,"stopBits":2)", B115200, 0},
                        Case{R"(,"baudRate":4800)", B115200, 0}}) {
    const PseudoTerminal terminal;
    termios before = terminal.settings();
    before.c_cflag = (before.c_cflag | CSTOPB | HUPCL) & ~static_cast<tcflag_t>(CLOCAL);
    before.c_cc[VMIN] = 9;
    before.c_cc[VTIME] = 9;
    terminal.apply(before);
    SerialPhy phy = phyAt(terminal.path(), c.members);
    const int fd = phy.openPhy();
    ASSERT_GE(fd, 0) << c.members;
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    ASSERT_EQ(asked.controlFlags.size(), 1U);
    EXPECT_EQ(asked.controlFlags[0], c.speed | CS8 | CREAD | CLOCAL | c.parity) << c.members;

    const termios found = terminal.settings();
    EXPECT_EQ(cfgetospeed(&found), c.speed) << c.members;
    EXPECT_EQ(found.c_cflag & (CSIZE | CSTOPB | CREAD | CLOCAL), tcflag_t{CS8 | CREAD | CLOCAL});
    EXPECT_EQ(found.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0U);
    EXPECT_EQ(found.c_iflag & (IXON | ICRNL | ISTRIP | BRKINT), 0U);
    EXPECT_EQ(found.c_oflag & OPOST, 0U);
    EXPECT_EQ(found.c_cc[VMIN], 1);
    EXPECT_EQ(found.c_cc[VTIME], 0);
    phy.closePhy(fd);
  }
}

TEST(SerialDriver, DropsWhatWaitedBeforeTheOpenAndPassesEveryByteAfterIt) {
  const PseudoTerminal terminal;
  terminal.receive("stale\n");
  SerialPhy phy = phyAt(terminal.path());
  const int fd = phy.openPhy();
  ASSERT_GE(fd, 0);
  const std::string sent("\r\x03\x04\x00\xff", 5);
  terminal.receive(sent);
  std::string read;
  while (read.size() < sent.size()) {
    char buffer[16];
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    ASSERT_GT(count, 0);
    read.append(buffer, static_cast<std::size_t>(count));
  }
  EXPECT_EQ(read, sent);
  phy.closePhy(fd);
}

TEST(SerialDriver, CloseRestoresTheSettingsFoundAtTheOpen) {
  const PseudoTerminal terminal;
  termios before = terminal.settings();
  cfsetspeed(&before, B1200);
  before.c_cc[VMIN] = 5;
  before.c_iflag |= IXOFF;
  terminal.apply(before);
  before = terminal.settings();

  SerialPhy phy = phyAt(terminal.path());
  const test::LogCapture log;
  const test::ConsoleCapture console;
  const int fd = phy.openPhy();
  ASSERT_GE(fd, 0);
  ASSERT_NE(terminal.settings().c_lflag, before.c_lflag);
  phy.closePhy(fd);

  const termios after = terminal.settings();
  EXPECT_EQ(after.c_iflag, before.c_iflag);
  EXPECT_EQ(after.c_oflag, before.c_oflag);
  EXPECT_EQ(after.c_cflag, before.c_cflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_EQ(std::memcmp(after.c_cc, before.c_cc, sizeof after.c_cc), 0);
  EXPECT_FALSE(isOpen(fd));
  const std::string number = std::to_string(fd);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.count(LOG_DEBUG, "virtual int SerialPhy::openPhy(): open(" + terminal.path() +
                                     ") return fd=" + number + " ...\n"),
            1);
  EXPECT_EQ(log.count(LOG_INFO, "Serial Phy(" + terminal.path() +
                                    ") opened successfully. fd=" + number + " ******\n"),
            1);
  EXPECT_EQ(console.text(), "virtual void SerialPhy::closePhy(int)\n");
}

TEST(SerialDriver, SwitchesTheLineStandard) {
  using Lines = std::vector<std::pair<unsigned long, int>>;
  struct Case {
    SerialPortType portType;
    Lines lines;
    int complaints;
  };
  for (const Case& c : {Case{SerialPortType::kRS232, {{TIOCMBIS, 0x2000}}, 0},
                        Case{SerialPortType::kRS422, {{TIOCMBIC, 0x2000}}, 0},
                        Case{SerialPortType::kRS485, {{TIOCMBIC, 0x2000}}, 0},
                        Case{static_cast<SerialPortType>(3), {}, 1}}) {
    const PseudoTerminal terminal;
    SerialPhy phy = phyAt(terminal.path());
    phy.setPortType(c.portType);
    const test::LogCapture log;
    const int fd = phy.openPhy();
    EXPECT_GE(fd, 0);
    EXPECT_EQ(asked.modemLines, c.lines);
    EXPECT_EQ(log.count(LOG_ERR, "invalid serial mode 3"), c.complaints);
    phy.closePhy(fd);
  }
}

TEST(SerialDriver, AFailureAfterTheOpenClosesTheDevice) {
  const std::string reason = std::strerror(EIO);
  for (const bool settings : {true, false}) {
    const PseudoTerminal terminal;
    SerialPhy phy = phyAt(terminal.path());
    (settings ? asked.failSettings : asked.failFlush) = true;
    const test::LogCapture log;
    EXPECT_EQ(phy.openPhy(), -1);
    EXPECT_EQ(log.count(LOG_CRIT, std::string(settings ? "tcsetattr" : "tcflush") +
                                      "() failed, !!! ...... " + reason + "\n"),
              1);
    EXPECT_EQ(log.lines().size(), 2U);  // the other is that of the open
    EXPECT_GE(asked.descriptor, 0);
    EXPECT_FALSE(isOpen(asked.descriptor));
  }
}

TEST(SerialDriver, WhatIsNoTerminalIsReportedAndClosed) {
  const test::TemporaryFolder folder;
  asked = {};
  SerialPhy phy = phyAt(folder.write("file", "text"));
  const test::LogCapture log;
  EXPECT_EQ(phy.openPhy(), -1);
  EXPECT_EQ(log.count(LOG_CRIT, "tcsetattr() failed, !!! ...... Inappropriate ioctl for device\n"),
            1);
  EXPECT_FALSE(isOpen(asked.descriptor));

  const std::string missing = folder.at("missing");
  SerialPhy absent = phyAt(missing);
  EXPECT_EQ(absent.openPhy(), -1);
  EXPECT_EQ(log.count(LOG_CRIT, "CANNOT open " + missing + ", No such file or directory\n"), 1);
  EXPECT_EQ(log.countContaining("missing"), 1);
  EXPECT_EQ(log.countContaining("opened successfully"), 0);
}

TEST(SerialDriver, CloseGoesOnWhenTheSettingsCannotBeRestored) {
  const PseudoTerminal terminal;
  SerialPhy phy = phyAt(terminal.path());
  const int fd = phy.openPhy();
  ASSERT_GE(fd, 0);
  asked.failSettings = true;
  const test::LogCapture log;
  phy.closePhy(fd);
  EXPECT_EQ(log.count(LOG_CRIT,
                      std::string("tcsetattr() failed, !!! ...... ") + std::strerror(EIO) + "\n"),
            1);
  EXPECT_FALSE(isOpen(fd));
}

TEST(SerialDriver, ClosingNothingDoesNothing) {
  asked = {};
  const bool inputWasOpen = isOpen(0);
  const test::ConsoleCapture console;
  SerialPhy phy;
  phy.closePhy(0);
  phy.closePhy(-1);
  EXPECT_EQ(isOpen(0), inputWasOpen);
  EXPECT_TRUE(asked.controlFlags.empty());
  EXPECT_EQ(console.text(), "");
}

}  // namespace
}  // namespace valtor
