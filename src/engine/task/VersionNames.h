#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cirrovault {

// How the older versions of a file are named in its version folder, and which file a
// name there belongs to. A version is the file's base name, a decimal number and its
// extension: "notes.txt" has "notes0.txt", "notes1.txt"; "n" has "n0", "n1". Such names
// can be read two ways ("n050" is "n0" + 50 or "n05" + 0), so a name belongs to the file
// beside it with the longest base it continues, and a file never takes a number whose
// name another file would claim.
class VersionNames {
public:
    // The name of version `number` of the file fileName; never longer than a file name
    // may be (a long base is cut and marked with a hash of the whole name).
    static std::string name(const std::string& fileName, uint64_t number);
    // The number `entry` has among the versions of fileName, given the names of the
    // files in fileName's folder (fileName itself may be among them); nullopt when the
    // entry is not one of fileName's versions.
    static std::optional<uint64_t> numberOf(const std::string& entry,
                                            const std::string& fileName,
                                            const std::vector<std::string>& siblings);
    // What fileName's version names begin with (its base, cut and marked when long).
    static std::string stemOf(const std::string& fileName);
    // The siblings that could claim a version name of fileName: passing only these to
    // numberOf gives the same answers, without a walk of a large folder each time.
    static std::vector<std::string> rivals(const std::string& fileName,
                                           const std::vector<std::string>& siblings);
};

} // namespace cirrovault
