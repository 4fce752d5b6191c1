// The small pieces every bench that drives child processes needs around its measurements: a
// scratch folder, medians and table cells that leave out what wasn't measured, the JSON file
// and the usual handling of the command line.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "testing/child_process.h"

namespace qvn::bench {

using Clock = std::chrono::steady_clock;

inline double secondsOf(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// NaN stands for "not measured" and is left out; NaN when nothing is left.
inline double median(std::vector<double> values) {
  std::erase_if(values, [](double v) { return std::isnan(v); });
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// A table cell: "-" for what wasn't measured.
inline std::string cell(double v, const char* format) {
  if (std::isnan(v)) return "-";
  char text[32];
  std::snprintf(text, sizeof text, format, v);
  return text;
}

inline nlohmann::json jsonOf(double v) {
  return std::isnan(v) ? nlohmann::json(nullptr) : nlohmann::json(v);
}

// A fresh folder for the run's logs and files, gone with it (a long run leaves gigabytes).
struct TempDir {
  std::filesystem::path path;
  explicit TempDir(const std::string& tag) : path(test::makeTempDir(tag)) {}
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
};

// False, with a line naming `program`, when the file can't be written.
inline bool writeJson(const nlohmann::json& j, const std::string& path, const char* program) {
  std::ofstream out(path);
  out << j.dump(2) << "\n";
  if (!out.flush()) {
    std::fprintf(stderr, "%s: can't write %s\n", program, path.c_str());
    return false;
  }
  return true;
}

// The value after option args[i], stepping `i` past it; exits with status 2 when there is none.
inline std::string optionValue(int& i, int count, char* const* args, const char* program) {
  if (i + 1 >= count) {
    std::fprintf(stderr, "%s: %s needs a value\n", program, args[i]);
    std::exit(2);
  }
  return args[++i];
}

// `run()`'s status, or 1 with a line naming `program` when it throws.
template <typename Run>
int runReporting(const char* program, Run&& run) {
  try {
    return run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", program, e.what());
    return 1;
  }
}

}  // namespace qvn::bench
