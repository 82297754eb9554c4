#pragma once

#include <string>
#include <vector>

#include "flow_files/bytes.h"
#include "flow_files/flow_file.h"

/// The readers and writers behind readFlow and writeFlow. Errors are std::runtime_error with the reason alone.
namespace flow_files {

using Notes = std::vector<std::string>;

/// Reads a file; notes are without its name. Unknown values may be whatever isKnown refuses.
using Decode = CTensor<float> (*)(const std::string& path, Notes& notes);
/// Writes a flow of values that the format can hold, or that are not-a-number, in both planes.
/// @param bytes  of a number in the file, where the format leaves the choice
using Encode = void (*)(std::FILE* file, const CTensor<float>& flow, int bytes,
                        const tool::FlowWriteOptions& options);

/// How a format is read and written.
struct Codec {
  Decode decode;
  Encode encode;  ///< null where this build lacks it
  float (*rounded)(
      float);  ///< the value in the file; not finite if the format cannot hold it; null: any is exact
  int bytes;
};

CTensor<float> decodeKittiPng(const std::string& path, Notes& notes);
void encodeKittiPng(std::FILE* file, const CTensor<float>& flow, int bytes,
                    const tool::FlowWriteOptions& options);
/// To the nearest 1/64 pixel, from -512 to below 512.
float roundedToKitti(float value);

CTensor<float> decodePfm(const std::string& path, Notes& notes);
void encodePfm(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions& options);

CTensor<float> decodeNpy(const std::string& path, Notes& notes);
void encodeNpy(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions& options);

CTensor<float> decodeNpz(const std::string& path, Notes& notes);
void encodeNpz(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions& options);

CTensor<float> decodeExr(const std::string& path, Notes& notes);
/// Null in builds without OpenEXR.
Encode exrEncoder();

/// Row y with `channels` values for each pixel: u, v, and 0 where there are more.
void interleaveRow(const CTensor<float>& flow, int y, int channels, std::vector<float>& row);

}  // namespace flow_files
