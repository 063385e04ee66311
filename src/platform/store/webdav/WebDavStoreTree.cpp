// The tree operations of the WebDAV store: stat, list, folders, move, copy, remove.
#include <algorithm>
#include <exception>

#include "platform/os/ResultCodes.h"
#include "platform/os/UrlCoding.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault {

namespace {

constexpr std::string_view PartSuffix = ".part";

bool endsWithPart(const std::string& name) {
    return name.size() > PartSuffix.size() &&
           name.compare(name.size() - PartSuffix.size(), PartSuffix.size(), PartSuffix) == 0;
}

// The name of an entry of a depth-1 listing of the folder at selfPath; nullopt for the
// folder itself and for anything not directly inside it.
std::optional<std::string> childName(std::string selfPath, const std::string& path) {
    if (selfPath == "/")
        selfPath.clear();
    if (path.size() <= selfPath.size() + 1 || path.compare(0, selfPath.size(), selfPath) != 0 ||
        path[selfPath.size()] != '/')
        return std::nullopt;
    std::string name = path.substr(selfPath.size() + 1);
    if (name.find('/') != std::string::npos)
        return std::nullopt;
    return name;
}

std::string xmlEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// When folder figures are counted, for their age.
double secondsNow() {
    return Clock::shared().now().timeIntervalSince1970();
}

} // namespace

bool WebDavStore::isHidden(const std::vector<std::string>& parent, const DavResource& resource,
                           const std::string& name) const {
    if (parent.empty() && name == MetaFolder)
        return true;
    if (!resource.collection && name == WebDavMetaDocument::FileName)
        return true;
    auto tag = resource.property(Namespace, "resumetag");
    return !resource.collection && endsWithPart(name) && tag && !tag->empty();
}

StoreItem WebDavStore::itemOf(const DavResource& resource, const std::string& name) const {
    StoreItem item;
    item.name = name;
    item.isFolder = resource.collection;
    if (!item.isFolder)
        item.size = resource.contentLength.value_or(0);
    item.modifyTime = resource.lastModified.value_or(Date());
    if (auto kept = resource.property(Namespace, "mtime"); kept && !kept->empty()) {
        char* end = nullptr;
        double seconds = std::strtod(kept->c_str(), &end);
        if (end && *end == '\0')
            item.modifyTime = Date(seconds);
    }
    if (auto mode = resource.property(Namespace, "mode"); mode && !item.isFolder)
        item.mode = static_cast<uint32_t>(std::strtoul(mode->c_str(), nullptr, 10));
    item.description = resource.property(Namespace, "description").value_or("");
    item.caption = resource.property(Namespace, "caption").value_or("");
    return item;
}

int64_t WebDavStore::find(const Account& account, const std::vector<std::string>& names,
                          Found& found) {
    found = {};
    std::vector<DavResource> resources;
    if (int64_t rc = propfind(account, urlOf(account, names, false), 0, resources);
        rc != ResultCode::Success)
        return rc;
    if (resources.empty())
        return ResultCode::Failure;
    found.resource = std::move(resources[0]);
    if (!names.empty()) {
        std::vector<std::string> parent(names.begin(), names.end() - 1);
        if (parent.empty() && names.back() == MetaFolder)
            return ResultCode::NotFound;
        found.unfinishedPart = isHidden(parent, found.resource, names.back());
    }
    return ResultCode::Success;
}

