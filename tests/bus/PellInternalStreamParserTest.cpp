#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <string>
#include <syslog.h>
#include <vector>

#include "bus/PellInternalStreamParser.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace {

// Makes the next allocations of the kind that the parser uses for a payload fail.
std::atomic<bool> refuseBuffers{false};

}  // namespace

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  if (refuseBuffers) {
    return nullptr;
  }
  try {
    return ::operator new[](size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace valtor {
namespace {

using namespace std::string_literals;

// A parser that keeps what it hands on.
class Reader {
 public:
  Reader() {
    parser_.setMessageCallback([this](std::vector<PellInternalMessage> messages) {
      batches.push_back(messages.size());
      for (const PellInternalMessage& message : messages) {
        payloads.push_back(message.encode());
      }
    });
  }
  void feed(const std::string& bytes) { EXPECT_EQ(parser_.parse(bytes.data(), bytes.size()), 0); }
  PellInternalStreamParser& parser() { return parser_; }

  std::vector<std::string> payloads;
  std::vector<std::size_t> batches;

 private:
  PellInternalStreamParser parser_;
};

const std::string kGood = "[\"GET\", \"good\", 1, 2, 0]\n{\"id\":\"g\"}";
const std::string kGoodFrame = "35:" + kGood + ";";

// Messages whose payloads hold separators, footers, digits and every other byte but NUL.
std::vector<std::string> oddPayloads() {
  std::string everyByte;
  for (int byte = 1; byte < 256; ++byte) {
    everyByte += static_cast<char>(byte);
  }
  return {kGood, "[\"ACK\", \"\", 0, 7, 0]\n", "[\"SET\", \"a;b:7:\", 490, 101, 0]\n;;12:;:",
          "[\"NOT\", \"mv\", 3, 0, 0]\n" + everyByte};
}

std::string framed(const std::vector<std::string>& payloads) {
  std::string stream;
  for (const std::string& payload : payloads) {
    stream += frame(payload);
  }
  return stream;
}

TEST(Frame, IsLengthInBytesSeparatorPayloadFooter) {
  EXPECT_EQ(frame(kGood), kGoodFrame);
  EXPECT_EQ(frame("\0\xc3\xa9;"s), "4:\0\xc3\xa9;;"s);
  EXPECT_EQ(frame(""), "0:;");
}

TEST(PellInternalStreamParser, EverySplitOfAStreamGivesTheSameMessages) {
  const std::string stream = framed(oddPayloads());
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    Reader reader;
    reader.feed(stream.substr(0, cut));
    reader.feed(stream.substr(cut));
    ASSERT_EQ(reader.payloads, oddPayloads()) << "cut at " << cut;
  }
}

TEST(PellInternalStreamParser, SingleBytesAndRandomChunksGiveTheSameMessages) {
  const std::string stream = framed(oddPayloads());
  Reader single;
  for (const char byte : stream) {
    single.feed(std::string(1, byte));
  }
  EXPECT_EQ(single.payloads, oddPayloads());
  EXPECT_EQ(single.batches, (std::vector<std::size_t>{1, 1, 1, 1}));

  std::mt19937 random(20261125);
  for (int round = 0; round < 300; ++round) {
    Reader reader;
    for (std::size_t done = 0; done < stream.size();) {
      const std::size_t size = std::min<std::size_t>(random() % 60, stream.size() - done);
      reader.feed(stream.substr(done, size));
      done += size;
    }
    ASSERT_EQ(reader.payloads, oddPayloads()) << "round " << round;
  }
}

TEST(PellInternalStreamParser, OneCallbackPerCallThatFinishesAFrame) {
  Reader reader;
  reader.feed(kGoodFrame + kGoodFrame + kGoodFrame.substr(0, 10));
  EXPECT_EQ(reader.batches, (std::vector<std::size_t>{2}));
  reader.feed(kGoodFrame.substr(10, 5));
  EXPECT_EQ(reader.batches.size(), 1U);
  reader.feed(kGoodFrame.substr(15));
  EXPECT_EQ(reader.batches, (std::vector<std::size_t>{2, 1}));
}

struct Broken {
  std::string bytes;
  std::vector<test::LogLine> lines;
  std::string console;
};

const std::string kBadHeader = "PellInternalStreamParser::handleCompleteMessage() Bad Header\n";

// What a length of zero or less leaves in the log and on the console.
Broken invalidLength(const std::string& bytes, const std::string& number,
                     const std::string& shown) {
  const std::string start = "PellInternalStreamParser invalid header length received=" + number;
  return {bytes, {{LOG_CRIT, start + ".(" + shown + ")\n"}}, start + ". (" + shown + ")\n"};
}

Broken tooLong(const std::string& bytes, const std::string& number) {
  const std::string text =
      "PellInternalStreamParser length exceeds max header size=" + number + ".\n";
  return {bytes, {{LOG_CRIT, text}}, text};
}

// A whole frame whose header line does not decode.
Broken badHeader(const std::string& line) {
  return {
      frame(line + "\n{}"),
      {{LOG_INFO, "PellInternalMessage header decode error:" + line + "\n"}, {LOG_ERR, kBadHeader}},
      ""};
}

std::vector<Broken> brokenFrames() {
  return {
      invalidLength("0:", "0", "0"),
      invalidLength("000:", "0", "000"),
      invalidLength(":", "0", ""),
      invalidLength("5 :", "0", "5 "),
      invalidLength("abcdefghijklmnop:", "0", "abcdefghij"),
      invalidLength("ab\0cd:"s, "0", "ab"),
      invalidLength(std::string(63, 'x') + ":", "0", "xxxxxxxxxx"),
      invalidLength("4294967295:", "-1", "4294967295"),
      invalidLength("2147483648:", "-2147483648", "2147483648"),
      tooLong("20000001:", "20000001"),
      tooLong("2147483647:", "2147483647"),
      tooLong("99999999999999999999:", "1661992959"),
      {std::string(64, '1'), {}, ""},
      {std::string(6400, 'x'), {}, ""},
      {"5:hello,", {{LOG_INFO, "PellInternalStreamParser invalid message footer:','\n"}}, ""},
      {"1:x:", {{LOG_INFO, "PellInternalStreamParser invalid message footer:':'\n"}}, ""},
      // A minus is no digit, and too many digits wrap around: both are frames of five bytes.
      {"-5:hello;",
       {{LOG_INFO, "PellInternalMessage Header not found:hello\n"}, {LOG_ERR, kBadHeader}},
       ""},
      {"4294967301:hello;",
       {{LOG_INFO, "PellInternalMessage Header not found:hello\n"}, {LOG_ERR, kBadHeader}},
       ""},
      {"5:\0\n[]x;"s,
       {{LOG_INFO, "PellInternalMessage Header not found:\n"}, {LOG_ERR, kBadHeader}},
       ""},
      badHeader("[\"get\",\"a\",1,2]"),
      badHeader("[\"GET\",5,1,2]"),
      badHeader("[\"GET\",\"a\",1]"),
      badHeader("{}"),
      badHeader(""),
      {frame("[\"GET\",\"a\",-1,2]\n{}"), {{LOG_ERR, kBadHeader}}, ""},
      {frame("[\"GET\",\"a\",1,\"-2@x\"]\n{}"), {{LOG_ERR, kBadHeader}}, ""},
  };
}

TEST(PellInternalStreamParser, ReadsOnAfterEveryBrokenFrame) {
  for (const Broken& broken : brokenFrames()) {
    SCOPED_TRACE(testing::PrintToString(broken.bytes));
    const test::LogCapture log;
    const test::ConsoleCapture console;
    Reader reader;
    reader.feed(kGoodFrame + broken.bytes + kGoodFrame);
    EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood, kGood}));
    EXPECT_EQ(console.text(), broken.console);
    ASSERT_EQ(log.lines().size(), broken.lines.size());
    for (std::size_t i = 0; i < broken.lines.size(); ++i) {
      EXPECT_EQ(log.lines()[i].priority, broken.lines[i].priority);
      EXPECT_EQ(log.lines()[i].text, broken.lines[i].text);
    }
  }
}

