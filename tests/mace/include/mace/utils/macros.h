#ifndef MACE_UTILS_MACROS_H_
#define MACE_UTILS_MACROS_H_

#define MACE_NO_COPIES(Type)  \
  Type(const Type&) = delete; \
  Type& operator=(const Type&) = delete

#endif  // MACE_UTILS_MACROS_H_
