// The metadata documents of the WebDAV store, for servers that keep no properties of ours.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/webdav/WebDavStore.h"
#include "platform/store/webdav/WebDavTextSource.h"

namespace cirrovault {

namespace {

bool isInside(const std::vector<std::string>& path, const std::vector<std::string>& folder) {
    return path.size() >= folder.size() && std::equal(folder.begin(), folder.end(), path.begin());
}

int64_t wholeSeconds(const std::optional<Date>& date) {
    return date ? static_cast<int64_t>(std::floor(date->timeIntervalSince1970())) : 0;
}

void applyChanges(WebDavMetaEntries& entries, const std::map<std::string, std::optional<WebDavMetaEntry>>& changes) {
    for (const auto& [name, entry] : changes) {
        if (entry)
            entries[name] = *entry;
        else
            entries.erase(name);
    }
}

} // namespace

bool WebDavStore::isReservedName(const std::vector<std::string>& names) {
    return !names.empty() && ((names.size() == 1 && names.front() == MetaFolder) ||
                              names.back() == WebDavMetaDocument::FileName);
}

std::unique_lock<std::recursive_mutex> WebDavStore::metaTurn(const Account& account) {
    return keepsMetaDocuments(account) ? std::unique_lock(metaMutex_)
                                       : std::unique_lock<std::recursive_mutex>();
}

void WebDavStore::applyMeta(StoreItem& item, const DavResource& resource,
                            const WebDavMetaEntries& entries) {
    auto it = entries.find(item.name);
    if (it == entries.end() || it->second.folder != item.isFolder)
        return;
    const WebDavMetaEntry& entry = it->second;
    if (entry.folder) {
        item.description = entry.description;
        item.caption = entry.caption;
    } else if (entry.size == item.size &&
               (entry.serverTime == 0 || entry.serverTime == wholeSeconds(resource.lastModified))) {
        item.modifyTime = Date(entry.modifyTime);
        item.mode = entry.mode;
    }
}

int64_t WebDavStore::readMeta(const Account& account, const FolderNames& folder, bool stored,
                              WebDavMetaEntries& entries) {
    entries.clear();
    // A write ends by dropping the changes it stored: a document read before it with the
    // changes looked up after it would hold neither, so reads and writes take turns.
    std::unique_lock writer(metaMutex_, std::defer_lock);
    if (stored) {
        writer.lock();
        auto names = folder;
        names.push_back(WebDavMetaDocument::FileName);
        HttpRequest request = httpRequest("GET", urlOf(account, names, false));
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        if (response.status == 200) {
            if (auto parsed = WebDavMetaDocument::parse(response.body))
                entries = std::move(*parsed);
            else
                SystemLog::write("WebDAV: a damaged metadata document is ignored: " + request.url);
        } else if (response.status != 404 && response.status != 409) {
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                   : codeOf(response.status);
        }
    }
    std::lock_guard lock(mutex_);
    if (auto it = pendingMeta_.find(folder); it != pendingMeta_.end())
        applyChanges(entries, it->second);
    return ResultCode::Success;
}

void WebDavStore::noteMeta(const Account& account, const FolderNames& folder,
                           const std::string& name, std::optional<WebDavMetaEntry> entry) {
    std::vector<FolderNames> due;
    {
        std::lock_guard lock(mutex_);
        auto& changes = pendingMeta_[folder];
        changes[name] = std::move(entry);
        for (const auto& [other, waiting] : pendingMeta_) {
            if (other != folder || waiting.size() >= MetaBatch)
                due.push_back(other);
        }
    }
    for (const auto& other : due)
        flushMeta(account, other);
}

void WebDavStore::dropMetaInside(const FolderNames& folder) {
    std::lock_guard lock(mutex_);
    for (auto it = pendingMeta_.begin(); it != pendingMeta_.end();)
        it = isInside(it->first, folder) ? pendingMeta_.erase(it) : std::next(it);
}

void WebDavStore::noteFolderInfo(const Account& account, const FolderNames& path,
                                 const std::string& description, const std::string& caption) {
    WebDavMetaEntry entry;
    entry.folder = true;
    entry.description = description;
    entry.caption = caption;
    noteMeta(account, FolderNames(path.begin(), path.end() - 1), path.back(), std::move(entry));
}

void WebDavStore::carryMeta(const Account& account, const FolderNames& from,
                            const FolderNames& to, bool moved) {
    const FolderNames fromFolder(from.begin(), from.end() - 1);
    WebDavMetaEntries entries;
    if (readMeta(account, fromFolder, true, entries) != ResultCode::Success) {
        SystemLog::write("WebDAV: the time or description of a moved item is not carried");
        return;
    }
    auto it = entries.find(from.back());
    if (it == entries.end())
        return;
    WebDavMetaEntry entry = it->second;
    if (!moved)
        entry.serverTime = 0;
    if (moved)
        noteMeta(account, fromFolder, from.back(), std::nullopt);
    noteMeta(account, FolderNames(to.begin(), to.end() - 1), to.back(), std::move(entry));
}

int64_t WebDavStore::flushMeta(const Account& account, const std::optional<FolderNames>& only) {
    // The changes are taken under the writers' lock: a writer that took them before
    // another's write would store them again over what came after.
    std::lock_guard writer(metaMutex_);
    std::map<FolderNames, MetaChanges> work;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [folder, changes] : pendingMeta_) {
            if (!only || folder == *only)
                work.emplace(folder, changes);
        }
    }
    int64_t result = ResultCode::Success;
    for (auto& [folder, changes] : work) {
        MetaChanges written = changes;
        int64_t rc = writeMeta(account, folder, std::move(changes));
        if (rc != ResultCode::Success) {
            result = rc;
            continue;
        }
        // Changes noted meanwhile stay for the next write.
        std::lock_guard lock(mutex_);
        auto it = pendingMeta_.find(folder);
        if (it == pendingMeta_.end())
            continue;
        for (const auto& [name, entry] : written) {
            auto now = it->second.find(name);
            if (now != it->second.end() && now->second == entry)
                it->second.erase(now);
        }
        if (it->second.empty())
            pendingMeta_.erase(it);
    }
    return result;
}

