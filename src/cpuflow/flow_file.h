#pragma once

#include <tarvo/CTensor.h>

#include <stdexcept>
#include <string>

#include "cpuflow/output_file.h"

/// Flow files: the bytes "PIEH", width and height as 32-bit signed integers, then u and v of every pixel as
/// floats, row after row, all in the host's byte order. COpticFlow reports with messages, NFlowFile with
/// exceptions.
namespace flow_file {

/// The file cannot be opened, as opposed to: cannot be read, or is no good flow file.
struct OpenError : std::runtime_error {
  OpenError(const std::string& path, const std::string& reason);
};

/// Reads a file as described at NFlowFile::read. Throws OpenError, or std::runtime_error for everything else.
CTensor<float> read(const std::string& path);

/// Why this tensor cannot be written, or an empty text if it can.
std::string whyNotWritable(const CTensor<float>& flow);

/// The two pieces of a file, written in this order; false on failure, with the reason in `file`.
bool writeHeader(OutputFile& file, const CTensor<float>& flow);
bool writeData(OutputFile& file, const CTensor<float>& flow);

/// The message for a file that could not be written to its end.
std::string writeProblem(const std::string& path, const std::string& reason);

}  // namespace flow_file
