#include <climits>
#include <exception>
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

        if (CFileInfo::isFile(file)) {
            auto bytes = FileSystem::readFile(file);
            if (!bytes) {
                SystemLog::write("Error creating initMyID.");
                return;
            }
            SystemLog::write("No error creating initMyID.");
            // A damaged file reads as an empty identity: the one we have stays.
            auto plist = PropertyList::parse(*bytes);
            const PlistDict* dict = plist ? plist->dict() : nullptr;
            if (!dict) {
                SystemLog::write("Error: PCInfo.dat holds no identity: " + file);
                return;
            }
            if (dict->empty())
                return;
            const PropertyList* name = plist->find(kPCNameKey);
            pcName = name && name->string() ? *name->string() : std::string();
            pcID = identityNumber(plist->find(kPCIDKey));
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
        if (PropertyListFile::write(file, record))
            SystemLog::write("No error saving pcINFO data.");
        else
            SystemLog::write("Error saving pcINFO data.");
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::initMyID()");
    }
}

} // namespace cirrovault
