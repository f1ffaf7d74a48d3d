// Bounds on the shape of a JSON text, checked by one pass over its bytes
// before any of it is built into values: a small body can inflate into
// millions of elements or thousands of nesting levels, which building would
// turn into hundreds of megabytes or a deep recursion.
#ifndef QXLOG_COLLECTOR_DECODE_JSONSHAPE_H_
#define QXLOG_COLLECTOR_DECODE_JSONSHAPE_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace qxlog::collector {

struct JsonShapeLimits {
  std::size_t maxDepth = 32;             // arrays and objects inside each other
  std::size_t maxElements = 10000;       // elements of one array, members of one object
  std::size_t maxStringBytes = 1 << 20;  // one string or key, as written (escapes counted)
  std::size_t maxValues = 500000;        // values in the whole text
  // The upload's records: the array under "a" of the top-level object, which
  // may hold this many elements instead of maxElements. 0: not an upload.
  std::size_t maxRecords = 0;
};

// Empty when `json` stays within `limits`; otherwise the first limit passed,
// as a reason ("nested deeper than 32 levels", "more than 10000 records",
// ...). Only the shape is checked: text that is not JSON may pass, and is
// refused by the parser that follows. Allocates nothing.
std::string checkJsonShape(std::string_view json, const JsonShapeLimits& limits);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_DECODE_JSONSHAPE_H_
