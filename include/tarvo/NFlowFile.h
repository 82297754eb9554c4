#pragma once

#include <cstdio>
#include <string>

#include <tarvo/CTensor.h>
#include <tarvo/export.h>

/// Flow files, with exceptions instead of messages. Format and handling are those of
/// COpticFlow::readMiddlebury and COpticFlow::writeMiddlebury.
namespace NFlowFile {

/// Reads a flow file into a tensor of width x height x 2 (u, v in pixels; a component of magnitude 1e9 or
/// more marks unknown motion). Bytes after the data are ignored with a message in the library's report.
/// Throws std::runtime_error naming the file and the reason if it cannot be opened or is damaged.
TARVO_API CTensor<float> read(const std::string& path);

/// Writes planes 0 and 1 of `flow`; any file name is accepted. The file appears under its name when it is
/// complete; on failure a file that was there before is left unchanged. Throws std::runtime_error naming the
/// file and the reason.
TARVO_API void write(const std::string& path, const CTensor<float>& flow);

/// The same to an open file, from its position on: the caller cares for its name and closes it.
/// Throws std::runtime_error with the reason alone.
TARVO_API void write(std::FILE* file, const CTensor<float>& flow);

}  // namespace NFlowFile
