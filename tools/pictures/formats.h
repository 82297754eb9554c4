#pragma once

#include <tarvo/CTensor.h>

#include <cstddef>
#include <string>
#include <vector>

/// The readers behind readPicture, one per kind. Each gets the whole file and gives a width x height x 3
/// tensor; they throw std::runtime_error with the reason alone, and append what should be known to `notes`
/// (without the file's name).
namespace pictures {

using Bytes = std::vector<unsigned char>;
using Notes = std::vector<std::string>;

CTensor<float> decodePng(const Bytes& file, Notes& notes);
CTensor<float> decodeJpeg(const Bytes& file, Notes& notes);
CTensor<float> decodePnm(const Bytes& file, Notes& notes);

/// An uninitialised width x height x 3 tensor; throws if the sizes are not positive or have too many values.
CTensor<float> newPicture(unsigned long width, unsigned long height);

}  // namespace pictures
