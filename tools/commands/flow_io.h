#pragma once

#include <tarvo/CTensor.h>

#include <string>

#include "commands/console.h"
#include "commands/output_files.h"
#include "flow_files/flow_file.h"

/// Flow files as commands read and write them: what should be known about them goes to standard error.
namespace tool {

/// Reads a flow file of any format; errors are those of readFlow.
CTensor<float> readFlowFile(const std::string& path, const Verbosity& verbosity);

/// Writes one of the outputs in the format that its ending stands for.
void writeFlowFile(OutputFiles& outputs, const std::string& path, const CTensor<float>& flow,
                   const Verbosity& verbosity);
/// The same in this format.
void writeFlowFile(OutputFiles& outputs, const std::string& path, const CTensor<float>& flow,
                   const FlowFormat& format, const FlowWriteOptions& options, const Verbosity& verbosity);

}  // namespace tool
