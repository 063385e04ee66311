#include <climits>
#include <exception>
#include <optional>
#include <string>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

constexpr const char* kPCNameKey = "PC Name";
constexpr const char* kPCIDKey = "PC ID";

// "PC ID" is a decimal text read like a C int: leading digits, 0 for anything else,
// clamped to the int range. The identity was written from an int, so it reads back
// unchanged.
uint64_t identityNumber(const PropertyList* value) {
    if (!value)
        return 0;
    int64_t number = value->asInteger().value_or(0);
    if (number > INT_MAX)
        number = INT_MAX;
    if (number < INT_MIN)
        number = INT_MIN;
    return static_cast<uint64_t>(number);
}

// The identity a file holds; nothing when it is missing or damaged. An empty record is
// an identity too (the one we have stays).
std::optional<PlistDict> readIdentity(const std::string& file) {
    if (!CFileInfo::isFile(file))
        return std::nullopt;
    auto bytes = FileSystem::readFile(file);
    auto plist = bytes ? PropertyList::parse(*bytes) : std::nullopt;
    if (!plist || !plist->dict())
        return std::nullopt;
    return *plist->dict();
}

} // namespace

void CBackupManage::initMyID() {
    try {
        std::string productName =
            LoadString::GetValueByKey("ProductName", "Cirrovault Online Backup");
        std::string cacheRoot = LoadString::GetValueByKey("CacheRootFolderName", "Cirrovault");
        std::string folder = CFileInfo::MacPathAppend(
            CFileInfo::MacPathAppend(CFileInfo::getCurrentUserApplicationPath(), cacheRoot),
            productName);
        std::string file = CFileInfo::MacPathAppend(folder, "PCInfo.dat");
        // A second copy: every task made here names this identity, and a new one would
        // make all of them belong to "another computer".
        std::string copy = CFileInfo::MacPathAppend(folder, "PCInfo.copy");
        identityProblem.clear();

        auto stored = readIdentity(file);
        if (!stored && (CFileInfo::isFile(file) || CFileInfo::isFile(copy))) {
            if (auto kept = readIdentity(copy)) {
                // The damaged file is kept aside for a look, not overwritten.
                if (CFileInfo::isFile(file))
                    FileSystem::replaceItem(file, file + ".damaged");
                PropertyListFile::write(file, PropertyList(*kept));
                SystemLog::write("Error: PCInfo.dat was damaged or missing; restored from " + copy);
                stored = kept;
            } else {
                identityProblem = LoadString::FormatText(
                    LoadString::GetValueByKey(
                        "IdentityDamaged",
                        "this computer's identity {} is damaged and no good copy of it is kept; it is "
                        "left as it is. Tasks made here now show as made on another computer: `task "
                        "migrate NAME --to FOLDER` takes each one over, or put back a saved copy of "
                        "the file."),
                    file);
                SystemLog::write("Error: PCInfo.dat holds no identity: " + file);
                return;
            }
        }
        if (stored) {
            SystemLog::write("No error creating initMyID.");
            if (readIdentity(copy) != stored)
                PropertyListFile::write(copy, PropertyList(*stored));
            if (stored->empty())
                return;
            PropertyList plist(*stored);
            const PropertyList* name = plist.find(kPCNameKey);
            pcName = name && name->string() ? *name->string() : std::string();
            pcID = identityNumber(plist.find(kPCIDKey));
            return;
        }

        // First start on this computer: a new identity, written once and never again, so
        // that it survives renaming the computer.
        if (!CFileInfo::isDirectory(folder))
            CFileInfo::CreateSubDir(folder);
        CFileInfo::CreateFile(file);
        int identity = GlobalFunction::getRandom();
        pcID = static_cast<uint64_t>(static_cast<int64_t>(identity));
        pcName = GlobalFunction::getPCName();
        PropertyList record(PlistDict{{kPCIDKey, PropertyList(std::to_string(identity))},
                                      {kPCNameKey, PropertyList(pcName)}});
        if (PropertyListFile::write(file, record) && PropertyListFile::write(copy, record))
            SystemLog::write("No error saving pcINFO data.");
        else
            SystemLog::write("Error saving pcINFO data.");
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::initMyID()");
    }
}

} // namespace cirrovault
