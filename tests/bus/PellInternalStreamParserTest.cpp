#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <vector>

#include "bus/PellInternalStreamParser.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

using namespace std::string_literals;

// A parser that keeps what it hands on.
struct Reader {
  Reader() {
    parser.setMessageCallback([this](std::vector<PellInternalMessage> messages) {
      batches.push_back(messages.size());
      for (const PellInternalMessage& message : messages) {
        payloads.push_back(message.encode());
      }
    });
  }
  void feed(const std::string& bytes) { EXPECT_EQ(parser.parse(bytes.data(), bytes.size()), 0); }

  PellInternalStreamParser parser;
  std::vector<std::string> payloads;
  std::vector<std::size_t> batches;
};

const std::string kGood = "[\"GET\", \"good\", 1, 2, 0]\n{\"id\":\"g\"}";
const std::string kGoodFrame = "35:" + kGood + ";";

TEST(PellInternalStreamParser, EverySplitOfAStreamGivesTheSameMessages) {
  // Payloads that hold separators, footers, digits and every other byte but NUL.
  std::vector<std::string> payloads = {
      kGood, "[\"SET\", \"a;b:7:\", 490, 101, 0]\n;;12:;:", "[\"NOT\", \"mv\", 3, 0, 0]\n"};
  for (int byte = 1; byte < 256; ++byte) {
    payloads.back() += static_cast<char>(byte);
  }
  EXPECT_EQ(frame(kGood), kGoodFrame);
  const std::string stream = kGoodFrame + frame(payloads[1]) + frame(payloads[2]);
  Reader single;
  for (std::size_t cut = 0; cut < stream.size(); ++cut) {
    Reader reader;
    reader.feed(stream.substr(0, cut));
    reader.feed(stream.substr(cut));
    ASSERT_EQ(reader.payloads, payloads) << "cut at " << cut;
    single.feed(stream.substr(cut, 1));
  }
  EXPECT_EQ(single.payloads, payloads);
  single.feed(kGoodFrame + kGoodFrame + kGoodFrame.substr(0, 10));
  EXPECT_EQ(single.batches, (std::vector<std::size_t>{1, 1, 1, 2}));
}

struct Broken {
  std::string bytes;
  std::vector<test::LogLine> lines;
};

// A length that is not acceptable; what the log says about it.
Broken badLength(const std::string& bytes, const std::string& detail) {
  return {bytes, {{LOG_CRIT, "PellInternalStreamParser " + detail + "\n"}}};
}

const test::LogLine kNoLine = {LOG_INFO, "PellInternalMessage Header not found:hello\n"};
const test::LogLine kBadHeader = {LOG_ERR,
                                  "PellInternalStreamParser::handleCompleteMessage() Bad Header\n"};

TEST(PellInternalStreamParser, ReadsOnAfterEveryBrokenFrame) {
  const Broken cases[] = {
      badLength(":", "invalid header length received=0.()"),
      badLength("5 :", "invalid header length received=0.(5 )"),
      badLength("ab\0cd:"s, "invalid header length received=0.(ab)"),
      badLength(std::string(63, 'x') + ":", "invalid header length received=0.(xxxxxxxxxx)"),
      badLength("2147483648:", "invalid header length received=-2147483648.(2147483648)"),
      badLength("20000001:", "length exceeds max header size=20000001."),
      badLength("99999999999999999999:", "length exceeds max header size=1661992959."),
      {std::string(61, 'x'), {}},  // two short of what the header holds
      {std::string(64, '1'), {}},
      {std::string(6400, 'x'), {}},
      {"1:x:", {{LOG_INFO, "PellInternalStreamParser invalid message footer:':'\n"}}},
      // A minus is no digit, and too many digits wrap around: both are frames of five bytes.
      {"-5:hello;", {kNoLine, kBadHeader}},
      {"4294967301:hello;", {kNoLine, kBadHeader}},
      {frame("[\"GET\",\"a\",-1,2]\n{}"), {kBadHeader}},
      {frame("[\"GET\",\"a\",1,\"-2@x\"]\n{}"), {kBadHeader}}};
  for (const Broken& broken : cases) {
    SCOPED_TRACE(testing::PrintToString(broken.bytes));
    const test::LogCapture log;
    Reader reader;
    reader.feed(kGoodFrame + broken.bytes + kGoodFrame);
    EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood, kGood}));
    EXPECT_EQ(log.lines(), broken.lines);
  }
}

TEST(PellInternalStreamParser, StreamCutAnywhereIsReadAgainSoonAfter) {
  for (std::size_t length = 0; length < kGoodFrame.size(); ++length) {
    const test::LogCapture log;
    Reader reader;
    reader.feed(kGoodFrame.substr(0, length));
    for (int i = 0; i < 100; ++i) {
      reader.feed(kGoodFrame);
    }
    // Digits without their separator join the next ones: "3535:" swallows 3535 bytes.
    EXPECT_GE(reader.payloads.size(), length == 1 || length == 2 ? 8U : 99U) << length;
  }
}

}  // namespace
}  // namespace valtor
