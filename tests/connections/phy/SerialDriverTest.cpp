#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <pty.h>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <tuple>

#include "connections/phy/SerialPhy.h"
#include "support/Vocabulary.h"

namespace {

// What a pseudo-terminal cannot show: it drops parity and has no modem-control lines. The calls
// below stand before the C library's, note what was asked for, and go on to it. One test at a time.
struct Asked {
  termios settings{};  // of the latest tcsetattr, like the descriptor
  int descriptor = -1;
  std::pair<unsigned long, int> modemLines;  // of their latest change: request and bits
  std::string_view failing;                  // the call of this name fails with EIO
};
Asked asked;

template <class Function, class... Arguments>
int pass(const char* name, Arguments... arguments) {
  errno = EIO;
  const auto real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  return asked.failing == name ? -1 : real(arguments...);
}

}  // namespace

extern "C" {
int tcsetattr(int fd, int actions, const termios* settings) noexcept {
  asked.settings = *settings;
  asked.descriptor = fd;
  return pass<int(int, int, const termios*)>("tcsetattr", fd, actions, settings);
}

int tcflush(int fd, int queue) noexcept { return pass<int(int, int)>("tcflush", fd, queue); }

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == TIOCMBIS || request == TIOCMBIC) {
    asked.modemLines = {request, *static_cast<const int*>(argument)};
  }
  return pass<int(int, unsigned long, ...)>("ioctl", fd, request, argument);
}
}

namespace valtor {
namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// With a pseudo-terminal pair, whose observer keeps the terminal's settings alive while the phy
// opens and closes it.
class SerialDriver : public testing::Test {
 protected:
  void SetUp() override {
    int far = -1;
    int observer = -1;
    ASSERT_EQ(openpty(&far, &observer, path_, nullptr, nullptr), 0);
    far_.reset(far);
    observer_.reset(observer);
    asked = {};
    EXPECT_EQ(load(""), 0);
  }
  // Describes the line to the phy, with these members besides its device.
  int load(const std::string& members) {
    const std::string start = R"({"type":"serial","port":")";
    return phy_.loadFromJSON(parseJSON(start + path_ + "\"" + members + "}").get());
  }

  const test::LogCapture log_;
  SerialPhy phy_;
  UniqueDescriptor far_;
  UniqueDescriptor observer_;
  char path_[128] = "";
};

TEST_F(SerialDriver, RunsTheLineRawAsDescribedWithOneStopBitAndRestoresIt) {
  const std::tuple<const char*, speed_t, tcflag_t, unsigned long> cases[] = {
      {"", B38400, 0, TIOCMBIS},
      {R"(,"baudRate":9600,"parity":"even","portType":"RS-422")", B9600, PARENB, TIOCMBIC},
      {R"(,"baudRate":19200,"parity":"odd","portType":"RS-485")", B19200, PARENB | PARODD,
       TIOCMBIC},
      {R"(,"baudRate":57600,"parity":"none","portType":"RS-232")", B57600, 0, TIOCMBIS},
      {R"(,"baudRate":115200,"stopBits":2)", B115200, 0, TIOCMBIS},
      {R"(,"baudRate":4800)", B115200, 0, TIOCMBIS}};
  for (const auto& [members, speed, parity, modemLines] : cases) {
    SCOPED_TRACE(members);
    termios before{};
    ASSERT_EQ(tcgetattr(observer_.get(), &before), 0);
    cfsetspeed(&before, B1200);
    before.c_cflag |= CSTOPB;
    before.c_cc[VTIME] = 9;
    ASSERT_EQ(tcsetattr(observer_.get(), TCSANOW, &before), 0);
    ASSERT_EQ(tcgetattr(observer_.get(), &before), 0);
    ASSERT_EQ(load(members), 0);
    const int fd = phy_.openPhy();
    const termios& latest = asked.settings;
    EXPECT_EQ(latest.c_cflag, speed | CS8 | CREAD | CLOCAL | parity);
    EXPECT_EQ(cfgetospeed(&latest), speed);
    EXPECT_EQ(latest.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0U);
    EXPECT_EQ(latest.c_iflag & (IXON | ICRNL | ISTRIP | BRKINT), 0U);
    EXPECT_EQ(latest.c_oflag & OPOST, 0U);
    EXPECT_EQ(latest.c_cc[VMIN], 1);
    EXPECT_EQ(latest.c_cc[VTIME], 0);
    EXPECT_EQ(asked.modemLines, std::pair(modemLines, 0x2000));
    phy_.closePhy(fd);
    EXPECT_EQ(latest.c_cflag, before.c_cflag);
    EXPECT_EQ(latest.c_lflag, before.c_lflag);
    EXPECT_EQ(latest.c_cc[VTIME], 9);
  }
}

TEST_F(SerialDriver, FailuresAreLoggedAndCloseTheDevice) {
  phy_.setPortType(static_cast<SerialPortType>(3));
  phy_.closePhy(phy_.openPhy());
  EXPECT_EQ(log_.count(LOG_ERR, "invalid serial mode 3"), 1);
  asked.failing = "tcflush";
  EXPECT_EQ(phy_.openPhy(), -1);
  EXPECT_EQ(log_.count(LOG_CRIT, "tcflush() failed, !!! ...... Input/output error\n"), 1);
  EXPECT_FALSE(isOpen(asked.descriptor));

  asked.failing = "";
  const int fd = phy_.openPhy();
  asked.failing = "tcsetattr";
  phy_.closePhy(fd);
  EXPECT_FALSE(isOpen(fd));
  EXPECT_EQ(phy_.openPhy(), -1);
  EXPECT_FALSE(isOpen(asked.descriptor));
  EXPECT_EQ(log_.count(LOG_CRIT, "tcsetattr() failed, !!! ...... Input/output error\n"), 2);

  ASSERT_EQ(phy_.loadFromJSON(parseJSON(R"({"type":"serial","port":"/no/such"})").get()), 0);
  EXPECT_EQ(phy_.openPhy(), -1);
  EXPECT_EQ(log_.count(LOG_CRIT, "CANNOT open /no/such, No such file or directory\n"), 1);
}

}  // namespace
}  // namespace valtor
