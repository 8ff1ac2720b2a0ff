#include "valtor-bus/BusDefaults.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "app/util/ErrnoText.h"
#include "app/util/Files.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"

namespace valtor {
namespace {

std::string variable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  return value != nullptr ? value : "";
}

std::string trimmed(std::string text) {
  trimRight(text);
  return text.substr(std::min(text.size(), text.find_first_not_of(" \t")));
}

std::vector<std::string> configurationFiles() {
  std::string folder = variable("XDG_CONFIG_HOME");
  if (const std::string home = variable("HOME"); folder.empty() && !home.empty()) {
    folder = home + "/.config";
  }
  std::vector<std::string> files = {"/etc/valtor-bus.conf"};
  if (!folder.empty()) {
    files.insert(files.begin(), folder + "/valtor-bus.conf");
  }
  return files;
}

std::optional<BusDefault> fromFile(const std::string& file, const std::string& name) {
  if (std::error_code error; !std::filesystem::exists(file, error)) {
    return std::nullopt;
  }
  std::ifstream input(file);
  std::optional<BusDefault> found;
  std::string line;
  for (int number = 1; std::getline(input, line); ++number) {
    line = trimmed(line.substr(0, line.find('#')));
    const std::size_t sign = line.find('=');
    const std::string key = trimmed(line.substr(0, sign));
    const std::string origin = file + ", line " + std::to_string(number);
    if (!line.empty() && (sign == std::string::npos || (key != "host" && key != "port"))) {
      throw CommandFailure(ExitCode::Usage, origin + ": \"" + excerpt(line) +
                                                "\" is neither host=NAME nor port=NUMBER");
    }
    if (key == name && sign + 1 < line.size()) {
      found = {trimmed(line.substr(sign + 1)), origin};
    }
  }
  if (!input.eof()) {
    throw CommandFailure(ExitCode::Usage, "cannot read " + file + ": " + errnoText(errno));
  }
  return found;
}

}  // namespace

std::optional<BusDefault> busDefault(const std::string& name) {
  const std::string inCapitals = "VALTOR_BUS_" + std::string(name == "host" ? "HOST" : "PORT");
  if (const std::string text = variable(inCapitals); !text.empty()) {
    return BusDefault{text, inCapitals};
  }
  for (const std::string& file : configurationFiles()) {
    if (std::optional<BusDefault> found = fromFile(file, name)) {
      return found;
    }
  }
  return std::nullopt;
}

}  // namespace valtor
