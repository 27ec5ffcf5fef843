#include "bench-process.h"

#include <fstream>
#include <thread>

#include <sys/resource.h>
#include <sys/utsname.h>

namespace tarn::tool::bench {

namespace {

rusage Used() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage;
}

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) +
         1e-6 * static_cast<double>(time.tv_usec);
}

double CpuSecondsOfProcess() {
  const rusage usage = Used();
  return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

// What follows "key : " in a file of such lines; empty without the key.
std::string ValueIn(const char* path, const std::string& key) {
  std::ifstream is(path);
  for (std::string line; std::getline(is, line);) {
    if (line.compare(0, key.size(), key) != 0) continue;
    const size_t value = line.find_first_not_of(" \t:", key.size());
    return value == std::string::npos ? "" : line.substr(value);
  }
  return "";
}

}  // namespace

Usage::Usage() : cpu_at_start_(CpuSecondsOfProcess()) {
  std::ofstream("/proc/self/clear_refs") << "5";  // Forgets the peak.
}

double Usage::CpuSeconds() const {
  return CpuSecondsOfProcess() - cpu_at_start_;
}

double Usage::PeakMb() const {
  // Unlike ru_maxrss it can be reset, and leaves out what ran before exec().
  const std::string peak = ValueIn("/proc/self/status", "VmHWM");
  const double kb =
      peak.empty() ? static_cast<double>(Used().ru_maxrss) : std::stod(peak);
  return kb / 1024;
}

std::string DescribeMachine() {
  utsname system = {};
  uname(&system);
  const std::string cpu = ValueIn("/proc/cpuinfo", "model name");
  return (cpu.empty() ? "unknown processor" : cpu) + ", " +
         std::to_string(std::thread::hardware_concurrency()) + " threads, " +
         system.sysname + " " + system.release + " " + system.machine;
}

}  // namespace tarn::tool::bench
