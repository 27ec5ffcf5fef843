#ifndef TARN_TESTS_SOAK_FAILING_NEW_H_
#define TARN_TESTS_SOAK_FAILING_NEW_H_

namespace tarn {

// A program that links this has an operator new that throws std::bad_alloc once
// a thread has counted this down from above 0 to 0, once per allocation.
extern thread_local int allocations_until_failure;

}  // namespace tarn

#endif  // TARN_TESTS_SOAK_FAILING_NEW_H_
