#include "commands/flow_io.h"

#include <vector>

namespace tool {

CTensor<float> readFlowFile(const std::string& path, const Verbosity& verbosity) {
  std::vector<std::string> messages;
  CTensor<float> flow = readFlow(path, &messages);
  for (const std::string& text : messages) {
    message(verbosity, text);
  }
  return flow;
}

void writeFlowFile(OutputFiles& outputs, const std::string& path, const CTensor<float>& flow,
                   const Verbosity& verbosity) {
  writeFlowFile(outputs, path, flow, *formatOfFile(path), {}, verbosity);
}

void writeFlowFile(OutputFiles& outputs, const std::string& path, const CTensor<float>& flow,
                   const FlowFormat& format, const FlowWriteOptions& options, const Verbosity& verbosity) {
  FlowLoss loss;
  outputs.write(path, [&](std::FILE* file) { loss = writeFlow(file, flow, format, options); });
  const std::string text = textOf(loss, format);
  if (!text.empty()) {
    message(verbosity, path + ": " + text);
  }
}

}  // namespace tool
