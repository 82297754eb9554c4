#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "sequence/manifest.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

struct StatusOptions {
  std::string folder;
  bool json = false;
};

/// What the manifests of a folder say together.
struct FolderStatus {
  std::string folder;
  long pairs = -1;  ///< negative: not known, since a stream is not at its end
  long done = 0, failed = 0;
  std::vector<int> missingShards;  ///< whose pairs are not all done
  int shards = 1;

  long missing() const { return pairs - done - failed; }
  bool complete() const { return pairs >= 0 && done == pairs; }
};

bool isManifest(const fs::path& path) {
  const std::string name = path.filename().string();
  return name == "tarvo.jsonl" || (name.rfind("tarvo-", 0) == 0 && path.extension() == ".jsonl");
}

/// Pairs that are done and that are failed.
std::pair<long, long> countPairs(const Manifest& manifest, const fs::path& folder) {
  long done = 0, failed = 0;
  for (const auto& [pair, place] : manifest.pairs()) {
    const Json record = manifest.record(pair);
    bool there = record.contains("outputs");
    if (there) {
      for (const auto& [kind, output] : record["outputs"].items()) {
        std::error_code error;
        const auto size = fs::file_size(folder / output.at(0).get<std::string>(), error);
        there = there && !error && size == output.at(1).get<unsigned long>();
      }
      done += there ? 1 : 0;
    } else {
      ++failed;
    }
  }
  return {done, failed};
}

FolderStatus statusOf(const fs::path& folder, std::vector<fs::path> manifests) {
  FolderStatus status;
  status.folder = folder.string();
  std::sort(manifests.begin(), manifests.end());
  std::map<int, long> doneBy;  // pairs done by each shard
  for (const fs::path& path : manifests) {
    const Manifest manifest(path.string());
    const Json& header = manifest.header();
    if (header.is_null()) continue;
    if (header.contains("pairs") && header["pairs"].is_number_integer())
      status.pairs = header["pairs"].get<long>();
    const auto [done, failed] = countPairs(manifest, folder);
    status.done += done;
    status.failed += failed;
    if (!header.contains("shard")) continue;
    const int shards = header["shard"].at(1).get<int>();
    if (status.shards != 1 && status.shards != shards) {
      throw std::runtime_error(folder.string() + ": its manifests are of " + std::to_string(status.shards) +
                               " and of " + std::to_string(shards) + " shards");
    }
    status.shards = shards;
    doneBy[header["shard"].at(0).get<int>()] = done;
  }
  for (int k = 1; status.shards > 1 && k <= status.shards; ++k) {
    const long wanted = status.pairs * k / status.shards - status.pairs * (k - 1) / status.shards;
    if (doneBy[k] < wanted) status.missingShards.push_back(k);
  }
  return status;
}

/// "1,4-6"
std::string numbersText(const std::vector<int>& numbers) {
  std::string text;
  for (std::size_t k = 0; k < numbers.size();) {
    std::size_t end = k + 1;
    while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1) ++end;
    text += (text.empty() ? "" : ",") + std::to_string(numbers[k]);
    if (end - k > 1) text += "-" + std::to_string(numbers[end - 1]);
    k = end;
  }
  return text;
}

/// All folders with a manifest: the named one, or those in it.
std::vector<FolderStatus> findStatus(const std::string& root) {
  std::error_code error;
  if (!fs::is_directory(root, error)) throw std::runtime_error(root + ": there is no such folder");
  std::map<fs::path, std::vector<fs::path>> manifests;
  const auto look = [&](const fs::path& folder) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      if (isManifest(entry.path())) manifests[folder].push_back(entry.path());
    }
  };
  look(root);
  for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
    if (entry.is_directory()) look(entry.path());
  }
  if (manifests.empty())
    throw std::runtime_error(root + ": there is no manifest (tarvo.jsonl) of a sequence");
  std::vector<FolderStatus> all;
  all.reserve(manifests.size());
  for (const auto& [folder, files] : manifests) all.push_back(statusOf(folder, files));
  return all;
}

void print(const FolderStatus& status) {
  std::printf("%s: %ld done, %ld failed", status.folder.c_str(), status.done, status.failed);
  if (status.pairs < 0) {
    std::printf("; the sequence is not at its end\n");
  } else {
    std::printf(", %ld missing of %ld pairs\n", status.missing(), status.pairs);
  }
  if (!status.missingShards.empty()) {
    std::printf("shards to do again: --array=%s (of %d)\n", numbersText(status.missingShards).c_str(),
                status.shards);
  }
}

Json describe(const FolderStatus& status) {
  Json json{{"folder", status.folder}, {"done", status.done}, {"failed", status.failed}};
  json["pairs"] = status.pairs < 0 ? Json() : Json(status.pairs);
  json["missing"] = status.pairs < 0 ? Json() : Json(status.missing());
  json["complete"] = status.complete();
  if (status.shards > 1) json["missing_shards"] = status.missingShards;
  return json;
}

void status(const StatusOptions& options) {
  const std::vector<FolderStatus> all = findStatus(options.folder);
  for (const FolderStatus& folder : all) {
    if (options.json) {
      std::fputs(lineOf(describe(folder)).c_str(), stdout);
    } else {
      print(folder);
    }
  }
  if (!std::all_of(all.begin(), all.end(), [](const FolderStatus& folder) { return folder.complete(); })) {
    throw std::runtime_error(options.folder + ": not complete");
  }
}

}  // namespace

void addStatus(CLI::App& app, Verbosity& verbosity) {
  CLI::App* const command =
      app.add_subcommand("status", "Tells what of a sequence is done, has failed or is missing");
  command->footer(
      "Results are taken as done if they are there with their size. Exit status 0 if all pairs are done, "
      "else 1.");
  const auto options = std::make_shared<StatusOptions>();
  command->add_option("FOLDER", options->folder, "Folder that 'tarvo sequence -o' named")
      ->required()
      ->type_name("");
  command->add_flag("--json", options->json, "A line of JSON for each clip");
  addVerbosity(*command, verbosity);
  command->callback([options] { status(*options); });
}

}  // namespace tool
