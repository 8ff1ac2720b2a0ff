// Fills a page with measured figures: bench_page TEMPLATE [--set NAME=TEXT]... FIGURES...
//
// FIGURES are files of the load driver or of Google Benchmark (--benchmark_format=json). In the
// template stands {{NAME}} for the median of a figure and the lowest and highest of its runs,
// {{NAME!}} for the median alone, {{NAME : OTHER}} for the ratio of two medians, and {{=NAME}} for
// a text. A name without a figure is an error. The page goes to standard output.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "app/util/OwnedJSON.h"

namespace {

using valtor::JSONPtr;

struct Figure {
  std::vector<double> runs;
  std::string unit;  // "s", "bytes", "bytes/s", "/s" or ""

  double median() const {
    std::vector<double> sorted = runs;
    std::sort(sorted.begin(), sorted.end());
    const std::size_t middle = sorted.size() / 2;
    return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
  }
};

using Figures = std::map<std::string, Figure>;
using Texts = std::map<std::string, std::string>;

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

void add(Figures& figures, const std::string& name, double value, const std::string& unit) {
  figures[name].runs.push_back(value);
  figures[name].unit = unit;
}

// What Google Benchmark measured in one run: CPU time, and the counters that the page may use.
void addBenchmark(Figures& figures, const cJSON* run) {
  const char* name = valtor::stringMember(run, "name");
  const char* type = valtor::stringMember(run, "run_type");
  if (name == nullptr || type == nullptr || std::string(type) != "iteration") {
    return;
  }
  if (cJSON_GetObjectItem(run, "error_occurred") != nullptr) {
    throw std::runtime_error(std::string(name) + " failed");
  }
  const std::string text = name;
  const std::string unit = valtor::stringMember(run, "time_unit");
  const double scale = unit == "ns" ? 1e-9 : unit == "us" ? 1e-6 : unit == "ms" ? 1e-3 : 1;
  add(figures, text, cJSON_GetObjectItem(run, "cpu_time")->valuedouble * scale, "s");
  const std::pair<const char*, const char*> counters[] = {
      {"per_message", "s"}, {"bytes_per_second", "bytes/s"}, {"allocs", ""}};
  for (const auto& [counter, counterUnit] : counters) {
    if (const cJSON* value = cJSON_GetObjectItem(run, counter)) {
      add(figures, text + "/" + counter, value->valuedouble, counterUnit);
    }
  }
}

void load(Figures& figures, const std::string& path) {
  std::string text = contentOf(path);
  // Google Benchmark's variation of a counter that is always 0; JSON has no such number.
  const std::string noNumber = ": NaN";
  for (std::size_t at = 0; (at = text.find(noNumber, at)) != std::string::npos;) {
    text.replace(at, noNumber.size(), ": null");
  }
  const JSONPtr tree(cJSON_Parse(text.c_str()));
  if (tree == nullptr) {
    throw std::runtime_error(path + " is no JSON");
  }
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, valtor::arrayMember(tree.get(), "benchmarks")) {
    addBenchmark(figures, one);
  }
  if (cJSON_IsArray(tree.get()) != 0) {
    cJSON_ArrayForEach(one, tree.get()) {
      add(figures, valtor::stringMember(one, "name"),
          cJSON_GetObjectItem(one, "value")->valuedouble, valtor::stringMember(one, "unit"));
    }
  }
}

// Three digits that count; none behind the point from 100 on, nor of a whole number.
std::string rounded(double value) {
  const double magnitude = value == 0 ? 0 : std::floor(std::log10(std::abs(value)));
  const int decimals =
      value == std::floor(value) ? 0 : std::clamp(2 - static_cast<int>(magnitude), 0, 3);
  const double grain = std::pow(10, magnitude - 2);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", decimals, std::round(value / grain) * grain);
  std::string digits = text.data();
  for (std::ptrdiff_t at =
           static_cast<std::ptrdiff_t>(std::min(digits.size(), digits.find('.'))) - 3;
       at > 0; at -= 3) {
    digits.insert(static_cast<std::size_t>(at), ",");
  }
  return digits;
}

