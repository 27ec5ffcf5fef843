#ifndef TARN_TESTS_MACE_CONTROL_H_
#define TARN_TESTS_MACE_CONTROL_H_

#include <string>
#include <vector>

// What tests see and set of the stand-in for the MACE engine.
//
// The file of weights holds nothing but 32-bit floats. The file of a graph is a
// text; its statements, one per line, run in order:
//
//   input NAME TYPE DIMENSION...      TYPE is a number of mace::IDataType
//   output NAME TYPE DIMENSION...
//   weight NAME OFFSET DIMENSION...   OFFSET counts floats
//   copy TO FROM                      for every type; the others for floats
//   add TO A B
//   scale TO FROM FACTOR
//   matmul TO A B
//   slow N                            yields the processor N times
//   fail-create CODE                  CODE is a number of mace::MaceStatus
//   fail-run N                        the run number N, counted from 1, fails
namespace mace {
namespace control {

// The configuration calls since it was last called, in order, such as
// "SetRuntimeType(6, default_graph)".
std::vector<std::string> TakeCalls();

// Whether the calls that return a status fail from now on.
void FailCalls(bool fail);

// Engines and regions that have not been destroyed.
int LiveEngines();
int LiveRegions();

}  // namespace control
}  // namespace mace

#endif  // TARN_TESTS_MACE_CONTROL_H_
