#pragma once

#include <tarvo/CTensor.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

/// Reads a picture: PNG (grey, RGB, palette; 1 to 16 bits; transparency is dropped), JPEG (grey or colour),
/// or PGM / PPM (P2, P3, P5, P6; any maximum up to 65535). The kind is told from the first bytes, not from
/// the name.
/// @param messages  what should be known about the picture (transparency dropped, data after the end, ...) is
///                  appended, one line each, with the file's name; may be null
/// @param like      null, or a picture whose size this one must have
/// @return          width x height x 3: red, green, blue in 0 ... 255; 16-bit values are divided by 257; grey
///                  pictures have three equal planes
/// @throws std::runtime_error  naming the file and the reason, if it cannot be read, is of no known kind, is
///                             damaged or cut off, differs in size from `like`, or is larger than the library
///                             takes for a flow (about 143 million pixels)
/// Sizes are checked before pixels are read or memory is taken for them; besides the result, a row is all
/// that is kept, and of a progressive JPEG half as much again.
CTensor<float> readPicture(const std::string& path, std::vector<std::string>* messages,
                           const CTensor<float>* like = nullptr);

/// Reads the next of the PGM and PPM pictures in a stream, which stays open.
/// @param name  of the stream, for errors
/// @return      false where the stream has ended
/// @throws std::runtime_error  as readPicture does; what follows in the stream cannot be read then
bool readNextPnm(std::FILE* stream, const std::string& name, CTensor<float>& picture);

/// Writes a PNG.
/// @param file  open for writing; stays open
/// @param rgb   width x height x 3; values are rounded and limited to 0 ... 255, with 16 bits to 0 ... 65535;
///              not-a-number gives 0
/// @param bits  per value, 8 or 16
/// @param notes  names and values of what is to be told in the file as text
/// @throws std::runtime_error  with the reason alone; the file may then be incomplete
void writePng(std::FILE* file, const CTensor<float>& rgb, int bits = 8,
              const std::vector<std::pair<std::string, std::string>>& notes = {});
