#include "platform/framework/PasswordMan.h"

#include <mutex>

#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

// Serialises read-modify-write of the file within this process.
std::mutex gMutex;

const char* const kPhrases = "PassPhrases";
const char* const kAccount = "Account";
const char* const kPassword = "Password";
const char* const kIsEncrypt = "IsEncrypt";
const char* const kUserName = "UserName";

// The store's root dictionary: empty when there is no file yet, nothing when the file
// cannot be read or is not a property-list dictionary.
std::optional<PropertyList> readStore(const std::string& path) {
    auto status = FileSystem::linkStatus(path);
    if (!status)
        return PropertyList(PlistDict{});
    if ((status->mode & 077) != 0)
        SystemLog::write("Warning: the pass-phrase store is readable by other users: " + path);
    auto bytes = FileSystem::readFile(path);
    auto root = bytes ? PropertyList::parse(*bytes) : std::nullopt;
    if (!root || !root->isDict()) {
        SystemLog::write("Error: the pass-phrase store cannot be read: " + path);
        return std::nullopt;
    }
    return root;
}

const PropertyList* findEntry(const PropertyList& root, const char* group, const std::string& key) {
    const PropertyList* entries = root.find(group);
    return entries ? entries->find(key) : nullptr;
}

std::optional<std::string> textOf(const PropertyList* entry, const char* field) {
    const PropertyList* value = entry ? entry->find(field) : nullptr;
    const std::string* text = value ? value->string() : nullptr;
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

// A group of the root, made an empty dictionary when it is missing or malformed.
PlistDict& groupOf(PlistDict& root, const char* group) {
    PropertyList& entry = root[group];
    if (!entry.isDict())
        entry = PropertyList(PlistDict{});
    return *entry.dict();
}

// Reads the store, lets change edit it, and writes it back owner-only. A damaged file
// is kept beside the new one rather than overwritten: it may still hold pass phrases
// that encrypted data cannot be read without.
template <typename Change>
bool modifyStore(Change&& change) {
    std::lock_guard lock(gMutex);
    std::string path = PasswordMan::PasswordFilePath();
    if (!FileSystem::createDirectories(Host::configFolder() + "/cirrovault")) {
        SystemLog::write("Error: cannot create the configuration folder");
        return false;
    }
    std::optional<PropertyList> root = readStore(path);
    if (!root) {
        std::string aside = path + ".damaged";
        if (!FileSystem::replaceItem(path, aside)) {
            SystemLog::write("Error: cannot move the damaged pass-phrase store aside");
            return false;
        }
        SystemLog::write("Error: damaged pass-phrase store moved to " + aside);
        root = PropertyList(PlistDict{});
    }
    if (!change(*root->dict()))
        return false;
    if (!FileSystem::writePrivateFileAtomically(path, root->toXml())) {
        SystemLog::write("Error: cannot write the pass-phrase store " + path);
        return false;
    }
    return true;
}

std::optional<PropertyList> currentStore() {
    std::lock_guard lock(gMutex);
    return readStore(PasswordMan::PasswordFilePath());
}

bool isUnder(const std::string& path, const std::string& keyPath) {
    if (keyPath.empty() || path.compare(0, keyPath.size(), keyPath) != 0)
        return false;
    return path.size() == keyPath.size() || path[keyPath.size()] == '\\' ||
           path[keyPath.size()] == '/';
}

} // namespace

std::string PasswordMan::PasswordFilePath() {
    return Host::configFolder() + "/cirrovault/passwords.plist";
}

bool PasswordMan::SetPassword(const std::string& keyPath, bool isEncrypt,
                              const std::string& inPassword) {
    return guarded("Error: PasswordMan::SetPassword", false, [&] {
        if (keyPath.empty() || inPassword.empty()) {
            SystemLog::write("Error: PasswordMan::SetPassword needs a key path and a pass phrase");
            return false;
        }
        return modifyStore([&](PlistDict& root) {
            groupOf(root, kPhrases)[keyPath] = PropertyList(
                PlistDict{{kPassword, PropertyList(inPassword)}, {kIsEncrypt, PropertyList(isEncrypt)}});
            return true;
        });
    });
}

std::optional<std::string> PasswordMan::GetPassword(const std::string& keyPath) const {
    using Text = std::optional<std::string>;
    return guarded("Error: PasswordMan::GetPassword", Text(), [&]() -> Text {
        auto root = currentStore();
        return root ? textOf(findEntry(*root, kPhrases, keyPath), kPassword) : std::nullopt;
    });
}

std::optional<bool> PasswordMan::IsEncrypt(const std::string& keyPath) const {
    using Flag = std::optional<bool>;
    return guarded("Error: PasswordMan::IsEncrypt", Flag(), [&]() -> Flag {
        auto root = currentStore();
        const PropertyList* entry = root ? findEntry(*root, kPhrases, keyPath) : nullptr;
        if (!textOf(entry, kPassword))
            return std::nullopt;
        const PropertyList* flag = entry->find(kIsEncrypt);
        return flag ? flag->asBool().value_or(false) : false;
    });
}

std::optional<std::string> PasswordMan::FindPasswordForPath(const std::string& path) const {
    using Text = std::optional<std::string>;
    return guarded("Error: PasswordMan::FindPasswordForPath", Text(), [&]() -> Text {
        auto root = currentStore();
        const PropertyList* phrases = root ? root->find(kPhrases) : nullptr;
        if (!phrases || !phrases->isDict())
            return std::nullopt;
        Text best;
        size_t bestLength = 0;
        for (const auto& [keyPath, entry] : *phrases->dict()) {
            if (!isUnder(path, keyPath) || keyPath.size() <= bestLength)
                continue;
            if (auto phrase = textOf(&entry, kPassword)) {
                best = std::move(phrase);
                bestLength = keyPath.size();
            }
        }
        return best;
    });
}

bool PasswordMan::RemovePassword(const std::string& keyPath) {
    return guarded("Error: PasswordMan::RemovePassword", false, [&] {
        return modifyStore([&](PlistDict& root) {
            groupOf(root, kPhrases).erase(keyPath);
            return true;
        });
    });
}

bool PasswordMan::SetAccount(const std::string& userName, const std::string& password) {
    return guarded("Error: PasswordMan::SetAccount", false, [&] {
        if (userName.empty()) {
            SystemLog::write("Error: PasswordMan::SetAccount needs a user name");
            return false;
        }
        return modifyStore([&](PlistDict& root) {
            root[kAccount] = PropertyList(
                PlistDict{{kUserName, PropertyList(userName)}, {kPassword, PropertyList(password)}});
            return true;
        });
    });
}

std::optional<AccountCredentials> PasswordMan::GetAccount() const {
    using Account = std::optional<AccountCredentials>;
    return guarded("Error: PasswordMan::GetAccount", Account(), [&]() -> Account {
        auto root = currentStore();
        const PropertyList* account = root ? root->find(kAccount) : nullptr;
        auto userName = textOf(account, kUserName);
        auto password = textOf(account, kPassword);
        if (!userName || userName->empty() || !password)
            return std::nullopt;
        return AccountCredentials{*userName, *password};
    });
}

bool PasswordMan::RemoveAccount() {
    return guarded("Error: PasswordMan::RemoveAccount", false, [&] {
        return modifyStore([&](PlistDict& root) {
            root.erase(kAccount);
            return true;
        });
    });
}

} // namespace cirrovault