int64_t WebDavStore::totalsOf(const Account& account, const std::vector<std::string>& folder,
                              Totals& totals, bool recount) {
    const double now = secondsNow();
    if (auto held = recount ? std::nullopt : folderTotals_.find(folder, now)) {
        totals = *held;
        return ResultCode::Success;
    }
    std::vector<DavResource> resources;
    const uint64_t generation = listingGeneration();
    if (int64_t rc = propfind(account, urlOf(account, folder, true), 1, resources);
        rc != ResultCode::Success)
        return rc;
    std::string selfPath = account.rootPath;
    for (const auto& name : folder)
        selfPath += "/" + name;
    Totals counted;
    for (const auto& resource : resources) {
        auto name = childName(selfPath, resource.path);
        if (!name || !StorePath::isValidName(*name) || isHidden(folder, resource, *name))
            continue;
        if (resource.collection) {
            std::vector<std::string> inner = folder;
            inner.push_back(*name);
            Totals below;
            if (int64_t rc = totalsOf(account, inner, below, recount); rc != ResultCode::Success)
                return rc;
            counted.bytes += below.bytes;
            counted.files += below.files;
        } else {
            counted.bytes += resource.contentLength.value_or(0);
            ++counted.files;
        }
    }
    folderTotals_.remember(folder, counted, now);
    holdListing(folder, resources, generation);
    totals = counted;
    return ResultCode::Success;
}

uint64_t WebDavStore::listingGeneration() const {
    std::lock_guard lock(mutex_);
    return listingGeneration_;
}

void WebDavStore::holdListing(const FolderNames& folder, const std::vector<DavResource>& resources,
                              uint64_t generation) {
    std::lock_guard lock(mutex_);
    if (generation != listingGeneration_ || heldEntries_ + resources.size() > MaxHeldEntries)
        return;
    auto& held = heldListings_[folder];
    heldEntries_ = heldEntries_ - held.resources.size() + resources.size();
    held.resources = resources;
    held.heldAt = secondsNow();
}

bool WebDavStore::takeHeldListing(const FolderNames& folder, std::vector<DavResource>& resources) {
    std::lock_guard lock(mutex_);
    auto it = heldListings_.find(folder);
    if (it == heldListings_.end())
        return false;
    heldEntries_ -= it->second.resources.size();
    const bool fresh = secondsNow() - it->second.heldAt < HeldListingSeconds;
    if (fresh)
        resources = std::move(it->second.resources);
    heldListings_.erase(it);
    return fresh;
}

void WebDavStore::dropHeldListings(const Account& account, const std::vector<std::string>& urls) {
    std::lock_guard lock(mutex_);
    ++listingGeneration_;
    for (const auto& url : urls) {
        if (url.compare(0, account.rootUrl.size(), account.rootUrl) != 0) {
            heldListings_.clear(); // not ours to place: nothing held is sure
            heldEntries_ = 0;
            return;
        }
        FolderNames names;
        std::string rest = url.substr(account.rootUrl.size());
        for (size_t start = 0; start < rest.size();) {
            size_t slash = rest.find('/', start);
            if (slash == std::string::npos)
                slash = rest.size();
            if (slash > start)
                names.push_back(UrlCoding::decode(rest.substr(start, slash - start)));
            start = slash + 1;
        }
        for (auto it = heldListings_.begin(); it != heldListings_.end();) {
            const FolderNames& folder = it->first;
            const bool parent = !names.empty() && folder.size() + 1 == names.size() &&
                                std::equal(folder.begin(), folder.end(), names.begin());
            const bool within = folder.size() >= names.size() &&
                                std::equal(names.begin(), names.end(), folder.begin());
            if (parent || within) {
                heldEntries_ -= it->second.resources.size();
                it = heldListings_.erase(it);
            } else {
                ++it;
            }
        }
    }
}