TEST(PellInternalStreamParser, BytesBeforeTheDigitsAreIgnoredUpToTheSizeOfTheHeader) {
  Reader reader;
  reader.feed("x" + kGoodFrame);
  reader.feed(std::string(61, 'x') + kGoodFrame);  // 63 bytes before the separator
  EXPECT_EQ(reader.payloads.size(), 2U);
  reader.feed(std::string(62, 'x') + kGoodFrame);  // the 64th drops the digits with the rest
  EXPECT_EQ(reader.payloads.size(), 2U);
}

TEST(PellInternalStreamParser, StreamCutAnywhereIsReadAgainSoonAfter) {
  constexpr std::size_t kFollowing = 100;
  std::string following;
  for (std::size_t i = 0; i < kFollowing; ++i) {
    following += kGoodFrame;
  }
  for (std::size_t length = 0; length < kGoodFrame.size(); ++length) {
    const test::LogCapture log;
    const test::ConsoleCapture console;
    Reader cut;
    cut.feed(kGoodFrame.substr(0, length) + following);
    // Digits without their separator join the next ones: "3535:" swallows 3535 bytes.
    const std::size_t lostAtMost = length == 1 || length == 2 ? 92 : 1;
    EXPECT_GE(cut.payloads.size(), kFollowing - lostAtMost) << length;

    Reader forgotten;
    forgotten.feed(kGoodFrame.substr(0, length));
    forgotten.parser().reset();
    forgotten.feed(kGoodFrame);
    EXPECT_EQ(forgotten.payloads, (std::vector<std::string>{kGood})) << length;
  }
}

