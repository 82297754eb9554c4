#include "sequence/manifest.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "sequence/whole_file.h"

namespace tool {

namespace {

/// What a line holds, or null where it is not one that this file's writer has finished.
Json parse(const std::string& line) {
  Json json = Json::parse(line, nullptr, false);
  return json.is_object() ? json : Json();
}

}  // namespace

std::string manifestName(const Shard& shard) {
  if (shard.count == 1) return "tarvo.jsonl";
  const std::string count = std::to_string(shard.count), number = std::to_string(shard.number);
  return "tarvo-" + std::string(count.size() - number.size(), '0') + number + "of" + count + ".jsonl";
}

std::string lineOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Manifest::Manifest(std::string path) : path_(std::move(path)) {
  std::ifstream file(path_, std::ios::binary);
  if (!file) return;
  std::string line;
  for (std::streamoff place = 0; std::getline(file, line); place = file.tellg()) {
    if (file.eof()) break;  // without its end
    const Json json = parse(line);
    if (header_.is_null()) {
      if (!json.contains("tarvo")) throw std::runtime_error(path_ + ": is no manifest of tarvo");
      header_ = json;
    } else if (json.contains("pair") && json["pair"].is_number_integer()) {
      places_[json["pair"].get<long>()] = place;
    }
  }
}

Json Manifest::record(long pair) const {
  std::ifstream file(path_, std::ios::binary);
  file.seekg(places_.at(pair));
  std::string line;
  std::getline(file, line);
  return parse(line);
}

void Manifest::rewrite(const std::function<bool(long pair)>& keep) {
  file_.close();
  std::map<long, std::streamoff> places;
  std::ifstream before(path_, std::ios::binary);
  writeWhole(path_, [&](std::FILE* after) {
    std::streamoff place = 0;
    const auto put = [&](const std::string& line) {
      if (std::fwrite(line.data(), 1, line.size(), after) != line.size()) {
        throw std::runtime_error(std::strerror(errno));
      }
      place += static_cast<std::streamoff>(line.size());
    };
    put(lineOf(header_));
    std::string line;
    for (const auto& [pair, where] : places_) {
      if (!keep(pair)) continue;
      before.seekg(where);
      std::getline(before, line);
      places[pair] = place;
      put(line + "\n");
    }
  });
  places_ = std::move(places);
  file_.open(path_, std::ios::binary | std::ios::app);
}

void Manifest::start(const Json& header, const std::function<bool(long pair)>& keep) {
  header_ = header;
  rewrite(keep);
}

void Manifest::add(const Json& record) {
  const std::string line = lineOf(record);
  file_.seekp(0, std::ios::end);
  const std::streamoff place = file_.tellp();
  file_ << line << std::flush;
  if (!file_) throw std::runtime_error(path_ + ": cannot be written (" + std::strerror(errno) + ")");
  places_[record.at("pair").get<long>()] = place;
}

void Manifest::finish(long pairs) {
  header_["pairs"] = pairs;
  rewrite([pairs](long pair) { return pair < pairs; });
}

}  // namespace tool
