#include <gtest/gtest.h>
#include <stdexcept>
#include <syslog.h>

#include "router/RouteOperation.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

template <class T>
std::string rendered(const T& object) {
  return printJSON(object.toJSON().get(), false);
}

template <class T>
int load(T& object, const std::string& text) {
  return object.loadFromJSON(parseJSON(text).get());
}

const std::vector<unsigned> kLevels = {0, 2};

TEST(RouteOperationTest, StatusRequestHoldsLevelsAndRangeOnly) {
  RouteOperation request;
  request.level = LevelMask(~std::uint64_t{0});
  request.hasDestRange = true;
  request.destRangeLast = 4095;
  std::string levels = "0";
  for (int level = 1; level < 64; ++level) {
    levels += "," + std::to_string(level);
  }
  EXPECT_EQ(rendered(request), "{\"level\":[" + levels + "],\"destRange\":[0,4095]}");
}

TEST(RouteOperationTest, ConstructorsFillWhatTheyName) {
  const LogCapture log;
  const LevelMask mask(kLevels);
  ProtectStatusItem lock;
  lock.status = ProtectStatusItem::kLock;
  lock.device = 4;
  EXPECT_EQ(rendered(RouteOperation(7, mask)), R"({"level":[0,2],"destination":[7]})");
  EXPECT_EQ(rendered(RouteOperation(7, mask, 9, true)),
            R"({"level":[0,2],"machineControl":true,"status":[[7,[9]]]})");
  EXPECT_EQ(rendered(RouteOperation(7, kLevels, {9, 8})),
            R"({"level":[0,2],"status":[[7,[9,8]]]})");
  EXPECT_EQ(rendered(RouteOperation(7, mask, lock)), R"({"level":[0,2],"protect":[[7,[[2,4]]]]})");
  EXPECT_TRUE(log.lines().empty());
}

TEST(RouteOperationTest, ListsOfDifferentLengthsAreReportedAndKept) {
  const LogCapture log;
  EXPECT_EQ(rendered(RouteOperation(7, kLevels, {9, 8, 6})),
            R"({"level":[0,2],"status":[[7,[9,8,6]]]})");
  EXPECT_EQ(
      log.count(LOG_WARNING, "RouteOperation parameter mismatch, num levels=2, num sources=3\n"),
      1);
}

TEST(RouteOperationTest, ProtectOfANegativeDestinationThrows) {
  try {
    const RouteOperation operation(-1, LevelMask(kLevels), ProtectStatusItem());
    FAIL() << rendered(operation);
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "destination < 0");
  }
}

TEST(RouteOperationTest, RequesterIsRendered) {
  RouteOperation operation(7, LevelMask(kLevels));
  operation.userID = 3;
  operation.sessionID = "s";
  EXPECT_EQ(rendered(operation), R"({"level":[0,2],"destination":[7],"sessionID":"s"})");
  operation.setUserID(0);
  EXPECT_EQ(rendered(operation), R"({"level":[0,2],"destination":[7],"userID":0,"sessionID":"s"})");
  RouteOperation loaded;
  EXPECT_EQ(load(loaded, rendered(operation)), 0);
  EXPECT_EQ(loaded.sessionID, "");
}

TEST(RouteOperationTest, LoadsWhatIsGoodAndSaysWhatIsNot) {
  const struct {
    const char* item;
    int result;
    const char* rendered;
  } cases[] = {
      {R"({"level":[1],"destRange":[3,3]})", 0, R"({"level":[1],"destRange":[3,3]})"},
      {R"({"level":[1],"destRange":[5,3]})", 0, R"({"level":[1]})"},
      {R"({"level":[1],"destRange":[-1,4]})", 0, R"({"level":[1]})"},
      {R"({"level":[1],"destRange":[1,4,5]})", 0, R"({"level":[1]})"},
      {R"({"level":[1],"destRange":[1]})", 0, R"({"level":[1]})"},
      {R"({"destination":[4,5],"destRange":"x"})", -1, R"({"destination":[4,5]})"},
      {R"({"level":[],"destination":[4]})", 0, R"({"destination":[4]})"},
      {R"({"level":"x","destination":[4]})", 0, R"({"destination":[4]})"},
      {R"({"level":[1],"machineControl":1})", 0, R"({"level":[1]})"},
      {R"({"level":[1],"machineControl":false})", 0, R"({"level":[1]})"},
      {R"({"level":[1],"status":[[7,[]]]})", -1, R"({"level":[1]})"},
      {R"({"level":[1],"status":[],"protect":[[1,[0]]]})", 0,
       R"({"level":[1],"protect":[[1,[0]]]})"},
      {R"({"level":[1],"status":[[1,[2]]],"protect":7,"userID":8})", -1,
       R"({"level":[1],"status":[[1,[2]]],"userID":8})"},
  };
  for (const auto& [item, result, expected] : cases) {
    RouteOperation operation;
    EXPECT_EQ(load(operation, item), result) << item;
    EXPECT_EQ(rendered(operation), expected) << item;
  }
}

