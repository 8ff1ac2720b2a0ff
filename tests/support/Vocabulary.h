#pragma once

// What the tests are written with, in one include.

#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "app/util/Paths.h"
#include "app/util/UniqueDescriptor.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Repeat.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {

// What the action throws; "" when it throws nothing.
template <class Action>
std::string thrownBy(Action action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

template <class T>
std::string rendered(const T& object) {
  return printJSON(object.toJSON().get(), false);
}

// How the object renders once it has loaded the item, after "failed " when the load failed.
// Whatever was taken over must render, and load as what it was rendered from.
template <class T>
std::string loaded(const std::string& item, T object = T()) {
  const bool failed = object.loadFromJSON(parseJSON(item).get()) != 0;
  std::string text = rendered(object);
  EXPECT_FALSE(text.empty()) << item;
  T again;
  again.loadFromJSON(parseJSON(text).get());
  EXPECT_EQ(rendered(again), text) << item;
  return (failed ? "failed " : "") + text;
}

}  // namespace valtor::test