struct Scale {
  const char* of;  // the unit of a figure
  double from;     // the smallest value that is shown so
  double factor;
  const char* unit;
};

constexpr double kKiB = 1024;
constexpr double kMiB = 1024 * kKiB;
constexpr double kGiB = 1024 * kMiB;
// The largest first.
constexpr Scale kScales[] = {
    {"s", 1, 1, " s"},
    {"s", 1e-3, 1e3, " ms"},
    {"s", 1e-6, 1e6, " us"},
    {"s", 0, 1e9, " ns"},
    {"bytes", kGiB, 1 / kGiB, " GiB"},
    {"bytes", kMiB, 1 / kMiB, " MiB"},
    {"bytes", 0, 1 / kKiB, " KiB"},
    {"bytes/s", kGiB, 1 / kGiB, " GiB/s"},
    {"bytes/s", 0, 1 / kMiB, " MiB/s"},
    {"/s", 0, 1, "/s"},
};

Scale scaleOf(const Figure& figure) {
  for (const Scale& scale : kScales) {
    if (figure.unit == scale.of && figure.median() >= scale.from) {
      return scale;
    }
  }
  return {"", 0, 1, ""};
}

std::string show(const Figure& figure, bool spread) {
  const Scale scale = scaleOf(figure);
  std::string text = rounded(figure.median() * scale.factor) + scale.unit;
  const auto [lowest, highest] = std::minmax_element(figure.runs.begin(), figure.runs.end());
  const std::string from = rounded(*lowest * scale.factor);
  const std::string to = rounded(*highest * scale.factor);
  if (spread && from != to) {
    text += " (" + from + " to " + to + ")";
  }
  return text;
}

const Figure& find(const Figures& figures, const std::string& name) {
  const auto found = figures.find(name);
  if (found == figures.end()) {
    throw std::runtime_error("nothing was measured as " + name);
  }
  return found->second;
}

std::string expand(const Figures& figures, const Texts& texts, const std::string& expression) {
  const std::size_t ratio = expression.find(" : ");
  if (expression.front() == '=') {
    const auto found = texts.find(expression.substr(1));
    if (found == texts.end()) {
      throw std::runtime_error("no text for " + expression);
    }
    return found->second;
  }
  if (ratio != std::string::npos) {
    return rounded(find(figures, expression.substr(0, ratio)).median() /
                   find(figures, expression.substr(ratio + 3)).median());
  }
  if (expression.back() == '!') {
    return show(find(figures, expression.substr(0, expression.size() - 1)), false);
  }
  return show(find(figures, expression), true);
}

std::string fill(const std::string& page, const Figures& figures, const Texts& texts) {
  std::string filled;
  std::size_t done = 0;
  for (std::size_t at = 0; (at = page.find("{{", done)) != std::string::npos;) {
    const std::size_t end = page.find("}}", at);
    filled +=
        page.substr(done, at - done) + expand(figures, texts, page.substr(at + 2, end - at - 2));
    done = end + 2;
  }
  return filled + page.substr(done);
}

// The value of the first line of a file of /proc that begins with the field.
std::string procField(const std::string& path, const std::string& field) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(field, 0) == 0) {
      return line.substr(line.find_first_not_of(" \t:", field.size()));
    }
  }
  return "unknown";
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Figures figures;
    Texts texts{{"cores", std::to_string(std::thread::hardware_concurrency())},
                {"processor", procField("/proc/cpuinfo", "model name")}};
    add(figures, "machine/memory", std::stod(procField("/proc/meminfo", "MemTotal")) * 1024,
        "bytes");
    std::string page;
    for (int i = 1; i < argc; ++i) {
      const std::string argument = argv[i];
      if (argument == "--set" && i + 1 < argc) {
        const std::string text = argv[++i];
        texts[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
      } else if (page.empty()) {
        page = contentOf(argument);
      } else {
        load(figures, argument);
      }
    }
    const std::string filled = fill(page, figures, texts);
    std::cout << filled << std::flush;
    return std::cout ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "bench_page: " << error.what() << "\n";
    return 1;
  }
}
