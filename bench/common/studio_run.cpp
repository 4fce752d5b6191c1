#include "common/studio_run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace qvn::bench {

namespace fs = std::filesystem;

bool readRunOptions(int count, char* const* args, const char* program, RunSettings& settings) {
  for (int i = 1; i < count; ++i) {
    const std::string arg = args[i];
    auto value = [&] { return optionValue(i, count, args, program); };
    try {
      if (arg == "--json")
        settings.jsonPath = value();
      else if (arg == "--seconds")
        settings.seconds = std::stod(value());
      else if (arg == "--repetitions")
        settings.repetitions = std::stoi(value());
      else
        throw std::invalid_argument(arg);
    } catch (const std::exception&) {
      std::fprintf(stderr, "usage: %s [--seconds N] [--repetitions N] [--json FILE]\n", program);
      return false;
    }
  }
  return true;
}

nlohmann::json runJson(const RunSettings& settings, double skipSeconds) {
  nlohmann::json j;
  j["windowSeconds"] = settings.seconds;
  j["skipSeconds"] = skipSeconds;
  j["repetitions"] = settings.repetitions;
  return j;
}

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string tailOf(const fs::path& file, size_t bytes) {
  const std::string text = readText(file);
  return text.size() > bytes ? "…" + text.substr(text.size() - bytes) : text;
}

std::optional<long> numberBetween(std::string_view line, std::string_view prefix,
                                  std::string_view suffix) {
  const auto at = line.find(prefix);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(at + prefix.size());
  long value = 0;
  size_t digits = 0;
  while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9')
    value = value * 10 + (rest[digits++] - '0');
  if (digits == 0 || !rest.substr(digits).starts_with(suffix)) return std::nullopt;
  return value;
}

std::vector<LogTail::Line> LogTail::poll() {
  std::vector<Line> lines;
  std::ifstream in(file_, std::ios::binary);
  if (!in) return lines;
  in.seekg(std::streamoff(offset_));
  std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  offset_ += chunk.size();
  partial_ += chunk;
  const auto now = Clock::now();
  for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
    lines.push_back({partial_.substr(0, end), now});
    partial_.erase(0, end + 1);
  }
  all_.insert(all_.end(), lines.begin(), lines.end());
  return lines;
}

std::map<std::string, ThreadSample> threadsOf(pid_t pid) {
  std::map<std::string, ThreadSample> threads;
  std::error_code error;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::string name = readText(task.path() / "comm");
    std::erase_if(name, [](char c) { return c == '\n' || (c >= '0' && c <= '9'); });
    std::ifstream stat(task.path() / "schedstat");
    double ns = 0;
    if (!(stat >> ns)) continue;
    threads[task.path().filename().string()] = {name, ns * 1e-9};
  }
  return threads;
}

std::map<std::string, double> threadCpuBetween(const std::map<std::string, ThreadSample>& before,
                                               const std::map<std::string, ThreadSample>& after) {
  std::map<std::string, double> cpu;
  for (const auto& [tid, thread] : after) {
    const auto then = before.find(tid);
    cpu[thread.name] += thread.cpu - (then == before.end() ? 0 : then->second.cpu);
  }
  return cpu;
}

MovieProbe probeMovie(const fs::path& movie, const fs::path& work, double limitSeconds,
                      std::string& failure) {
  MovieProbe probe;
  const std::string ffprobe = test::findProgram("ffprobe");
  if (ffprobe.empty()) {
    failure = "no ffprobe to read the movie";
    return probe;
  }
  const test::RunResult r =
      test::runProgram({ffprobe, "-v", "error", "-select_streams", "v:0", "-show_entries",
                        "stream=nb_frames,duration:packet=pts_time", "-of", "json", movie.string()},
                       limitSeconds, work);
  const auto info = nlohmann::json::parse(r.out, nullptr, false);
  if (!r.succeeded() || !info.is_object() || !info.contains("streams") || info["streams"].empty()) {
    failure = "ffprobe couldn't read the movie: " + r.describe();
    return probe;
  }
  const auto& stream = info["streams"][0];
  probe.frames = std::atof(stream.value("nb_frames", "nan").c_str());
  probe.seconds = std::atof(stream.value("duration", "nan").c_str());
  for (const auto& packet : info.value("packets", nlohmann::json::array()))
    if (packet.contains("pts_time"))
      probe.times.push_back(std::atof(packet["pts_time"].get<std::string>().c_str()));
  return probe;
}

std::vector<std::string> studioCommand(std::uint16_t port, const fs::path& root) {
  return {QVN_STUDIO,           "--headless", "--phones",    "--phone-port", std::to_string(port),
          "--phone-local-addr", "127.0.0.1",  "--data-root", root.string()};
}

std::vector<std::string> phoneSimCommand(std::uint16_t port, int width, int height, int fps,
                                         const std::string& name, int forSeconds) {
  return {QVN_PHONE_SIM,
          "--studio",
          "127.0.0.1:" + std::to_string(port),
          "--local-addr",
          "127.0.0.1",
          "--size",
          std::to_string(width) + "x" + std::to_string(height),
          "--fps",
          std::to_string(fps),
          "--loop",
          "--name",
          name,
          "--for",
          std::to_string(forSeconds)};
}

void printThreadTable(const std::vector<std::string>& caseNames,
                      const std::vector<std::map<std::string, double>>& threadCpu,
                      double shownFrom) {
  std::map<std::string, double> largest;
  for (const auto& byName : threadCpu)
    for (const auto& [name, cpu] : byName) largest[name] = std::max(largest[name], cpu);
  std::vector<std::string> shown;
  for (const auto& [name, cpu] : largest)
    if (cpu >= shownFrom) shown.push_back(name);
  auto cpuOf = [](const std::map<std::string, double>& byName, const std::string& name) {
    const auto it = byName.find(name);
    return it == byName.end() ? 0.0 : it->second;
  };
  const auto& most = threadCpu.back();
  std::sort(shown.begin(), shown.end(), [&](const std::string& a, const std::string& b) {
    return cpuOf(most, a) > cpuOf(most, b);
  });
  std::printf("\n%-18s", "studio thread");
  for (const std::string& name : caseNames) std::printf(" %10s", name.c_str());
  std::printf("\n");
  for (const std::string& name : shown) {
    std::printf("%-18s", name.c_str());
    for (const auto& byName : threadCpu) std::printf(" %10.4f", cpuOf(byName, name));
    std::printf("\n");
  }
  std::printf("%-18s", "(the rest)");
  for (const auto& byName : threadCpu) {
    double rest = 0;
    for (const auto& [name, cpu] : byName)
      if (std::find(shown.begin(), shown.end(), name) == shown.end()) rest += cpu;
    std::printf(" %10.4f", rest);
  }
}

}  // namespace qvn::bench
