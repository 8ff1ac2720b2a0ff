#pragma once

#include <string>

namespace valtor::test {

// A fresh folder that is removed with all it holds when the object goes.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  // Without a trailing "/".
  const std::string& path() const { return path_; }
  // The path of something in the folder.
  std::string at(const std::string& name) const { return path_ + "/" + name; }

  // Makes the folders on the way and writes the file; returns its path.
  std::string write(const std::string& name, const std::string& content) const;
  // Makes every folder of the fixed paths below this one and points the product at it
  // (setPathPrefix), with a hardware address of 00:11:a2:b3:c4:d5.
  void becomePathPrefix() const;

 private:
  std::string path_;
};

// The bytes of a file; "" when it cannot be read.
std::string fileContent(const std::string& path);

}  // namespace valtor::test
