#pragma once

#include <memory>
#include <string>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "tools/ChildProcess.h"

namespace httplib {
class Client;
}

namespace valtor::test {

// Chromium without a window, driven by its chromedriver (W3C WebDriver). Used by one thread. What
// the driver refuses throws std::runtime_error with its answer.
class Browser {
 public:
  Browser();
  ~Browser();

  void open(const std::string& url);
  // The size of the page in pixels, and whether its user likes it dark.
  void becomeDevice(int width, int height, bool dark);

  // The value of a JavaScript expression as a text.
  std::string valueOf(const std::string& expression);
  // Waits until the expression is true; whether it became so.
  bool becomes(const std::string& expression);
  // The element that is the expression's value, to the user's hand and to a screen reader.
  void click(const std::string& element);
  void type(const std::string& element, const std::string& keys);
  std::string roleAndName(const std::string& element);

  // What the console has shown since the last call.
  std::vector<std::string> complaints();
  // Writes a picture of the page as NAME.base64 into the folder that the environment variable
  // VALTOR_SCREENSHOTS names; nothing without it.
  void screenshot(const std::string& name);
  static bool takesPictures();

 private:
  // The member "value" of the answer; sent with a body, or without.
  JSONPtr post(const std::string& path, JSONPtr body);
  JSONPtr get(const std::string& path);
  JSONPtr script(const std::string& kind, const std::string& text);
  void tell(const std::string& command, const std::string& parameters);
  std::string find(const std::string& element);

  ChildProcess driver_;
  std::unique_ptr<httplib::Client> client_;
  std::string session_;  // path of it; empty before it has begun
};

}  // namespace valtor::test
