#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "app/util/Paths.h"

namespace valtor::test {

// A fresh folder that is removed with all it holds when the object goes.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "valtor-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("cannot make a temporary folder");
    }
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  // Without a trailing "/".
  const std::string& path() const { return path_; }
  // The path of something in the folder.
  std::string at(const std::string& name) const { return path_ + "/" + name; }

  // Makes the folders on the way and writes the file; returns its path.
  std::string write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = at(name);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }
  // Makes every folder of the fixed paths below this one and points the product at it
  // (setPathPrefix), with a hardware address of 00:11:a2:b3:c4:d5.
  void becomePathPrefix() const {
    setPathPrefix(path_);
    for (const std::string& folder : {paths().databaseDirectory, at("vorn/etc"), at("tmp")}) {
      std::filesystem::create_directories(folder);
    }
    write("sys/class/net/eth0/address", "00:11:a2:b3:c4:d5\n");
  }

 private:
  std::string path_;
};

// The bytes of a file; "" when it cannot be read.
inline std::string fileContent(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace valtor::test
