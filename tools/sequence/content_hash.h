#pragma once

#include <tarvo/CTensor.h>

#include <string>

/// Hashes that tell contents apart: XXH3 with 128 bits as 32 hexadecimal digits, as xxh128sum prints them. They
/// are quick, and no protection against forgery.
namespace tool {

std::string hashOf(const std::string& text);
/// Of the sizes and values of a picture.
std::string hashOf(const CTensor<float>& picture);
/// Throws std::runtime_error, naming the file, if it cannot be read.
std::string hashOfFile(const std::string& path);

}  // namespace tool
