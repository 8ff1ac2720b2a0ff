#include "page/Browser.h"

#include <cstdlib>
#include <fstream>
#include <httplib.h>
#include <regex>
#include <stdexcept>
#include <utility>

#include "support/Eventually.h"

namespace valtor::test {
namespace {

constexpr int kPatience = 60;  // seconds that the driver may take for an answer

JSONPtr valueIn(const httplib::Result& result) {
  if (!result) {
    throw std::runtime_error("chromedriver: " + httplib::to_string(result.error()));
  }
  if (result->status != 200) {
    throw std::runtime_error("chromedriver: " + result->body);
  }
  const OwnedJSON answer = parseJSON(result->body);
  return JSONPtr(cJSON_DetachItemFromObject(answer.get(), "value"));
}

JSONPtr object(const std::string& text) { return parseJSON(text).release(); }

std::string textOf(const JSONPtr& value) {
  const char* const text = cJSON_GetStringValue(value.get());
  return text != nullptr ? text : printJSON(value.get(), false);
}

}  // namespace

Browser::Browser() : driver_("export HOME=$PWD; exec chromedriver --port=0 >out 2>&1") {
  std::smatch port;
  std::string said;
  if (!eventually([&] {
        said = driver_.out();
        return std::regex_search(said, port, std::regex("successfully on port ([0-9]+)"));
      })) {
    throw std::runtime_error("chromedriver does not start: " + said);
  }
  client_ = std::make_unique<httplib::Client>("127.0.0.1", std::stoi(port[1]));
  client_->set_read_timeout(kPatience);
  // Through a pipe the browser notices when its driver dies.
  const JSONPtr session = post("/session", object(R"({"capabilities":{"alwaysMatch":{
      "browserName":"chrome","goog:loggingPrefs":{"browser":"ALL"},"timeouts":{"script":60000},
      "goog:chromeOptions":{"args":["--headless=new","--no-sandbox","--disable-gpu",
        "--disable-dev-shm-usage","--hide-scrollbars","--remote-debugging-pipe"]}}}})"));
  session_ = std::string("/session/") + stringMember(session.get(), "sessionId");
}

Browser::~Browser() {
  if (!session_.empty()) {
    client_->Delete(session_);
  }
}

JSONPtr Browser::post(const std::string& path, JSONPtr body) {
  return valueIn(client_->Post(session_ + path, printJSON(body.get(), false), "application/json"));
}

JSONPtr Browser::get(const std::string& path) { return valueIn(client_->Get(session_ + path)); }

void Browser::open(const std::string& url) {
  JSONPtr body = object("{}");
  cJSON_AddStringToObject(body.get(), "url", url.c_str());
  post("/url", std::move(body));
}

// A command of the browser's own protocol.
void Browser::tell(const std::string& command, const std::string& parameters) {
  JSONPtr body = object(R"({"cmd":")" + command + "\"}");
  addMember(body.get(), "params", object(parameters));
  post("/goog/cdp/execute", std::move(body));
}

void Browser::becomeDevice(int width, int height, bool dark) {
  tell("Emulation.setDeviceMetricsOverride", R"({"deviceScaleFactor":1,"mobile":false,"width":)" +
                                                 std::to_string(width) +
                                                 ",\"height\":" + std::to_string(height) + "}");
  tell("Emulation.setEmulatedMedia",
       std::string(R"({"features":[{"name":"prefers-color-scheme","value":")") +
           (dark ? "dark" : "light") + "\"}]}");
}

JSONPtr Browser::script(const std::string& kind, const std::string& text) {
  JSONPtr body = object(R"({"args":[]})");
  cJSON_AddStringToObject(body.get(), "script", text.c_str());
  return post("/execute/" + kind, std::move(body));
}

std::string Browser::valueOf(const std::string& expression) {
  return textOf(script("sync", "return " + expression));
}

bool Browser::becomes(const std::string& expression) {
  return textOf(script("async",
                       "const done = arguments[0]; const end = Date.now() + 30000;"
                       "(function look() { if (" +
                           expression +
                           ") done(true);"
                           " else if (Date.now() > end) done(false); else setTimeout(look, 20);"
                           "})()")) == "true";
}

std::string Browser::find(const std::string& element) {
  const JSONPtr found = script("sync", "return " + element);
  const char* const id =
      found != nullptr && found->child != nullptr ? cJSON_GetStringValue(found->child) : nullptr;
  if (id == nullptr) {
    throw std::runtime_error("no such element: " + element);
  }
  return std::string("/element/") + id;
}

void Browser::click(const std::string& element) { post(find(element) + "/click", object("{}")); }

void Browser::type(const std::string& element, const std::string& keys) {
  JSONPtr body = object("{}");
  cJSON_AddStringToObject(body.get(), "text", keys.c_str());
  post(find(element) + "/value", std::move(body));
}

std::string Browser::roleAndName(const std::string& element) {
  const std::string path = find(element);
  return textOf(get(path + "/computedrole")) + " " + textOf(get(path + "/computedlabel"));
}

std::vector<std::string> Browser::complaints() {
  std::vector<std::string> lines;
  const JSONPtr log = post("/se/log", object(R"({"type":"browser"})"));
  const cJSON* entry = nullptr;
  cJSON_ArrayForEach(entry, log.get()) { lines.push_back(stringMember(entry, "message")); }
  return lines;
}

bool Browser::takesPictures() { return std::getenv("VALTOR_SCREENSHOTS") != nullptr; }

void Browser::screenshot(const std::string& name) {
  if (takesPictures()) {
    std::ofstream(std::string(std::getenv("VALTOR_SCREENSHOTS")) + "/" + name + ".base64")
        << textOf(get("/screenshot"));
  }
}

}  // namespace valtor::test
