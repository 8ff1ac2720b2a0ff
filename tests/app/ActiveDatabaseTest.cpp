#include "app/ActiveDatabase.h"
#include "bus/BusSupport.h"
#include "bus/ValtorInterfaceClient.h"
#include "support/BridgeSite.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

using Names = std::vector<std::string>;

// An interface client that is not connected, and the folders of the fixed paths. Without a router
// peer manager no connection point opens a link.
class ActiveDatabaseTest : public testing::Test {
 protected:
  ActiveDatabaseTest() { folder_.becomePathPrefix(); }

  // The connection points that the one new handler holds after loading.
  Names load() {
    ValtorInterfaceClient client("127.0.0.1", 1, "valtorRemote", false, paths().databaseDirectory);
    log_.clear();
    loadActiveDatabase(client);
    EXPECT_FALSE(client.hasNoHandlers());
    Names found;
    client.forEachHandler([&](IPellaInternalProtocolHandler& handler) {
      ResponseList responses;
      handler.handleMessage(test::received("[\"GET\", \"device\", 490, 0, 0]\n"
                                           R"({"id":"1","objectName":["connectionPoint"]})"),
                            responses);
      const cJSON* param = cJSON_GetObjectItem(responses.at(0)->getBody(), "param");
      const cJSON* entry = nullptr;
      cJSON_ArrayForEach(entry, arrayMember(param, "connectionPoint")) {
        found.emplace_back(stringMember(entry, "uniqueID"));
      }
    });
    return found;
  }

  test::LogCapture log_;
  test::TemporaryFolder folder_;
};

TEST_F(ActiveDatabaseTest, WithoutANameTheFileIsLookedForDirectlyInTheDatabaseFolder) {
  const std::string directory = paths().databaseDirectory;
  EXPECT_EQ(load(), Names());
  const std::string reason = "error while opening file: " + directory;
  EXPECT_EQ(log_.count(LOG_ERR, "Error loading active database: " + reason + "activeDatabase.json"),
            1);
  EXPECT_EQ(log_.count(LOG_ERR,
                       "Error loading DB connectionPoints: " + reason + "/connectionPoints.json\n"),
            1);
  std::ofstream(directory + "connectionPoints.json")
      << "{\"connectionPoint\":[" << test::routerEntry("top", "127.0.0.2", 1) << "]}";
  EXPECT_EQ(load(), Names{"top"});
}

TEST_F(ActiveDatabaseTest,
       BadEntriesAreLeftOutAndABrokenFileLeavesAManagerWithoutConnectionPoints) {
  test::writeActiveDatabase("17,null,{}," + test::routerEntry("portless", "127.0.0.2", 0) + "," +
                            test::routerEntry("good", "127.0.0.2", 1));
  ASSERT_EQ(load(), Names{"good"});
  const std::string path = paths().databaseDirectory + "main/connectionPoints.json";
  for (const auto& [content, reason] : std::initializer_list<std::pair<std::string, std::string>>{
           {"", "not JSON: "},
           {std::string("\x7f\0\xff{}", 5), "not JSON: "},
           {R"({"connectionPoint":[{"type":)", "not JSON: "},
           {std::string(1500, '[') + std::string(1500, ']'), "not JSON: "},
           {"[]", "not a JSON object: "},
           {R"({"connectionPoint":{}})", "no array \"connectionPoint\": "}}) {
    std::ofstream(path, std::ios::binary) << content;
    EXPECT_EQ(load(), Names()) << content;
    EXPECT_EQ(log_.count(LOG_ERR, "Error loading DB connectionPoints: " + reason + path + "\n"), 1)
        << content;
  }
}

}  // namespace
}  // namespace valtor
