#include "bus/message/PellInternalStreamParser.h"
#include "support/ScarceMemory.h"
#include "support/Vocabulary.h"

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

test::LogLine badLength(const std::string& detail) {
  return {LOG_CRIT, "PellInternalStreamParser " + detail + "\n"};
}

TEST(PellInternalStreamParser, ReadsOnAfterEveryBrokenFrame) {
  const test::LogLine noLine = {LOG_INFO, "PellInternalMessage Header not found:hello\n"};
  const test::LogLine badHeader = {
      LOG_ERR, "PellInternalStreamParser::handleCompleteMessage() Bad Header\n"};
  const struct {
    std::string bytes;
    std::vector<test::LogLine> lines;
  } cases[] = {
      {":", {badLength("invalid header length received=0.()")}},
      {"5 :", {badLength("invalid header length received=0.(5 )")}},
      {"ab\0cd:"s, {badLength("invalid header length received=0.(ab)")}},
      {std::string(63, 'x') + ":", {badLength("invalid header length received=0.(xxxxxxxxxx)")}},
      {"2147483648:", {badLength("invalid header length received=-2147483648.(2147483648)")}},
      {"20000001:", {badLength("length exceeds max header size=20000001.")}},
      {"99999999999999999999:", {badLength("length exceeds max header size=1661992959.")}},
      {std::string(61, 'x'), {}},  // two short of what the header holds
      {std::string(64, '1'), {}},
      {std::string(6400, 'x'), {}},
      {"1:x:", {{LOG_INFO, "PellInternalStreamParser invalid message footer:':'\n"}}},
      // A minus is no digit, and too many digits wrap around: both are frames of five bytes.
      {"-5:hello;", {noLine, badHeader}},
      {"4294967301:hello;", {noLine, badHeader}},
      {frame("[\"GET\",\"a\",-1,2]\n{}"), {badHeader}},
      {frame("[\"GET\",\"a\",1,\"-2@x\"]\n{}"), {badHeader}}};
  for (const auto& [bytes, lines] : cases) {
    const test::LogCapture log;
    Reader reader;
    reader.feed(kGoodFrame + bytes + kGoodFrame);
    EXPECT_EQ(reader.payloads, (std::vector<std::string>{kGood, kGood})) << bytes;
    EXPECT_EQ(log.lines(), lines) << bytes;
  }
}

TEST(PellInternalStreamParser, WhatFindsNoMemoryCostsNoOtherMessage) {
  const std::string path(3000, 'p');
  const std::string greedy = "[\"GET\", \"" + path + "\", 1, 2, 0]\n{}";
  std::string stream;
  for (int i = 0; i < 40; ++i) {
    stream += i == 20 ? frame(greedy) : kGoodFrame;
  }
  const struct {
    std::size_t least, most;
    std::size_t read;
  } cases[] = {{path.size(), path.size() + 1, 39},  // for its header
               {greedy.size() + 2, SIZE_MAX, 40}};  // for many at once
  for (const auto& [least, most, read] : cases) {
    PellInternalStreamParser parser;
    std::size_t count = 0;
    parser.setMessageCallback([&](const std::vector<PellInternalMessage>& messages) {
      for (const PellInternalMessage& message : messages) {
        count += message.bodyText() != nullptr ? 1 : 0;
      }
    });
    {
      const test::ScarceMemory scarce(least, most);
      parser.parse(stream.data(), stream.size() - 5);
    }
    parser.parse(stream.data() + stream.size() - 5, 5);
    EXPECT_EQ(count, read);
    EXPECT_EQ(parser.takeLost(), read < 40);
  }
}

TEST(PellInternalStreamParser, TheLongestPayloadIsRead) {
  const std::string header = "[\"GET\", \"a\", 1, 2, 0]\n";
  Reader reader;
  reader.feed("20000000:" + header + std::string(20'000'000 - header.size(), ' ') + ";");
  EXPECT_EQ(reader.batches, std::vector<std::size_t>{1});
}

}  // namespace
}  // namespace valtor
