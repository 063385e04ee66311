#include "platform/framework/PasswordMan.h"

#include <mutex>

#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/Host.h"
#include "platform/os/Keyring.h"
#include "platform/os/SecretMemory.h"
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
// Marks an entry whose secret is in the desktop keyring: the file then keeps only what
// is not secret (the key paths, the flags, the user name).
const char* const kInKeyring = "InKeyring";
const char* const kMail = "MailServer";
const char* const kAccountKind = "account";
const char* const kMailKind = "mail";
const char* const kPhraseKind = "phrase";

// Wipes every text of a parsed store: the file's secrets are not left in freed memory.
void wipeTree(PropertyList& node) {
    if (auto* dict = node.dict()) {
        for (auto& [key, value] : *dict)
            wipeTree(value);
    } else if (std::string* text = node.string()) {
        SecretMemory::wipe(*text);
    }
}

// A parsed store that wipes its texts when it goes.
struct StoreRoot {
    std::optional<PropertyList> root;
    ~StoreRoot() {
        if (root)
            wipeTree(*root);
    }
};

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
    if (bytes)
        SecretMemory::wipe(*bytes);
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

bool inKeyring(const PropertyList* entry) {
    const PropertyList* flag = entry ? entry->find(kInKeyring) : nullptr;
    return flag && flag->asBool().value_or(false);
}

// Whether the entry holds a secret, in the file or in the keyring.
bool hasSecret(const PropertyList* entry) {
    return textOf(entry, kPassword).has_value() || inKeyring(entry);
}

// The entry's secret: from the file, or from the keyring the entry points to.
std::optional<std::string> secretOf(const PropertyList* entry, const char* kind,
                                    const std::string& key) {
    if (auto text = textOf(entry, kPassword))
        return text;
    if (!inKeyring(entry))
        return std::nullopt;
    auto secret = Keyring::lookup(kind, key);
    if (!secret)
        SystemLog::write(std::string("Error: a secret kept in the desktop keyring cannot be read (") +
                         kind + " " + key + ")");
    return secret;
}

// Keeps secret in the keyring when one answers, else in the entry itself (the owner-only
// file). A secret of the same name left in the keyring by an earlier write is removed
// when the file takes over, so that the two never disagree.
void putSecret(PlistDict& entry, bool wasInKeyring, const char* kind, const std::string& key,
               const std::string& label, const std::string& secret) {
    if (Keyring::store(kind, key, label, secret)) {
        entry[kInKeyring] = PropertyList(true);
        return;
    }
    if (wasInKeyring)
        Keyring::remove(kind, key);
    entry[kPassword] = PropertyList(secret);
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
    SecretMemory::protectProcess();
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
    StoreRoot held{std::move(root)};
    if (!change(*held.root->dict()))
        return false;
    std::string xml = held.root->toXml();
    bool written = FileSystem::writePrivateFileAtomically(path, xml);
    SecretMemory::wipe(xml);
    if (!written) {
        SystemLog::write("Error: cannot write the pass-phrase store " + path);
        return false;
    }
    return true;
}

StoreRoot currentStore() {
    std::lock_guard lock(gMutex);
    SecretMemory::protectProcess();
    return StoreRoot{readStore(PasswordMan::PasswordFilePath())};
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
            PlistDict& phrases = groupOf(root, kPhrases);
            auto old = phrases.find(keyPath);
            bool wasInKeyring = old != phrases.end() && inKeyring(&old->second);
            PlistDict entry{{kIsEncrypt, PropertyList(isEncrypt)}};
            putSecret(entry, wasInKeyring, kPhraseKind, keyPath, "Cirrovault pass phrase " + keyPath,
                      inPassword);
            phrases[keyPath] = PropertyList(std::move(entry));
            return true;
        });
    });
}

std::optional<std::string> PasswordMan::GetPassword(const std::string& keyPath) const {
    using Text = std::optional<std::string>;
    return guarded("Error: PasswordMan::GetPassword", Text(), [&]() -> Text {
        StoreRoot store = currentStore();
        return store.root ? secretOf(findEntry(*store.root, kPhrases, keyPath), kPhraseKind, keyPath)
                          : std::nullopt;
    });
}

std::optional<bool> PasswordMan::IsEncrypt(const std::string& keyPath) const {
    using Flag = std::optional<bool>;
    return guarded("Error: PasswordMan::IsEncrypt", Flag(), [&]() -> Flag {
        StoreRoot store = currentStore();
        const PropertyList* entry = store.root ? findEntry(*store.root, kPhrases, keyPath) : nullptr;
        if (!hasSecret(entry))
            return std::nullopt;
        const PropertyList* flag = entry->find(kIsEncrypt);
        return flag ? flag->asBool().value_or(false) : false;
    });
}

