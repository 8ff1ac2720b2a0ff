#include <numeric>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/Vocabulary.h"
#include "valtor-bus/NumberRanges.h"
#include "valtor-bus/Recording.h"

namespace valtor::test {
namespace {

TEST(NumberRangesTest, NumbersAndRangesAsPeopleWriteThem) {
  using Numbers = std::vector<int32_t>;
  EXPECT_EQ(parseNumbers("", "9,2-4,3"), Numbers({9, 2, 3, 4, 3}));
  EXPECT_EQ(parseNumberSet("", "9,2-4,3"), Numbers({2, 3, 4, 9}));
  EXPECT_EQ(parseNumbers("", "2147483647-2147483647"), Numbers({2147483647}));
  EXPECT_EQ(parseNumbers("", "0-65535").size(), kMostNumbers);
  for (const char* wrong : {"", "1,", "-", "1-", "-1", "3-1", "1-2-3", "a", "1 ", " 1", "0x10",
                            "2147483648", "0-65536", "0-65535,1", "0-2147483647"}) {
    EXPECT_THROW(parseNumbers("--dest", wrong), CommandFailure) << wrong;
  }
}

TEST(JSONTextTest, NumbersKeepTheirSpellingAndWhatIsBrokenIsSeen) {
  EXPECT_EQ(compactJSON("{ \"a\" : [ 12345678901234567890123, 1.0e2,\n -0 ] }"),
            "{\"a\":[12345678901234567890123,1.0e2,-0]}");
  for (const std::string& broken :
       {std::string(100000, '['), std::string(), std::string("{}x"), std::string("[01]"),
        std::string("[\"\xff\"]"), std::string("[\"\xf0"), std::string(R"(["\udc00"])"),
        std::string(R"({"\udfff":1})"), std::string("[\"\xed\xa0\x80\"]")}) {
    EXPECT_FALSE(compactJSON(broken)) << broken;
  }
  EXPECT_EQ(compactJSON(R"(["\ud83d\ude00\ud7ff"])"), "[\"\xf0\x9f\x98\x80\xed\x9f\xbf\"]");
  EXPECT_EQ(printable("a\x1b[31m\nb\xc2\x9b\x7f\xffz"), "a [31m b\xc2\xa0 \xEF\xBF\xBDz");
  EXPECT_EQ(printable("\xee\"A"), "\xEF\xBF\xBD\"A") << "what follows a broken character stays";
}

TEST(RecordingTest, EveryByteSurvivesAndWhatIsNoMessageIsRefusedWithItsLine) {
  std::string payloads[] = {std::string(256, '\0'), std::string("text\0more", 9)};
  std::iota(payloads[0].begin(), payloads[0].end(), '\0');
  const TemporaryFolder folder;
  const std::string path = folder.at("file");
  RecordingWriter writer(path, RecordingWriter::Existing::Keep);
  for (const std::string& payload : payloads) {
    writer.add({std::chrono::hours(100), payload});
  }
  const std::string good = fileContent(path);
  for (const char* wrong : {"{}", "x", "{\"offset\":1}", "{\"offset\":-1,\"payload\":\"a\"}",
                            "{\"offset\":1,\"hex\":\"4\"}", "{\"offset\":1,\"hex\":\"4g\"}"}) {
    RecordingReader reader(folder.write("file", good + wrong));
    for (const std::string& payload : payloads) {
      const auto read = reader.next();
      ASSERT_TRUE(read);
      EXPECT_EQ(read->payload, payload);
      EXPECT_EQ(read->offset, std::chrono::hours(100));
    }
    EXPECT_EQ(thrownBy([&] { reader.next(); }), path + ", line 4, is no recorded message");
  }
  EXPECT_THROW(RecordingReader(folder.write("other", "{\"offset\":0}\n")), CommandFailure);
  EXPECT_THROW(RecordingWriter(path, RecordingWriter::Existing::Keep), CommandFailure);
}

}  // namespace
}  // namespace valtor::test
