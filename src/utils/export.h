#ifndef TARN_UTILS_EXPORT_H_
#define TARN_UTILS_EXPORT_H_

// Marks what libtarn.so lets its users see; everything else stays hidden.
#define TARN_EXPORT __attribute__((visibility("default")))

#endif  // TARN_UTILS_EXPORT_H_
