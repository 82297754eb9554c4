#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "commands/console.h"
#include "frames/clips.h"
#include "sequence/film.h"

/// The pictures and the clip of "tarvo sequence".
namespace tool {

/// --color and what belongs to it; `film` must live until the line is parsed.
void addFilm(CLI::App& command, FilmJob& film);

/// Tests before anything is computed that the film can be made: throws UsageError where options or clips do not go
/// together, std::runtime_error where the file cannot be written. Does nothing without --color.
void checkFilm(const FilmJob& film, const PairJob& job, const std::vector<Clip>& clips,
               const std::string& folder);

/// Makes the film of what is done and tells of it; of shards, once all of them are done.
/// @param frames  null unless film.needsFrames()
void makeFilm(const FilmJob& film, const PairJob& job, const Shard& shard,
              std::unique_ptr<FrameSource> frames, const Verbosity& verbosity, bool toldByJson);

}  // namespace tool
