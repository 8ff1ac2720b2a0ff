#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <vector>

#include "app/ActiveDatabase.h"
#include "app/util/OwnedJSON.h"
#include "app/util/Paths.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/MasterBus.h"
#include "support/BridgeSite.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

namespace fs = std::filesystem;

// An interface client that is not connected, and the folders of the fixed paths. Without a router
// peer manager no connection point opens a link.
class ActiveDatabaseTest : public testing::Test {
 protected:
  ActiveDatabaseTest() {
    folder_.becomePathPrefix();
    client_ = std::make_unique<ValtorInterfaceClient>("127.0.0.1", 1, "valtorRemote", false,
                                                      paths().databaseDirectory);
  }

  // Loads; the identifiers of the connection points that the one new handler holds.
  std::vector<std::string> load() {
    client_->removeAllHandlers();
    log_.clear();
    loadActiveDatabase(*client_);
    std::vector<std::string> found;
    int handlers = 0;
    client_->forEachHandler([&](IPellaInternalProtocolHandler& handler) {
      ++handlers;
      ResponseList responses;
      handler.handleMessage(test::received("[\"GET\", \"device\", 490, 0, 0]\n"
                                           "{\"id\":\"1\",\"objectName\":[\"connectionPoint\"]}"),
                            responses);
      const cJSON* param = cJSON_GetObjectItem(responses.at(0)->getBody(), "param");
      const cJSON* entry = nullptr;
      cJSON_ArrayForEach(entry, arrayMember(param, "connectionPoint")) {
        found.emplace_back(stringMember(entry, "uniqueID"));
      }
    });
    EXPECT_EQ(handlers, 1);
    return found;
  }

  test::LogCapture log_;
  test::TemporaryFolder folder_;
  std::unique_ptr<ValtorInterfaceClient> client_;
};

TEST_F(ActiveDatabaseTest, WithoutANameTheFileIsLookedForDirectlyInTheDatabaseFolder) {
  const std::string directory = paths().databaseDirectory;
  EXPECT_EQ(load(), std::vector<std::string>());
  EXPECT_EQ(log_.count(LOG_ERR, "Error loading active database: error while opening file: " +
                                    directory + "activeDatabase.json"),
            1);
  EXPECT_EQ(log_.count(LOG_ERR, "Error loading DB connectionPoints: error while opening file: " +
                                    directory + "/connectionPoints.json\n"),
            1);
  std::ofstream(directory + "connectionPoints.json")
      << "{\"connectionPoint\":[" << test::routerEntry("top", "127.0.0.2", 1) << "]}";
  EXPECT_EQ(load(), std::vector<std::string>{"top"});
}

TEST_F(ActiveDatabaseTest, ABrokenFileLeavesAManagerWithoutConnectionPoints) {
  test::writeActiveDatabase(test::routerEntry("good", "127.0.0.2", 1));
  const std::string path = paths().databaseDirectory + "main/connectionPoints.json";
  ASSERT_EQ(load(), std::vector<std::string>{"good"});
  const auto text = [&](const std::string& content) {
    return [&path, content] { std::ofstream(path, std::ios::binary) << content; };
  };
  struct Case {
    const char* what;
    std::function<void()> make;
    std::string reason;
  };
  for (const Case& one : {
           Case{"missing", [] {}, "error while opening file: "},
           Case{"empty", text(""), "not JSON: "},
           Case{"binary",
                text(std::string("\x7f"
                                 "ELF\0\x01\xff{\"connectionPoint\":[]}",
                                 29)),
                "not JSON: "},
           Case{"cut", text("{\"connectionPoint\":[" + test::routerEntry("a", "127.0.0.2", 1)),
                "not JSON: "},
           Case{"nested a thousand deep", text(std::string(1500, '[') + std::string(1500, ']')),
                "not JSON: "},
           Case{"no object", text("[]"), "not a JSON object: "},
           Case{"no list", text("{\"connectionPoint\":{\"a\":1}}"),
                "no array \"connectionPoint\": "},
           Case{"directory", [&] { fs::create_directory(path); }, "error while reading file: "},
           Case{"unreadable", [&] { fs::create_symlink(path, path); },
                "error while opening file: "},
       }) {
    fs::remove_all(path);
    one.make();
    EXPECT_EQ(load(), std::vector<std::string>()) << one.what;
    EXPECT_EQ(log_.count(LOG_ERR, "Error loading DB connectionPoints: " + one.reason + path + "\n"),
              1)
        << one.what;
  }
}

TEST_F(ActiveDatabaseTest, BadEntriesAreLeftOutAndTheOthersLoad) {
  const std::string odd = R"({"type":"valtor","name":"odd","uniqueID":"odd","phy":[)";
  test::writeActiveDatabase(test::routerEntry("own", "127.0.0.1", 15000) + ",17,null,{}," +
                            R"({"type":"other","name":"o","uniqueID":"o","phy":[]},)" + odd +
                            R"({"type":"tcp","ipAddress":"127.0.0.2","port":0}]},)" + odd +
                            R"({"type":"tcp","ipAddress":"127.0.0.2","port":65537}]},)" + odd +
                            R"({"type":"tcp","ipAddress":"router","port":1}]},)" + odd + "]}," +
                            test::routerEntry("b", "127.0.0.3", 15000) + "," +
                            test::routerEntry("a", "127.0.0.2", 15000) + "," +
                            test::routerEntry("portless", "127.0.0.2", -5));
  EXPECT_EQ(load(), (std::vector<std::string>{"a", "b", "portless"}));
}

}  // namespace
}  // namespace valtor
