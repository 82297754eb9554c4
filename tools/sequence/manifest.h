#pragma once

#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

namespace tool {

using Json = nlohmann::ordered_json;

/// Part `number` of `count` of a sequence, from 1.
struct Shard {
  int number = 1, count = 1;
};

/// The manifest's name in the folder of the results: "tarvo.jsonl", or "tarvo-03of16.jsonl" of a shard.
std::string manifestName(const Shard& shard);

/// What a run has done, in a file of JSON lines beside its results. The first line is the header: what was
/// computed, and "pairs", the number of pairs of the run, once that is known. Each other line is the record of a
/// pair, written after its outputs have their names. Once the run is over the records are in the order of their
/// pairs, so that the file does not depend on how it came about.
class Manifest {
 public:
  /// Reads what is there, if there is a file. A last line that was not finished is ignored.
  /// @throws std::runtime_error  naming the file, if it is no manifest
  explicit Manifest(std::string path);

  const std::string& path() const { return path_; }
  /// Null where there was no file.
  const Json& header() const { return header_; }
  /// Where the record of each pair is; of several the last.
  const std::map<long, std::streamoff>& pairs() const { return places_; }
  /// The record of one of pairs().
  Json record(long pair) const;

  /// Begins the file with this header and the records that are there, less those that `keep` refuses.
  void start(const Json& header, const std::function<bool(long pair)>& keep);
  /// Adds the record of a pair.
  void add(const Json& record);
  /// Brings the records in order, without those of more pairs, and writes the number of pairs.
  void finish(long pairs);

 private:
  void rewrite(const std::function<bool(long pair)>& keep);

  std::string path_;
  Json header_;
  std::map<long, std::streamoff> places_;
  std::ofstream file_;
};

/// A line of a file of JSON lines.
std::string lineOf(const Json& json);

}  // namespace tool
