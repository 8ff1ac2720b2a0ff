#pragma once

#include <string>
#include <vector>

namespace valtor::bench {

// What was measured, and what went wrong. Figures of one name from several runs stand side by side.
class Results {
 public:
  // Units: "s", "bytes", "/s", "" for a count or a share in percent.
  void record(const std::string& name, double value, const std::string& unit);
  // Something that must not happen: said at once, and the program will not end with success.
  void fail(const std::string& text);

  bool isGood() const { return failures_ == 0; }
  // Throws std::runtime_error when the file cannot be written.
  void write(const std::string& path) const;

 private:
  struct Figure {
    std::string name;
    double value;
    std::string unit;
  };

  std::vector<Figure> figures_;
  int failures_ = 0;
};

}  // namespace valtor::bench