TEST(RouteOperationTest, LoadAddsToWhatIsHeldAndTakesMachineControlAnew) {
  RouteOperation operation;
  EXPECT_EQ(load(operation, R"({"level":[1],"destination":[4],"machineControl":true})"), 0);
  EXPECT_EQ(load(operation, R"({"level":[2],"destination":[4]})"), 0);
  EXPECT_EQ(rendered(operation), R"({"level":[1,2],"destination":[4,4]})");
}

TEST(RouteOperationTest, LevelsOutsideTheRangeAreCountedInOneWarning) {
  const LogCapture log;
  RouteOperation operation;
  EXPECT_EQ(load(operation, R"({"level":[-1,3,65536]})"), 0);
  EXPECT_EQ(rendered(operation), R"({"level":[3]})");
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.countContaining(" 2 levels outside "), 1);
}

TEST(RouteOperationTest, ListLoadsWholeOrThrows) {
  const std::vector<RouteOperation> operations = RouteOperation::loadList(
      parseJSON(R"([{"level":[1]},{"level":[2],"destination":[1]}])").get());
  ASSERT_EQ(operations.size(), 2U);
  EXPECT_EQ(rendered(operations[1]), R"({"level":[2],"destination":[1]})");
  EXPECT_TRUE(RouteOperation::loadList(nullptr).empty());
  try {
    RouteOperation::loadList(parseJSON(R"([{"level":[1]},{}])").get());
    FAIL() << "the second has no level";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "RouteOperation load error");
  }
}

TEST(RouteOperationStatusTest, AppendsWhatHasADestinationAndASource) {
  RouteOperationStatus status;
  EXPECT_EQ(load(status, R"([[1,[2]],[7,[]],[8],[],{"a":3,"b":[4]},5,[9,6],[-1,["x"]]])"), 0);
  EXPECT_EQ(rendered(status), "[[1,[2]],[4294967295,[0]]]");
  EXPECT_EQ(load(status, "[[1,[2]]]"), 0);
  EXPECT_EQ(rendered(status), "[[1,[2]],[4294967295,[0]],[1,[2]]]");
  EXPECT_EQ(load(status, "[[7,[]]]"), -1);
}

TEST(ProtectStatusItemTest, RefusesWhatIsNoStatus) {
  const struct {
    const char* item;
    const char* rendered;
  } cases[] = {{"5", "[1,12]"},
               {"[1]", "[1,12]"},
               {"[2,1,1]", "[1,12]"},
               {R"({"a":2,"b":1})", "[1,12]"},
               {"[3,12]", "0"}};
  for (const auto& [text, expected] : cases) {
    ProtectStatusItem item;
    ASSERT_EQ(load(item, "[1,12]"), 0);
    EXPECT_EQ(load(item, text), -1) << text;
    EXPECT_EQ(rendered(item), expected) << text;
    EXPECT_EQ(item.device, item.status == 0 ? 0 : 12) << text;
  }
}

TEST(ProtectStatusArrayTest, StoresByDestination) {
  ProtectStatusArray array;
  EXPECT_EQ(load(array, R"([[30,[0]],[10,[[9,9]]],[5,[]],[6],[],7,[2,{"a":0}]])"), 0);
  EXPECT_EQ(rendered(array), "[[10,[0]],[30,[0]]]");
  EXPECT_EQ(load(array, "[[10,[[1,1],0]]]"), 0);
  EXPECT_EQ(load(array, "[[10,[[2,2]]]]"), 0);
  EXPECT_EQ(rendered(array), "[[10,[[2,2]]],[30,[0]]]");
  EXPECT_EQ(load(array, "[[10,[]]]"), -1);
  EXPECT_EQ(load(array, "[[-1,[0]]]"), 0);
  EXPECT_EQ(rendered(array), "[[4294967295,[0]],[10,[[2,2]]],[30,[0]]]");
}

// Walked by index, such arrays would take hours.
TEST(RouteOperationTest, MillionElementsLoadAndRender) {
  std::string numbers = "7";
  std::string status = "[1,[2]]";
  for (int count = 1; count < 1000000; ++count) {
    numbers += ",7";
    status += ",[1,[2]]";
  }
  const std::string text =
      "{\"level\":[7],\"status\":[" + status + "],\"protect\":[[1,[" + numbers + "]]]}";
  RouteOperation operation;
  EXPECT_EQ(load(operation, text), 0);
  EXPECT_EQ(operation.status.entries.size(), 1000000U);
  EXPECT_EQ(operation.protect.items[1].size(), 1000000U);
  EXPECT_GT(rendered(operation).size(), 8000000U);
  EXPECT_EQ(load(operation, "{\"destination\":[" + numbers + "]}"), -1);
  EXPECT_EQ(operation.destination.size(), 1000000U);
}

}  // namespace
}  // namespace valtor::test
