#include <tarvo/COpticFlow.h>

#include <cstring>

#include "cpuflow/flow_file.h"
#include "device/report.h"

// The flow files of COpticFlow, which report problems in a printed line.

namespace {

bool hasFlowEnding(const char* filename) {
  const char* ending = std::strrchr(filename, '.');
  return ending != nullptr && std::strcmp(ending, ".flo") == 0;
}

}  // namespace

void COpticFlow::writeMiddlebury(CTensor<float>& flow, const char* filename) {
  if (!hasFlowEnding(filename)) report::print("%s should have extension '.flo'\n", filename);
  const std::string objection = flow_file::whyNotWritable(flow);
  if (!objection.empty()) {
    report::print("%s\n", flow_file::writeProblem(filename, objection).c_str());
    return;
  }
  OutputFile file(filename);
  if (!file.isOpen()) {
    report::print("Could not open %s\n", filename);
    return;
  }
  const bool begun = flow_file::writeHeader(file, flow);
  if (!begun) report::print("Problem writing header\n");
  const bool complete = flow_file::writeData(file, flow) && file.commit();
  if (begun && !complete) {
    report::print("%s\n", flow_file::writeProblem(filename, file.reason()).c_str());
  }
}

void COpticFlow::readMiddlebury(const char* filename, CTensor<float>& flow) {
  try {
    flow = flow_file::read(filename);
  } catch (const flow_file::OpenError&) {
    report::print("Could not open %s\n", filename);
  } catch (const std::exception& problem) {
    report::print("%s\n", problem.what());
  }
}