std::optional<std::string> PasswordMan::FindPasswordForPath(const std::string& path) const {
    using Text = std::optional<std::string>;
    return guarded("Error: PasswordMan::FindPasswordForPath", Text(), [&]() -> Text {
        StoreRoot store = currentStore();
        const PropertyList* phrases = store.root ? store.root->find(kPhrases) : nullptr;
        if (!phrases || !phrases->isDict())
            return std::nullopt;
        const std::string* bestKey = nullptr;
        const PropertyList* best = nullptr;
        for (const auto& [keyPath, entry] : *phrases->dict()) {
            if (!isUnder(path, keyPath) || (bestKey && keyPath.size() <= bestKey->size()))
                continue;
            if (hasSecret(&entry)) {
                bestKey = &keyPath;
                best = &entry;
            }
        }
        return best ? secretOf(best, kPhraseKind, *bestKey) : std::nullopt;
    });
}

bool PasswordMan::RemovePassword(const std::string& keyPath) {
    return guarded("Error: PasswordMan::RemovePassword", false, [&] {
        return modifyStore([&](PlistDict& root) {
            PlistDict& phrases = groupOf(root, kPhrases);
            auto old = phrases.find(keyPath);
            if (old != phrases.end() && inKeyring(&old->second) && !Keyring::remove(kPhraseKind, keyPath))
                SystemLog::write("Error: a pass phrase could not be removed from the desktop keyring: " +
                                 keyPath);
            phrases.erase(keyPath);
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
            bool wasInKeyring = inKeyring(root.count(kAccount) ? &root[kAccount] : nullptr);
            PlistDict entry{{kUserName, PropertyList(userName)}};
            // One account is kept: its secret is filed under the account kind alone, so that
            // a change of user replaces it rather than leaving the old one behind.
            putSecret(entry, wasInKeyring, kAccountKind, "", "Cirrovault account " + userName, password);
            root[kAccount] = PropertyList(std::move(entry));
            return true;
        });
    });
}

std::optional<AccountCredentials> PasswordMan::GetAccount() const {
    using Account = std::optional<AccountCredentials>;
    return guarded("Error: PasswordMan::GetAccount", Account(), [&]() -> Account {
        StoreRoot store = currentStore();
        const PropertyList* account = store.root ? store.root->find(kAccount) : nullptr;
        auto userName = textOf(account, kUserName);
        if (!userName || userName->empty())
            return std::nullopt;
        auto password = secretOf(account, kAccountKind, "");
        if (!password)
            return std::nullopt;
        return AccountCredentials{*userName, std::move(*password)};
    });
}

bool PasswordMan::AccountInKeyring() const {
    return guarded("Error: PasswordMan::AccountInKeyring", false, [&] {
        StoreRoot store = currentStore();
        return store.root && inKeyring(store.root->find(kAccount));
    });
}

bool PasswordMan::RemoveAccount() {
    return guarded("Error: PasswordMan::RemoveAccount", false, [&] {
        return modifyStore([&](PlistDict& root) {
            if (root.count(kAccount) && inKeyring(&root[kAccount]) && !Keyring::remove(kAccountKind, ""))
                SystemLog::write("Error: the account could not be removed from the desktop keyring");
            root.erase(kAccount);
            return true;
        });
    });
}

bool PasswordMan::SetMailPassword(const std::string& password) {
    return guarded("Error: PasswordMan::SetMailPassword", false, [&] {
        if (password.empty())
            return RemoveMailPassword();
        return modifyStore([&](PlistDict& root) {
            bool wasInKeyring = inKeyring(root.count(kMail) ? &root[kMail] : nullptr);
            PlistDict entry;
            putSecret(entry, wasInKeyring, kMailKind, "", "Cirrovault report mail server", password);
            root[kMail] = PropertyList(std::move(entry));
            return true;
        });
    });
}

std::optional<std::string> PasswordMan::GetMailPassword() const {
    using Text = std::optional<std::string>;
    return guarded("Error: PasswordMan::GetMailPassword", Text(), [&]() -> Text {
        StoreRoot store = currentStore();
        return store.root ? secretOf(store.root->find(kMail), kMailKind, "") : std::nullopt;
    });
}

bool PasswordMan::RemoveMailPassword() {
    return guarded("Error: PasswordMan::RemoveMailPassword", false, [&] {
        return modifyStore([&](PlistDict& root) {
            if (root.count(kMail) && inKeyring(&root[kMail]) && !Keyring::remove(kMailKind, ""))
                SystemLog::write("Error: the mail server's password could not be removed from the desktop keyring");
            root.erase(kMail);
            return true;
        });
    });
}

} // namespace cirrovault
