#include <tarvo/tarvo.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/flow_io.h"
#include "evaluation/evaluation.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

struct Options {
  std::vector<std::string> files;  ///< inputs; without a format the input and the output
  std::string format;
  std::string folder;  ///< where outputs go; empty: beside the inputs
  FlowWriteOptions write;
};

struct Conversion {
  std::string from, to;
  const FlowFormat* format;
};

/// One name for all names of a file, which need not exist.
std::string canonical(const std::string& path) {
  std::error_code error;
  const fs::path found = fs::weakly_canonical(fs::absolute(path, error), error);
  return error ? path : found.string();
}

/// Refuses outputs that are inputs, or the outputs of others.
void checkNames(const std::vector<Conversion>& conversions) {
  std::map<std::string, std::string> outputs;  // whose they are
  std::set<std::string> inputs;
  for (const Conversion& conversion : conversions) inputs.insert(canonical(conversion.from));
  for (const Conversion& conversion : conversions) {
    const std::string name = canonical(conversion.to);
    if (inputs.count(name) > 0) throw UsageError{conversion.to + " is an input, which is not overwritten"};
    const auto [other, added] = outputs.emplace(name, conversion.from);
    if (!added) {
      throw UsageError{other->second + " and " + conversion.from + " would both become " + conversion.to};
    }
  }
}

std::vector<Conversion> conversionsOf(const Options& options) {
  if (options.format.empty()) {
    if (!options.folder.empty()) throw UsageError{"--output takes --to"};
    if (options.files.size() != 2) {
      throw UsageError{"one input and one output are needed, or inputs and --to; got " +
                       std::to_string(options.files.size()) + " names"};
    }
    return {{options.files[0], options.files[1], formatOfFile(options.files[1])}};
  }
  const FlowFormat* const format = formatNamed(options.format);
  std::vector<Conversion> conversions;
  for (const std::string& file : options.files) {
    const fs::path input(file);
    const fs::path folder = options.folder.empty() ? input.parent_path() : fs::path(options.folder);
    conversions.push_back({file, (folder / input.stem()).string() + endingOf(*format), format});
  }
  return conversions;
}

void convertOne(const Conversion& conversion, const FlowWriteOptions& options, const Verbosity& verbosity) {
  OutputFiles outputs({{"OUT", conversion.to, flowEndings()}}, {conversion.from});
  const CTensor<float> flow = readFlowFile(conversion.from, verbosity);
  writeFlowFile(outputs, conversion.to, flow, *conversion.format, options, verbosity);
  outputs.commit();
  if (verbosity.quiet) return;
  long unknown = 0;
  const float* const u = flow.data();
  for (int i = 0; i < flow.size() / 2; ++i) unknown += !isKnown(u[i], u[i + flow.size() / 2]);
  std::printf("%s: %s pixels, %ld unknown: %s\n", conversion.from.c_str(),
              sizeText(flow.sizeX(), flow.sizeY()).c_str(), unknown, conversion.to.c_str());
}

void convert(const Options& options, const Verbosity& verbosity) {
  const std::vector<Conversion> conversions = conversionsOf(options);
  checkNames(conversions);
  std::error_code ignored;  // a failure shows below
  if (!options.folder.empty()) fs::create_directories(options.folder, ignored);
  routeReport(verbosity, false);
  if (conversions.size() == 1) {
    convertOne(conversions[0], options.write, verbosity);
    return;
  }
  std::size_t failed = 0;
  const auto report = [&failed](const char* text) {
    std::fprintf(stderr, "tarvo: %s\n", text);
    ++failed;
  };
  for (const Conversion& conversion : conversions) {
    try {
      convertOne(conversion, options.write, verbosity);
    } catch (const std::bad_alloc&) {
      report((conversion.from + ": there is not enough memory").c_str());
    } catch (const UsageError& error) {
      report(error.message.c_str());
    } catch (const std::exception& failure) {
      report(failure.what());
    }
  }
  if (failed > 0) {
    throw std::runtime_error(std::to_string(failed) + " of " + std::to_string(conversions.size()) +
                             " files could not be converted");
  }
}

std::string footer() {
  std::string text = "The endings of IN and OUT tell the formats. Formats:\n";
  for (const FlowFormat& format : flowFormats()) {
    const std::string name = format.name;
    text += "  " + name + std::string(7 - name.size(), ' ') + format.ending + "  " + format.text + "\n";
  }
  return text +
         "With --to, a file that cannot be converted is reported, the others are converted, and the exit "
         "status is 1.";
}

}  // namespace

void addConvert(CLI::App& app, Verbosity& verbosity) {
  CLI::App* const command = app.add_subcommand("convert", "Changes the format of flow files");
  command->footer(footer());
  const auto options = std::make_shared<Options>();
  command->add_option("FILES", options->files, "IN OUT, or with --to any number of inputs")
      ->required()
      ->type_name("");
  std::vector<std::string> names;
  for (const FlowFormat& format : flowFormats()) names.emplace_back(format.name);
  command
      ->add_option("--to", options->format,
                   "Format of the outputs, which have the names of the inputs with its ending")
      ->check(CLI::IsMember(names))
      ->type_name("FORMAT");
  command
      ->add_option("-o,--output", options->folder,
                   "Folder of the outputs, made if need be (default: beside the inputs)")
      ->type_name("FOLDER");
  if (formatNamed("exr")) {
    command
        ->add_option_function<std::string>(
            "--exr-v", [options](const std::string& way) { options->write.exrUp = way == "up"; },
            "Where v points in OpenEXR files that are written")
        ->check(CLI::IsMember({"up", "down"}))
        ->default_str("up")
        ->type_name("WAY");
  }
  addVerbosity(*command, verbosity);
  command->callback([options, &verbosity] { convert(*options, verbosity); });
}

}  // namespace tool
