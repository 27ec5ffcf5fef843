#ifndef TOOLS_TARN_BENCH_PROCESS_H_
#define TOOLS_TARN_BENCH_PROCESS_H_

#include <string>

namespace tarn::tool::bench {

// What the process uses from the making of one on: processor time of all its
// threads, and the most memory that it holds at a time. One at a time.
class Usage {
 public:
  Usage();

  double CpuSeconds() const;
  double PeakMb() const;  // Resident.

 private:
  double cpu_at_start_;
};

// "AMD EPYC 7763, 8 threads, Linux 6.1.0 x86_64".
std::string DescribeMachine();

}  // namespace tarn::tool::bench

#endif  // TOOLS_TARN_BENCH_PROCESS_H_