TEST(PellInternalStreamParser, NulEndsThePayloadsText) {
  Reader reader;
  reader.feed(frame("[\"GET\", \"a\", 1, 2, 0]\n{\"id\0\":1}"s) + kGoodFrame);
  EXPECT_EQ(reader.payloads, (std::vector<std::string>{"[\"GET\", \"a\", 1, 2, 0]\n{\"id", kGood}));
}

TEST(PellInternalStreamParser, NullDataIsReportedAndConsumesNothing) {
  const test::LogCapture log;
  Reader reader;
  reader.feed(kGoodFrame.substr(0, 20));
  EXPECT_EQ(reader.parser().parse(nullptr, 100), 0);
  EXPECT_EQ(log.count(LOG_ERR, "PellInternalStreamParser - null data receive. \n"), 1);
  reader.feed(kGoodFrame.substr(20));
  EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood}));
}

TEST(PellInternalStreamParser, LongestPayloadIsReadWhole) {
  std::string payload = "[\"SET\", \"a\", 1, 2, 0]\n";
  payload.resize(20'000'000, 'x');
  Reader reader;
  reader.feed("20000000:" + payload + ";");
  ASSERT_EQ(reader.payloads.size(), 1U);
  EXPECT_TRUE(reader.payloads[0] == payload);
}

TEST(PellInternalStreamParser, HeaderLineThatIsHugeOrHidesANulIsRefused) {
  std::string huge = "[\"SET\",\"a\",1,2";
  for (int i = 0; i < 1'000'000; ++i) {
    huge += ",0";
  }
  for (const std::string& line : {huge + "]", std::string("[\"SET\",\"device\\u0000x\",1,2]")}) {
    const test::LogCapture log;
    Reader reader;
    reader.feed(frame(line + "\n{}") + kGoodFrame);
    EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood}));
    EXPECT_EQ(log.countContaining("PellInternalMessage header decode error:"), 1);
  }
}

TEST(PellInternalStreamParser, FrameWithoutMemoryIsSkippedWhole) {
  const test::LogCapture log;
  const test::ConsoleCapture console;
  Reader reader;
  refuseBuffers = true;
  reader.feed(kGoodFrame.substr(0, 20));
  refuseBuffers = false;
  reader.feed(kGoodFrame.substr(20) + kGoodFrame);
  EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood}));
  const std::string line = "PellInternalStreamParser FAILED to allocate buffer of size=36.\n";
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.count(LOG_CRIT, line), 1);
  EXPECT_EQ(console.text(), line);
}

}  // namespace
}  // namespace valtor