int64_t WebDavStore::stat(const std::string& path, StoreItem& item) {
    try {
        item = {};
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(path);
        if (!names)
            return ResultCode::BadPath;
        Found found;
        if (int64_t rc = find(account, *names, found); rc != ResultCode::Success)
            return rc;
        if (found.unfinishedPart)
            return ResultCode::NotFound;
        item = itemOf(found.resource, names->empty() ? std::string() : names->back());
        if (keepsMetaDocuments(account) && !names->empty()) {
            WebDavMetaEntries entries;
            FolderNames parent(names->begin(), names->end() - 1);
            if (int64_t rc = readMeta(account, parent, true, entries); rc != ResultCode::Success) {
                item = {};
                return rc;
            }
            applyMeta(item, found.resource, entries);
        }
        if (item.isFolder) {
            Totals totals;
            if (int64_t rc = totalsOf(account, *names, totals, true); rc != ResultCode::Success) {
                item = {};
                return rc;
            }
            item.size = totals.bytes;
            item.fileCount = totals.files;
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::stat()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::list(const std::string& folder, std::vector<StoreItem>& items) {
    try {
        items.clear();
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(folder);
        if (!names)
            return ResultCode::BadPath;
        if (!names->empty() && names->size() == 1 && names->front() == MetaFolder)
            return ResultCode::NotFound;
        std::vector<DavResource> resources;
        if (!takeHeldListing(*names, resources)) {
            if (int64_t rc = propfind(account, urlOf(account, *names, true), 1, resources);
                rc != ResultCode::Success)
                return rc;
        }
        std::string selfPath = account.rootPath;
        for (const auto& name : *names)
            selfPath += "/" + name;
        bool isFolder = false;
        for (const auto& resource : resources) {
            if (resource.path == selfPath || (selfPath.empty() && resource.path == "/"))
                isFolder = resource.collection;
        }
        if (!isFolder)
            return ResultCode::NotFound;
        WebDavMetaEntries entries;
        if (keepsMetaDocuments(account)) {
            bool stored = false;
            for (const auto& resource : resources)
                stored = stored || (!resource.collection && childName(selfPath, resource.path) ==
                                                                WebDavMetaDocument::FileName);
            if (int64_t rc = readMeta(account, *names, stored, entries); rc != ResultCode::Success)
                return rc;
        }
        for (const auto& resource : resources) {
            auto name = childName(selfPath, resource.path);
            if (!name || !StorePath::isValidName(*name) || isHidden(*names, resource, *name))
                continue;
            StoreItem item = itemOf(resource, *name);
            applyMeta(item, resource, entries);
            if (item.isFolder) {
                std::vector<std::string> inner = *names;
                inner.push_back(*name);
                Totals totals;
                if (int64_t rc = totalsOf(account, inner, totals); rc != ResultCode::Success) {
                    items.clear();
                    return rc;
                }
                item.size = totals.bytes;
                item.fileCount = totals.files;
            }
            items.push_back(std::move(item));
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        items.clear();
        SystemLog::write("Error: WebDavStore::list()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::setProperties(const Account& account, const std::string& url,
                                   const std::vector<std::pair<std::string, std::string>>& set,
                                   const std::vector<std::string>& remove) {
    HttpRequest request = httpRequest("PROPPATCH", url);
    std::string body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<D:propertyupdate xmlns:D=\"DAV:\" xmlns:C=\"urn:x-cirrovault:\">";
    // One property per element: some servers keep only the first of a <prop>.
    for (const auto& [name, value] : set)
        body += "<D:set><D:prop><C:" + name + ">" + xmlEscaped(value) + "</C:" + name +
                "></D:prop></D:set>";
    for (const auto& name : remove)
        body += "<D:remove><D:prop><C:" + name + "/></D:prop></D:remove>";
    request.body = body + "</D:propertyupdate>";
    HttpResponse response;
    if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
        return rc;
    if (response.status == 207)
        return worstOf(response.body);
    return response.status == 200 || response.status == 204
               ? ResultCode::Success
               : (codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                 : codeOf(response.status));
}

int64_t WebDavStore::makeFolder(const std::string& path, const std::string& description,
                                const std::string& caption) {
    try {
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(path);
        if (!names)
            return ResultCode::BadPath;
        if (names->empty() || (names->size() == 1 && names->front() == MetaFolder))
            return ResultCode::AlreadyExists;
        if (isReservedName(*names))
            return ResultCode::BadPath;
        if (account.features.mkcolAcceptsExisting) {
            // The server would answer 201 for a folder already there: look first.
            Found found;
            int64_t rc = find(account, *names, found);
            if (rc == ResultCode::Success && !found.unfinishedPart)
                return ResultCode::AlreadyExists;
            if (rc != ResultCode::Success && rc != ResultCode::NotFound)
                return rc;
        }
        const std::string url = urlOf(account, *names, true);
        HttpRequest request = httpRequest("MKCOL", url);
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        if (response.status == 405)
            return ResultCode::AlreadyExists;
        if (response.status != 201)
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                  : codeOf(response.status);
        folderTotals_.remember(*names, {}, secondsNow());
        if (description.empty() && caption.empty())
            return ResultCode::Success;
        if (keepsMetaDocuments(account)) {
            noteFolderInfo(account, *names, description, caption);
            return ResultCode::Success;
        }
        return setProperties(account, url, {{"description", description}, {"caption", caption}},
                             {});
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::makeFolder()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::setFolderInfo(const std::string& path, const std::string& description,
                                   const std::string& caption) {
    try {
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(path);
        if (!names)
            return ResultCode::BadPath;
        Found found;
        if (int64_t rc = find(account, *names, found); rc != ResultCode::Success)
            return rc;
        if (!found.resource.collection)
            return ResultCode::NotFound;
        if (keepsMetaDocuments(account)) {
            if (names->empty()) {
                SystemLog::write("WebDAV: the account's root has no description here");
                return ResultCode::Failure;
            }
            noteFolderInfo(account, *names, description, caption);
            return flushMeta(account, FolderNames(names->begin(), names->end() - 1));
        }
        return setProperties(account, urlOf(account, *names, true),
                             {{"description", description}, {"caption", caption}}, {});
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::setFolderInfo()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::transfer(const Account& account, const std::string& method,
                              const std::string& from, const std::string& to, bool overwrite) {
    HttpRequest request = httpRequest(method, from);
    request.headers = {"Destination: " + to, overwrite ? "Overwrite: T" : "Overwrite: F"};
    HttpResponse response;
    if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
        return rc;
    if (response.status == 207)
        return worstOf(response.body);
    return codeOf(response.status);
}

int64_t WebDavStore::moveOrCopy(const std::string& method, const std::string& from,
                                const std::string& to) {
    Account account;
    if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
        return rc;
    auto source = StorePath::split(from);
    auto target = StorePath::split(to);
    if (!source || !target || source->empty() || target->empty())
        return ResultCode::BadPath;
    if (StorePath::isSameOrInside(StorePath::join(*target), StorePath::join(*source))) {
        SystemLog::write("WebDAV: a folder cannot go into itself: " + to);
        return ResultCode::BadPath;
    }
    if (isReservedName(*source) || isReservedName(*target))
        return ResultCode::BadPath;
    Found found;
    if (int64_t rc = find(account, *source, found); rc != ResultCode::Success)
        return rc;
    if (found.unfinishedPart)
        return ResultCode::NotFound;
    const bool folder = found.resource.collection;
    // Some servers answer an occupied target with a 207 holding a 409; ask first.
    Found occupied;
    if (int64_t rc = find(account, *target, occupied); rc != ResultCode::NotFound)
        return rc == ResultCode::Success ? ResultCode::AlreadyExists : rc;
    if (method == "COPY") {
        Totals totals;
        if (folder) {
            if (int64_t rc = totalsOf(account, *source, totals); rc != ResultCode::Success)
                return rc;
        }
        const auto bytes =
            static_cast<int64_t>(folder ? totals.bytes : found.resource.contentLength.value_or(0));
        if (int64_t rc = checkSpace(account, bytes, configuredQuota()); rc != ResultCode::Success)
            return rc;
    }
    const bool meta = keepsMetaDocuments(account);
    auto turn = metaTurn(account);
    if (meta && folder) {
        // The documents inside travel with the folder: they must be complete first.
        if (int64_t rc = flushMeta(account); rc != ResultCode::Success)
            return rc;
    }
    int64_t rc = transfer(account, method, urlOf(account, *source, folder),
                          urlOf(account, *target, folder), false);
    if (rc != ResultCode::Success)
        return rc;
    const bool moved = method == "MOVE";
    if (!folder) {
        const auto size = static_cast<int64_t>(found.resource.contentLength.value_or(0));
        if (moved)
            folderTotals_.adjust(FolderNames(source->begin(), source->end() - 1), -size, -1);
        folderTotals_.adjust(FolderNames(target->begin(), target->end() - 1), size, 1);
    } else if (!folderTotals_.carryFolder(*source, *target, !moved)) {
        if (moved)
            folderTotals_.forget(*source);
        folderTotals_.forget(*target);
    }
    if (meta) {
        carryMeta(account, *source, *target, moved);
        if (folder && !moved)
            rebindCopiedMeta(account, *target, 0);
    }
    return ResultCode::Success;
}

void WebDavStore::rebindCopiedMeta(const Account& account, const FolderNames& folder, int depth) {
    // A copied folder's documents came with it, bound to the originals' times; a server
    // that gives each copy the time of the copy would make them vouch for nothing, so
    // each entry is bound again to its copy when the documents are next written.
    constexpr int MaxDepth = 64;
    std::vector<DavResource> resources;
    if (depth > MaxDepth ||
        propfind(account, urlOf(account, folder, true), 1, resources) != ResultCode::Success) {
        SystemLog::write("WebDAV: the times and modes inside a copied folder are not carried");
        return;
    }
    std::string selfPath = account.rootPath;
    for (const auto& name : folder)
        selfPath += "/" + name;
    bool stored = false;
    std::vector<std::string> folders;
    for (const auto& resource : resources) {
        auto name = childName(selfPath, resource.path);
        if (!name)
            continue;
        if (resource.collection && StorePath::isValidName(*name))
            folders.push_back(*name);
        stored = stored || (!resource.collection && *name == WebDavMetaDocument::FileName);
    }
    WebDavMetaEntries entries;
    if (stored && readMeta(account, folder, true, entries) == ResultCode::Success) {
        for (auto& [name, entry] : entries) {
            if (entry.folder || entry.serverTime == 0)
                continue;
            entry.serverTime = 0;
            noteMeta(account, folder, name, entry);
        }
    }
    for (const auto& name : folders) {
        FolderNames inner = folder;
        inner.push_back(name);
        rebindCopiedMeta(account, inner, depth + 1);
    }
}

int64_t WebDavStore::move(const std::string& from, const std::string& to) {
    try {
        return moveOrCopy("MOVE", from, to);
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::move()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::copy(const std::string& from, const std::string& to) {
    try {
        return moveOrCopy("COPY", from, to);
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::copy()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::remove(const std::string& path) {
    try {
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(path);
        if (!names)
            return ResultCode::BadPath;
        if (names->empty()) {
            SystemLog::write("WebDAV: the account's root cannot be removed");
            return ResultCode::BadPath;
        }
        Found found;
        if (int64_t rc = find(account, *names, found); rc != ResultCode::Success)
            return rc;
        if (found.unfinishedPart)
            return ResultCode::NotFound;
        HttpRequest request =
            httpRequest("DELETE", urlOf(account, *names, found.resource.collection));
        HttpResponse response;
        auto turn = metaTurn(account);
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        int64_t rc = response.status == 207 ? worstOf(response.body) : codeOf(response.status);
        if (rc == ResultCode::Success && keepsMetaDocuments(account)) {
            if (found.resource.collection)
                dropMetaInside(*names);
            noteMeta(account, FolderNames(names->begin(), names->end() - 1), names->back(),
                     std::nullopt);
        }
        if (rc == ResultCode::Success) {
            if (!found.resource.collection)
                folderTotals_.adjust(
                    FolderNames(names->begin(), names->end() - 1),
                    -static_cast<int64_t>(found.resource.contentLength.value_or(0)), -1);
            else if (!folderTotals_.dropFolder(*names))
                folderTotals_.forget(*names);
        }
        return rc;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::remove()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault
