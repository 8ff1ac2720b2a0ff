#include "load/Results.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "app/util/OwnedJSON.h"

namespace valtor::bench {

void Results::record(const std::string& name, double value, const std::string& unit) {
  std::printf("  %-44s %12.6g %s\n", name.c_str(), value, unit.c_str());
  std::fflush(stdout);
  figures_.push_back({name, value, unit});
}

void Results::fail(const std::string& text) {
  std::printf("  FAILED: %s\n", text.c_str());
  std::fflush(stdout);
  ++failures_;
}

void Results::write(const std::string& path) const {
  const JSONPtr list(cJSON_CreateArray());
  for (const Figure& one : figures_) {
    JSONPtr figure(cJSON_CreateObject());
    cJSON_AddStringToObject(figure.get(), "name", one.name.c_str());
    cJSON_AddNumberToObject(figure.get(), "value", one.value);
    cJSON_AddStringToObject(figure.get(), "unit", one.unit.c_str());
    addElement(list.get(), std::move(figure));
  }
  std::ofstream file(path);
  file << printJSON(list.get(), true) << "\n";
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace valtor::bench
