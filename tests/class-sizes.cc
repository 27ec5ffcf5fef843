// Prints the size of every class that a host can hold or derive from.

#include <iostream>

#include "tarn/tarn.h"
#include "tarn/utils/parse-options.h"

#define PRINT(type) \
  std::cout << "sizeof(tarn::" #type ") = " << sizeof(tarn::type) << '\n'

int main() {
  PRINT(BaseModel);
  PRINT(BaseProxy);
  PRINT(Device);
  PRINT(Finding);
  PRINT(InferenceObserver);
  PRINT(MessageLogger);
  PRINT(Model);
  PRINT(ModelInfo);
  PRINT(ModelOptions);
  PRINT(ParallelProxy);
  PRINT(ParseOptions);
  PRINT(Proxy);
  PRINT(Queue<tarn::BaseProxy*>);
  PRINT(Semaphore);
  PRINT(SerialProxy);
  PRINT(Tensor);
  return 0;
}
