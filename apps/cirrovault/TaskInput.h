#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault::cli {

// Settings of a task as given on the command line, checked before anything is sent.
struct TaskInput {
    std::vector<std::string> sources;
    std::string description;
    std::string schedule; // "" = unchanged (edit) or none (new)
    std::string time;     // HH:MM
    std::string weekday;
    std::string from;
    std::string until;
    std::vector<std::string> excludeExt;
    std::vector<std::string> excludeFolder;
    std::string excludeFrom; // a file of patterns, added to the two lists by check()
    // edit: patterns to drop from the task
    std::vector<std::string> noExcludeExt;
    std::vector<std::string> noExcludeFolder;
    bool encrypt = false;
    bool skipHidden = false;   // leave out every dot-name
    bool backUpHidden = false; // edit: back dot-names up again

    // Checked values; filled by check().
    std::vector<std::string> absoluteSources;
    std::optional<int32_t> kind;
    std::optional<int> minutes; // time of day
    std::optional<int> weekdayNumber;
    std::optional<Date> fromDate;
    std::optional<Date> untilDate;

    // Throws CliError (bad input) naming the first thing that is wrong.
    void check();
    // The first run the user asked for: today (or the chosen weekday) at the time,
    // default half an hour from now.
    Date firstRun() const;
};

// The patterns of an exclusion file: one a line; blank lines and lines starting with "#"
// are skipped; a line ending in "/" names folders (the "/" dropped), any other names
// files. Throws CliError (bad input) when the file cannot be read.
void readExclusionFile(const std::string& path, std::vector<std::string>& files,
                       std::vector<std::string>& folders);

// The absolute, symlink-free path of a folder that must exist; throws CliError.
std::string existingFolder(const std::string& path);

} // namespace cirrovault::cli
