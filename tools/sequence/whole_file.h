#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace tool {

/// What a written file is.
struct WrittenFile {
  unsigned long size;  ///< [bytes]
  std::string hash;    ///< hashOfFile
};

/// Has `writer` write a file, which appears under its name when it is complete; until then, and where the process
/// is killed, it is PATH.part, which the next attempt writes over. Throws std::runtime_error naming the file and
/// the reason; what was there before is unchanged then.
WrittenFile writeWhole(const std::string& path, const std::function<void(std::FILE*)>& writer);

}  // namespace tool
