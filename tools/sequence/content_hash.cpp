#include "sequence/content_hash.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tool {

namespace {

std::string text(XXH128_hash_t hash) {
  char digits[33];
  std::snprintf(digits, sizeof digits, "%016llx%016llx", static_cast<unsigned long long>(hash.high64),
                static_cast<unsigned long long>(hash.low64));
  return digits;
}

}  // namespace

std::string hashOf(const std::string& text) {
  return tool::text(XXH3_128bits(text.data(), text.size()));
}

std::string hashOf(const CTensor<float>& picture) {
  const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(),
                                                                              XXH3_freeState);
  const int size[] = {picture.sizeX(), picture.sizeY(), picture.sizeZ()};
  XXH3_128bits_reset(state.get());
  XXH3_128bits_update(state.get(), size, sizeof size);
  XXH3_128bits_update(state.get(), picture.data(), static_cast<std::size_t>(picture.size()) * sizeof(float));
  return text(XXH3_128bits_digest(state.get()));
}

std::string hashOfFile(const std::string& path) {
  constexpr std::size_t kPiece = 1 << 20;
  const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(),
                                                                              XXH3_freeState);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  std::vector<char> piece(kPiece);
  XXH3_128bits_reset(state.get());
  std::size_t got = 0;
  while (file && (got = std::fread(piece.data(), 1, kPiece, file.get())) > 0) {
    XXH3_128bits_update(state.get(), piece.data(), got);
  }
  if (!file || std::ferror(file.get())) {
    throw std::runtime_error(path + ": cannot be read (" + std::strerror(errno) + ")");
  }
  return text(XXH3_128bits_digest(state.get()));
}

}  // namespace tool
