#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flow_files/bytes.h"

/// NumPy's arrays in files: the bytes "\x93NUMPY", a version, the length of a text, the text
/// "{'descr': '<f4', 'fortran_order': False, 'shape': (480, 640, 2), }", and the elements.
namespace flow_files {

struct ArrayHeader {
  std::string kind;  ///< of the elements, e.g. <f4
  bool columnsFirst = false;
  std::vector<std::uint64_t> shape;
  std::uint64_t bytes = 0;  ///< of all that comes before the elements
};

/// Reads what comes before the elements. Throws for anything but an array of plain elements.
/// @param available  bytes that the source has at most
ArrayHeader readArrayHeader(ByteSource& source, std::uint64_t available);
/// Reads the elements of a flow; throws for arrays that are none. `available` counts from the header's start.
CTensor<float> readFlowArray(ByteSource& source, const ArrayHeader& header, std::uint64_t available);
std::string textOf(const std::vector<std::uint64_t>& shape);

/// Writes an array of elements of this kind, row after row, up to the elements.
void writeArrayHeader(ByteSink& sink, const std::string& kind, const std::vector<int>& shape);
/// Writes a flow with 2 or 4 bytes for each number.
void writeFlowArray(ByteSink& sink, const CTensor<float>& flow, int bytes);

}  // namespace flow_files
