#pragma once

#include <optional>
#include <string>
#include <vector>

#include "HostSession.h"
#include "platform/framework/PathInfo.h"

namespace cirrovault::cli {

// One older version of a file, kept in the task's history folder as baseK.ext.
struct FileVersion {
    int number = 0;
    PathInfo info;
};

// Where a task's files and their versions lie on the service, as the manager tells
// the restore view, and how the user's paths map onto them.
class RestoreSupport {
public:
    RestoreSupport(HostSession& session, const HostSession::TaskPtr& task);

    // A path the user gave (absolute local, or relative to the folder above the task's
    // first source: "Documents/a.txt") as a relative path with "/"; throws CliError
    // when it is outside the task.
    std::string relative(const std::string& path) const;
    std::string serverPathOf(const std::string& relativePath) const;
    // Every file of the task on the service, relative paths with "/", sorted.
    std::vector<std::pair<std::string, PathInfo>> files() const;
    // The older versions of one file, oldest number first.
    std::vector<FileVersion> versions(const std::string& relativePath) const;
    std::string versionPath(const std::string& relativePath, int number) const;
    std::string passPhraseFor(const std::string& serverPath) const;

    const std::string& serverFolder() const { return serverFolder_; }
    const std::string& historyFolder() const { return historyFolder_; }
    const std::string& localTop() const { return localTop_; }

private:
    std::string versionFolder(const std::string& relativePath) const;

    HostSession::TaskPtr task_;
    std::string serverFolder_;
    std::string historyFolder_;
    std::string localTop_;
};

} // namespace cirrovault::cli
