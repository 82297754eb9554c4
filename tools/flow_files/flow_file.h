#pragma once

#include <tarvo/CTensor.h>

#include <cstdio>
#include <string>
#include <vector>

/// Files of flow in every format that tarvo reads and writes; docs/formats.md tells what each holds.
///
/// In memory a flow is width x height x 2 (u, v in pixels, v downwards). Where the motion is unknown, both
/// values are not-a-number: readFlow gives nothing else, and writeFlow takes whatever isKnown refuses for it.
namespace flow_files {
struct Codec;
}

namespace tool {

struct FlowFormat {
  const char* name;    ///< what users call it: flo, png, pfm, npy, npy16, npz, npz16, exr, exr16
  const char* ending;  ///< of its files, with the dot
  const char* text;    ///< what it is, in a few words
  const flow_files::Codec* codec;
};

/// All formats that this build writes. The first of those with the same ending is what the ending stands for.
const std::vector<FlowFormat>& flowFormats();
/// The format of this name; null if this build has none.
const FlowFormat* formatNamed(const std::string& name);
/// The format that the ending of a file's name stands for, whatever its case; null if there is none.
const FlowFormat* formatOfFile(const std::string& path);
std::string endingOf(const FlowFormat& format);
/// The endings of all formats, each once, with their dots.
std::vector<std::string> flowEndings();

struct FlowWriteOptions {
  bool exrUp = true;  ///< v points up in OpenEXR files, as compositing programs take it
};

/// What a file holds less exactly than the flow.
struct FlowLoss {
  long dropped = 0;  ///< pixels with values that the format cannot hold: they are marked as unknown
  double error = 0;  ///< greatest change of a value by rounding [pixels]
};
/// The loss in words, empty if there is none.
std::string textOf(const FlowLoss& loss, const FlowFormat& format);

/// Reads a flow file in the format that the ending of its name stands for; with any other name, as .flo.
/// @param messages  what should be known about the file is appended, one line each, with its name; may be
///                  null. (Of bytes after the data of .flo files the library's report tells.)
/// @throws std::runtime_error  naming the file and the reason, if it cannot be read, is damaged or cut off,
///                             or is larger than the library takes for a flow (about 143 million pixels).
///                             Sizes are compared with that of the file before memory is taken for them.
CTensor<float> readFlow(const std::string& path, std::vector<std::string>* messages = nullptr);

/// Writes a flow.
/// @param file  open for writing, stays open; for OpenEXR one whose position can be set
/// @throws std::runtime_error  with the reason alone; the file may then be incomplete
FlowLoss writeFlow(std::FILE* file, const CTensor<float>& flow, const FlowFormat& format,
                   const FlowWriteOptions& options = {});

/// The same to a path of any name. The file appears when it is complete; on failure one that was there before is
/// left unchanged.
/// @throws std::runtime_error  naming the file and the reason
FlowLoss writeFlow(const std::string& path, const CTensor<float>& flow, const FlowFormat& format,
                   const FlowWriteOptions& options = {});

}  // namespace tool