int64_t WebDavStore::writeMeta(const Account& account, const FolderNames& folder,
                               MetaChanges changes) {
    auto names = folder;
    names.push_back(WebDavMetaDocument::FileName);
    const std::string url = urlOf(account, names, false);
    // The document's tag as a listing showed it before it was read, for servers whose
    // GET tells none: a write between the two then fails our PUT's condition.
    std::optional<std::string> listedTag;

    // New copies get the server's time of the copy they describe, from one listing.
    bool unbound = false;
    for (const auto& [name, entry] : changes)
        unbound = unbound || (entry && !entry->folder && entry->serverTime == 0);
    if (unbound) {
        std::vector<DavResource> resources;
        int64_t rc = propfind(account, urlOf(account, folder, true), 1, resources);
        if (rc == ResultCode::NotFound)
            return ResultCode::Success; // the folder is gone, and its entries with it
        if (rc != ResultCode::Success)
            return rc;
        std::map<std::string, const DavResource*> byPath;
        for (const auto& resource : resources)
            byPath[resource.path] = &resource;
        std::string folderPath = account.rootPath;
        for (const auto& name : folder)
            folderPath += "/" + name;
        auto document = byPath.find(folderPath + "/" + WebDavMetaDocument::FileName);
        listedTag = document == byPath.end() ? "" : document->second->etag;
        for (auto& [name, entry] : changes) {
            if (!entry || entry->folder || entry->serverTime != 0)
                continue;
            auto it = byPath.find(folderPath + "/" + name);
            if (it == byPath.end() || it->second->collection ||
                it->second->contentLength.value_or(0) != entry->size || !it->second->lastModified)
                entry.reset(); // not the copy we stored: nothing to say about it
            else
                entry->serverTime = wholeSeconds(it->second->lastModified);
        }
    }

    for (int attempt = 0; attempt < 8; ++attempt) {
        std::string tag = attempt == 0 ? listedTag.value_or("") : "";
        const bool ask = (attempt > 0 || !listedTag) && getTellsNoTag_;
        if (ask) {
            std::vector<DavResource> resources;
            int64_t rc = propfind(account, url, 0, resources);
            if (rc == ResultCode::Success && !resources.empty())
                tag = resources.front().etag;
            else if (rc != ResultCode::NotFound)
                return rc == ResultCode::Success ? ResultCode::Failure : rc;
        }
        HttpRequest get = httpRequest("GET", url);
        HttpResponse current;
        if (int64_t rc = send(account, get, current); rc != ResultCode::Success)
            return rc;
        if (current.status == 409)
            return ResultCode::Success; // the folder is gone
        WebDavMetaEntries entries;
        if (current.status == 200) {
            if (auto parsed = WebDavMetaDocument::parse(current.body))
                entries = std::move(*parsed);
            else
                SystemLog::write("WebDAV: a damaged metadata document is written anew: " + url);
        } else if (current.status != 404) {
            return codeOf(current.status) == ResultCode::Success ? ResultCode::Failure
                                                                  : codeOf(current.status);
        }
        std::string etag = current.header("etag");
        if (current.status == 200 && etag.empty()) {
            if (tag.empty() && !ask) {
                // Read without a tag: read again with the tag asked for first (a server
                // that tells none anywhere is written without the condition).
                getTellsNoTag_ = true;
                continue;
            }
            etag = tag;
        }
        applyChanges(entries, changes);
        std::string body = WebDavMetaDocument::format(entries);
        HttpRequest put = httpRequest("PUT", url);
        if (current.status == 404)
            put.headers.push_back("If-None-Match: *");
        else if (!etag.empty() && etag.rfind("W/", 0) != 0)
            put.headers.push_back("If-Match: " + etag);
        WebDavTextSource source(body);
        put.upload = &source;
        put.uploadLength = body.size();
        HttpResponse response;
        if (int64_t rc = send(account, put, response); rc != ResultCode::Success)
            return rc;
        if (response.status >= 200 && response.status < 300)
            return ResultCode::Success;
        if (response.status == 404 || response.status == 409)
            return ResultCode::Success; // the folder is gone
        if (response.status != 412) {
            SystemLog::write("WebDAV: a metadata document cannot be stored: HTTP " +
                             std::to_string(response.status) + " " + url);
            return codeOf(response.status) == ResultCode::Success ? ResultCode::Failure
                                                                   : codeOf(response.status);
        }
        // Another writer came first: read its version and apply ours again.
    }
    SystemLog::write("WebDAV: a metadata document kept changing under us: " + url);
    return ResultCode::Conflict;
}

} // namespace cirrovault
