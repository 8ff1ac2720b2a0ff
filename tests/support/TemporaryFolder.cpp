#include "support/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "app/util/Paths.h"

namespace valtor::test {

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "valtor-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a temporary folder");
  }
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& content) const {
  const std::filesystem::path path = at(name);
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  return path.string();
}

void TemporaryFolder::becomePathPrefix() const {
  setPathPrefix(path_);
  std::filesystem::create_directories(paths().databaseDirectory);
  std::filesystem::create_directories(at("vorn/etc"));
  std::filesystem::create_directories(at("tmp"));
  write("sys/class/net/eth0/address", "00:11:a2:b3:c4:d5\n");
}

std::string fileContent(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace valtor::test
