// The cells of a column that a caller of the C interface hands in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "kdr3/kdr3.h"

namespace kdr::library {

inline std::ptrdiff_t widthof(kdr3_type type) {
  switch (type) {
    case KDR3_DOUBLE:
    case KDR3_INT64:
      return 8;
    case KDR3_FLOAT:
    case KDR3_INT32:
      return 4;
    default:
      return sizeof(const char*);
  }
}

template <class T>
T cell(const kdr3_column& column, std::size_t row) {
  const std::ptrdiff_t stride = column.stride != 0 ? column.stride : widthof(column.type);
  T value;
  std::memcpy(&value, static_cast<const char*>(column.values) + static_cast<std::ptrdiff_t>(row) * stride,
              sizeof value);
  return value;
}

inline bool marked(const kdr3_column& column, std::size_t row) {
  return column.missing != nullptr && column.missing[row] != 0;
}

// The value of a numeric column, NaN where it is missing.
inline double valueof(const kdr3_column& column, std::size_t row) {
  if (marked(column, row)) return std::numeric_limits<double>::quiet_NaN();
  switch (column.type) {
    case KDR3_DOUBLE:
      return cell<double>(column, row);
    case KDR3_FLOAT:
      return static_cast<double>(cell<float>(column, row));
    case KDR3_INT32:
      return static_cast<double>(cell<std::int32_t>(column, row));
    case KDR3_INT64:
      return static_cast<double>(cell<std::int64_t>(column, row));
    default:
      return std::numeric_limits<double>::quiet_NaN();
  }
}

}  // namespace kdr::library
