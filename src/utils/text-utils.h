#ifndef TARN_UTILS_TEXT_UTILS_H_
#define TARN_UTILS_TEXT_UTILS_H_

#include <string>
#include <vector>

#include "base/tarn-tensor.h"
#include "utils/export.h"

namespace tarn {

// All functions here are stateless and may be called from any thread.

// Reads the whole of `text` as one decimal integer, white space around it
// allowed. Returns false, and leaves `value` alone, when there is anything else
// or the number does not fit T. T is one of int, long, short, signed char,
// unsigned int, unsigned long, unsigned short, unsigned char.
template <typename T>
TARN_EXPORT bool ConvertStringToInteger(const std::string& text, T& value);

// Reads the whole of `text` as one real number, also the usual spellings of
// infinity and NaN in any case. Returns false, and leaves `value` alone, when
// there is anything else. T is float or double.
template <typename T>
TARN_EXPORT bool ConvertStringToReal(const std::string& text, T& value);

// Splits `text` at every character that is one of `delimiters`. An empty text
// gives one empty piece, or none with `omit_empty`.
TARN_EXPORT void SplitStringToVector(const std::string& text,
                                     const char* delimiters, bool omit_empty,
                                     std::vector<std::string>& pieces);

// Splits as above and converts each piece. Returns false at the first piece
// that is no integer; `values` must not be relied on then. T is int.
template <typename T>
TARN_EXPORT bool SplitStringToIntegers(const std::string& text,
                                       const char* delimiters, bool omit_empty,
                                       std::vector<T>& values);

// Removes white space from both ends of `text`.
TARN_EXPORT void Trim(std::string& text);

// [1, 80, 560] for a shape of 1 by 80 by 560.
TARN_EXPORT std::string ConvertShapeToString(const std::vector<int>& shape);

// [batch-size, feat-dim] for these two names.
TARN_EXPORT std::string ConvertFormatToString(
    const std::vector<std::string>& format);

// The enumerator's name, "UNKNOW" for any other code.
TARN_EXPORT std::string ConvertDataTypeToString(Tensor::DataType data_type);

}  // namespace tarn

#endif  // TARN_UTILS_TEXT_UTILS_H_
