#include "sequence/resume.h"

#include <filesystem>
#include <stdexcept>

#include "sequence/content_hash.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

/// The first setting that differs, in words.
std::string settingsDifference(const Json& before, const Json& now, const std::string& where = "") {
  for (const auto& [name, value] : now.items()) {
    const Json other = before.is_object() && before.contains(name) ? before[name] : Json();
    if (other == value) continue;
    if (value.is_object()) return settingsDifference(other, value, "");
    return "made with " + where + name + " " + other.dump() + ", now " + value.dump();
  }
  return "";
}

}  // namespace

KnownPairs::KnownPairs(const Manifest& manifest, const PairJob& job, bool verify)
    : manifest_(&manifest), job_(&job), verify_(verify) {}

const std::string& KnownPairs::contentsOf(const std::string& file) {
  for (std::size_t k = 0; k < 2; ++k) {
    if (lastFile_[k] == file) return lastContents_[k];
  }
  lastFile_[0] = std::move(lastFile_[1]);
  lastContents_[0] = std::move(lastContents_[1]);
  lastFile_[1] = file;
  try {
    lastContents_[1] = hashOfFile(file);
  } catch (const std::runtime_error&) {  // is reported with its pair
    lastContents_[1].clear();
  }
  return lastContents_[1];
}

std::string KnownPairs::difference(const std::vector<std::string>& files) {
  const Json& header = manifest_->header();
  if (header.is_null()) return "";
  const Json settings = header.contains("settings") ? header["settings"] : Json();
  if (settings != job_->settings) return settingsDifference(settings, job_->settings);
  if (files.empty()) return "";
  for (const auto& [pair, place] : manifest_->pairs()) {
    const Json record = manifest_->record(pair);
    if (!record.contains("contents")) continue;
    if (pair + 1 >= static_cast<long>(files.size())) {
      return "it has pair " + std::to_string(pair) + " of more frames than the " +
             std::to_string(files.size()) + " there are now";
    }
    for (std::size_t k = 0; k < 2; ++k) {
      const std::string& file = files[static_cast<std::size_t>(pair) + k];
      const std::string contents = contentsOf(file);
      if (!contents.empty() && record["contents"][k] != contents) {
        return "frame " + file + " has other contents than " + record["frames"][k].get<std::string>() +
               " had for pair " + std::to_string(pair);
      }
    }
  }
  return "";
}

bool KnownPairs::outputsAreThere(const Json& record) const {
  for (const auto& [kind, output] : record.at("outputs").items()) {
    const fs::path path = fs::path(job_->folder) / output.at(0).get<std::string>();
    std::error_code error;
    if (fs::file_size(path, error) != output.at(1).get<unsigned long>() || error) return false;
    if (verify_ && hashOfFile(path.string()) != output.at(2)) return false;
  }
  return true;
}

bool KnownPairs::isDone(long pair, const std::string& contents1, const std::string& contents2,
                        bool otherContents) const {
  if (manifest_->pairs().count(pair) == 0) return false;
  const Json record = manifest_->record(pair);
  if (!record.contains("key")) return false;  // it failed
  if (record["key"] == pairKey(job_->settings, contents1, contents2)) return outputsAreThere(record);
  if (!otherContents) {
    throw std::runtime_error(manifest_->path() + ": frames of pair " + std::to_string(pair) +
                             " have other contents than before; --redo computes again what differs");
  }
  return false;
}

bool KnownPairs::isDone(long pair, const std::vector<std::string>& files) {
  const auto [found, isNew] = done_.emplace(pair, false);
  if (isNew && pair + 1 < static_cast<long>(files.size())) {
    const auto at = static_cast<std::size_t>(pair);
    const std::string first = contentsOf(files[at]), second = contentsOf(files[at + 1]);
    found->second = isDone(pair, first, second, true);
  }
  return found->second;
}

}  // namespace tool
