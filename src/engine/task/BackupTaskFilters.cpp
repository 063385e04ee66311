#include <exception>
#include <string_view>

#include <utf8proc.h>

#include "engine/task/CBackupTask.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/ServerName.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemItems.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

// Unicode code points of a UTF-8 text, so that '?' stands for one character, not one
// byte. Bytes that are not valid UTF-8 count one each.
std::u32string codePoints(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto byte = static_cast<unsigned char>(text[i]);
        int length = byte < 0x80 ? 1 : (byte >> 5) == 6 ? 2 : (byte >> 4) == 14 ? 3
                                     : (byte >> 3) == 30                ? 4
                                                                        : 1;
        if (i + length > text.size())
            length = 1;
        char32_t point = length == 1 ? byte : byte & (0x7F >> length);
        for (int k = 1; k < length; ++k)
            point = (point << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        out.push_back(point);
        i += length;
    }
    return out;
}

// Case is ignored in every script. Upper then lower folds the letters with more than
// one small form too (final sigma, long s).
char32_t folded(char32_t c) {
    if (c < 0x80)
        return c >= U'A' && c <= U'Z' ? c + 32 : c;
    if (c > 0x10FFFF)
        return c;
    auto point = static_cast<utf8proc_int32_t>(c);
    return static_cast<char32_t>(utf8proc_tolower(utf8proc_toupper(point)));
}

// '*' matches any run of characters, '?' exactly one; nothing else is special.
bool like(const std::u32string& text, const std::u32string& pattern) {
    size_t t = 0, p = 0;
    size_t starP = std::u32string::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == U'?' || folded(pattern[p]) == folded(text[t]))) {
            ++t;
            ++p;
        } else if (p < pattern.size() && pattern[p] == U'*') {
            starP = p++;
            starT = t;
        } else if (starP != std::u32string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == U'*')
        ++p;
    return p == pattern.size();
}

} // namespace

std::string CBackupTask::RegexCombiningStrings(const std::string& entry, bool bFilterFolder) {
    try {
        if (entry.empty())
            return "";
        // A leading "*" would need no "*/" in front, but that test never answers true.
        if (RegexFindLeftCharacterFromStr(entry, "*"))
            return entry;
        if (!bFilterFolder)
            return "*/" + entry;
        if (RegexFindRightCharacterFromStr(entry, "*"))
            return "*/" + entry;
        return "*/" + entry + "/*";
    } catch (const std::exception&) {
        SystemLog::write("Error: RegexCombiningStrings");
        return "";
    }
}

bool CBackupTask::RegexFindLeftCharacterFromStr(const std::string&, const std::string&) {
    return false;
}

bool CBackupTask::RegexFindRightCharacterFromStr(const std::string& text,
                                                 const std::string& findCharacter) {
    if (text.empty() || findCharacter.empty())
        return false;
    return text.find_last_of(findCharacter) == text.size() - 1;
}

bool CBackupTask::RegexFun(const std::string& path, const std::vector<std::string>& filterArray,
                           bool bFilterFolder) {
    try {
        std::u32string subject = codePoints(bFilterFolder ? path + "/" : path);
        for (const auto& entry : filterArray) {
            if (entry.empty())
                continue;
            if (like(subject, codePoints(RegexCombiningStrings(entry, bFilterFolder))))
                return true;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: RegexFun");
    }
    return false;
}

bool CBackupTask::RegexBackupPathForServer(const std::string& path) {
    try {
        // Components as the path splits: the root "/" of an absolute path comes first
        // and is not tested, nor is the first name of a relative one.
        size_t start = 0;
        bool first = true;
        if (!path.empty() && path[0] == '/') {
            start = 1;
            first = false;
        }
        while (start <= path.size()) {
            size_t end = path.find('/', start);
            if (end == std::string::npos)
                end = path.size();
            std::string_view component(path.data() + start, end - start);
            if (!component.empty()) {
                // Refused characters are encoded on the way (ServerName); only a name
                // that its escapes make too long for the service is left out.
                if (!first && ServerName::encode(std::string(component)).size() >
                                  StorePath::MaxNameLength)
                    return true;
                first = false;
            }
            start = end + 1;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: RegexBackupPathForServer");
    }
    return false;
}

bool CBackupTask::CheckLocalPathSize(const std::string& path, uint64_t iCompareSize) {
    try {
        for (;;) {
            if (path.empty())
                return false;
            std::string volume = SystemItems().volumeOf(path);
            // The size of the disk, not its free space: a restore may replace files.
            uint64_t volumeSize = FileSystem::totalSpace(volume).value_or(0);
            if (volumeSize > iCompareSize)
                return true;
            std::string text = LoadString::Format(
                "RestoreNoSpace", Functions::FormatSizeToString(iCompareSize), path,
                Functions::FormatSizeToString(volumeSize), path);
            if (GlobalFunction::MessageBox(text, 1) != 0)
                return false;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CheckLocalPathSize");
        return false;
    }
}

} // namespace cirrovault
