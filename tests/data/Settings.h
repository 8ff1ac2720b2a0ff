#pragma once

#include <string>

#include "data/AbstractJSONTopLevelContainer.h"

namespace valtor::test {

// The smallest container: one number, whose loading fails below 0 and whose rendering below -1.
class Settings : public AbstractJSONTopLevelContainer {
 public:
  explicit Settings(const std::string* directory, int number = 0)
      : AbstractJSONTopLevelContainer("settings", directory), value(number) {}
  explicit Settings(const std::string& name) : AbstractJSONTopLevelContainer(name) {}

  const char* getObjectName() const override { return "settingsObject"; }
  int loadFromJSON(const cJSON* item) override {
    value = item->valueint;
    return value < 0 ? -1 : 0;
  }
  JSONPtr toJSON() const override {
    return value < -1 ? nullptr : JSONPtr(cJSON_CreateNumber(value));
  }

  using AbstractJSONTopLevelContainer::writeToDisk;

  int value = 0;
};

// What a fresh container loads from the directory; -1000 when it loads nothing.
inline int loadedFrom(const std::string& directory) {
  Settings settings(&directory);
  return settings.load() == 0 ? settings.value : -1000;
}

}  // namespace valtor::test
