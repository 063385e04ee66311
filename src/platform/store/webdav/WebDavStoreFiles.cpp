// The transfers of the WebDAV store: put and get.
#include <exception>
#include <string>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault {

namespace {

// An HTTP status that ends a transfer, as a result code.
int64_t failureOf(int64_t code) {
    return code == ResultCode::Success || code == ResultCode::AlreadyExists ? ResultCode::Failure
                                                                            : code;
}

} // namespace

// Sends the source from offset to its end into the part file. Resumable uploads start
// with an empty part marked by the resume tag (which says the part is ours and which
// local file it holds), then go in growing Content-Range segments, so an interruption
// loses at most the segment in flight, whatever the server received of it.
int64_t WebDavStore::putSegments(const Account& account, const std::string& partUrl,
                                 ByteSource& source, uint64_t offset, Date modifyTime,
                                 TransferObserver* observer, bool tagged, HttpResponse& last) {
    const uint64_t size = source.size();
    const bool segmented = account.features.rangePut && tagged;
    if (segmented && offset == 0) {
        HttpRequest create = httpRequest("PUT", partUrl);
        create.observer = observer;
        if (int64_t rc = send(account, create, last); rc != ResultCode::Success)
            return rc;
        if (last.status < 200 || last.status >= 300)
            return failureOf(codeOf(last.status));
        if (int64_t rc = setProperties(account, partUrl, {{"resumetag", source.resumeTag()}}, {});
            rc != ResultCode::Success)
            return rc;
    }
    uint64_t segment = FirstSegment;
    uint64_t position = offset;
    do {
        const uint64_t length = segmented ? std::min(segment, size - position) : size - position;
        HttpRequest request = httpRequest("PUT", partUrl);
        // Servers that keep the client's time say so in the reply.
        request.headers.push_back("X-OC-Mtime: " + std::to_string(static_cast<int64_t>(
                                                       modifyTime.timeIntervalSince1970())));
        if (segmented)
            request.headers.push_back("Content-Range: bytes " + std::to_string(position) + "-" +
                                      std::to_string(position + length - 1) + "/" +
                                      std::to_string(size));
        request.upload = &source;
        request.uploadLength = length;
        request.observer = observer;
        request.progressBase = position;
        request.progressTotal = size;
        if (int64_t rc = send(account, request, last); rc != ResultCode::Success)
            return rc;
        if (last.status < 200 || last.status >= 300) {
            SystemLog::write("WebDAV: PUT " + partUrl + " answered HTTP " +
                             std::to_string(last.status));
            return failureOf(codeOf(last.status));
        }
        position += length;
        if (observer)
            observer->transferred(position, size);
        segment = std::min(segment * 2, MaxSegment);
    } while (position < size);
    return ResultCode::Success;
}

// The finished part takes the file's name. Where the target was not asked for, a MOVE
// that may not overwrite comes first; an occupied name is then looked at: a file is
// replaced, a folder is left alone and the part removed. replacedSize: the size of the
// file found and replaced there (known only where the target was not asked for).
int64_t WebDavStore::replaceWithPart(const Account& account, const std::string& partUrl,
                                     const std::vector<std::string>& names,
                                     std::optional<bool> knownToExist,
                                     std::optional<uint64_t>& replacedSize) {
    const std::string url = urlOf(account, names, false);
    int64_t rc = transfer(account, "MOVE", partUrl, url, knownToExist.value_or(false));
    if (rc == ResultCode::Success || knownToExist)
        return rc == ResultCode::AlreadyExists ? ResultCode::Failure : rc;
    Found target;
    int64_t found = find(account, names, target);
    if (found == ResultCode::NotFound || (found == ResultCode::Success && target.unfinishedPart))
        return rc == ResultCode::AlreadyExists ? ResultCode::Failure : rc;
    if (found != ResultCode::Success)
        return found;
    if (target.resource.collection) {
        SystemLog::write("WebDAV: a folder has the upload's name: " + url);
        HttpRequest drop = httpRequest("DELETE", partUrl);
        HttpResponse dropped;
        send(account, drop, dropped);
        return ResultCode::AlreadyExists;
    }
    rc = transfer(account, "MOVE", partUrl, url, true);
    if (rc == ResultCode::Success)
        replacedSize = target.resource.contentLength.value_or(0);
    return rc == ResultCode::AlreadyExists ? ResultCode::Failure : rc;
}

int64_t WebDavStore::put(const std::string& path, ByteSource& source, Date modifyTime,
                         TransferObserver* observer) {
    try {
        Account account;
        if (int64_t rc = loggedOn(account); rc != ResultCode::Success)
            return rc;
        auto names = StorePath::split(path);
        if (!names)
            return ResultCode::BadPath;
        if (names->empty() || isReservedName(*names)) {
            SystemLog::write("WebDAV: refused upload onto the account's root or our own files");
            return ResultCode::BadPath;
        }
        auto partNames = *names;
        partNames.back() = StorePath::nameWithSuffix(partNames.back(), StorePath::PartSuffix);

        // The target is asked for first under a quota of the settings, so that the old
        // copy's size counts before a byte is sent, and on servers that would move the
        // part into a folder of the target's name. Elsewhere the part's MOVE may not
        // overwrite: a new file costs no look at its name, and an occupied name is
        // looked at then (a folder of that name stays).
        const uint64_t size = source.size();
        std::optional<bool> exists;
        uint64_t oldSize = 0;
        int64_t rc = ResultCode::Success;
        const std::optional<int64_t> limit = configuredQuota();
        if (limit || !account.features.moveRefusesOccupiedName) {
            Found existing;
            rc = find(account, *names, existing);
            if (rc == ResultCode::Success) {
                if (existing.resource.collection) {
                    SystemLog::write("WebDAV: a folder has the upload's name: " + path);
                    return ResultCode::AlreadyExists;
                }
                exists = !existing.unfinishedPart;
                oldSize = *exists ? existing.resource.contentLength.value_or(0) : 0;
            } else if (rc == ResultCode::NotFound) {
                exists = false;
            } else {
                return rc;
            }
            if (size > oldSize) {
                if ((rc = checkSpace(account, static_cast<int64_t>(size - oldSize), limit)) !=
                    ResultCode::Success)
                    return rc;
            }
        }

        const std::string partUrl = urlOf(account, partNames, false);
        const std::string tag = source.resumeTag();
        const bool resumable = account.features.deadProperties && account.features.rangePut &&
                               !tag.empty() && size > FirstSegment;
        uint64_t offset = 0;
        if (resumable) {
            Found part;
            if (find(account, partNames, part) == ResultCode::Success &&
                !part.resource.collection &&
                part.resource.property(Namespace, "resumetag") == tag) {
                uint64_t partSize = part.resource.contentLength.value_or(0);
                if (partSize > 0 && partSize < size && source.seek(partSize)) {
                    offset = partSize;
                    if (observer)
                        observer->resumedFrom(offset);
                }
            }
        }
        if (offset == 0 && !source.seek(0)) {
            SystemLog::write("WebDAV: the local file cannot be read from its start");
            return ResultCode::LocalFileError;
        }

        // A part that is not marked as ours and resumable would be listed as a file of the
        // user's (and restored as one): one that cannot take the file's name goes.
        auto dropPart = [&] {
            HttpRequest drop = httpRequest("DELETE", partUrl);
            HttpResponse dropped;
            send(account, drop, dropped);
        };
        HttpResponse last;
        if ((rc = putSegments(account, partUrl, source, offset, modifyTime, observer, resumable,
                              last)) != ResultCode::Success) {
            // A resumable part stays for the next attempt to continue; a cancel must end
            // at once, not wait on a server that may be hanging (the next upload replaces
            // what it left).
            if (!resumable && rc != ResultCode::Cancelled)
                dropPart();
            return rc;
        }
        {
            // A copy is current only when all its bytes arrived: a full or failing server,
            // or a dropped range, may have kept less than it acknowledged.
            Found part;
            if ((rc = find(account, partNames, part)) != ResultCode::Success) {
                dropPart();
                return rc;
            }
            if (part.resource.contentLength.value_or(0) != size) {
                SystemLog::write("WebDAV: the uploaded part has the wrong size, sent again: " +
                                 path);
                dropPart();
                return ResultCode::Failure;
            }
        }

        const bool serverKeepsTime =
            account.features.ocMtime || last.header("x-oc-mtime") == "accepted";
        if (account.features.deadProperties) {
            // "mode" is set also when there is none ("0"): some servers keep a replaced
            // file's properties that the new copy does not set. For the same reason a
            // time the server keeps itself removes an older one kept as a property.
            std::vector<std::pair<std::string, std::string>> set = {
                {"mode", std::to_string(source.mode())}};
            std::vector<std::string> remove = {"resumetag"};
            if (serverKeepsTime)
                remove.push_back("mtime");
            else
                set.emplace_back("mtime", std::to_string(modifyTime.timeIntervalSince1970()));
            if ((rc = setProperties(account, partUrl, set, remove)) != ResultCode::Success) {
                SystemLog::write("WebDAV: the modification time cannot be kept for " + path);
                dropPart();
                return rc;
            }
        }
        std::optional<uint64_t> replacedSize;
        // Until the note is made, a metadata write would find the file unknown to it.
        auto turn = metaTurn(account);
        if ((rc = replaceWithPart(account, partUrl, *names, exists, replacedSize)) !=
            ResultCode::Success) {
            SystemLog::write("WebDAV: the upload cannot take its name: " + path);
            dropPart();
            return rc;
        }
        if (replacedSize)
            oldSize = *replacedSize;
        const bool replaced = exists.value_or(replacedSize.has_value());
        folderTotals_.adjust(FolderNames(names->begin(), names->end() - 1),
                             static_cast<int64_t>(size) - static_cast<int64_t>(oldSize),
                             replaced ? 0 : 1);
        if (keepsMetaDocuments(account)) {
            std::optional<WebDavMetaEntry> entry;
            if (!serverKeepsTime || source.mode() != 0) {
                entry.emplace();
                entry->modifyTime = modifyTime.timeIntervalSince1970();
                entry->size = size;
                entry->mode = source.mode();
            }
            noteMeta(account, FolderNames(names->begin(), names->end() - 1), names->back(),
                     std::move(entry));
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::put()");
        return ResultCode::Failure;
    }
}

int64_t WebDavStore::get(const std::string& path, ByteSink& sink, TransferObserver* observer) {
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
        if (found.unfinishedPart || found.resource.collection)
            return ResultCode::NotFound;
        HttpRequest request = httpRequest("GET", urlOf(account, *names, false));
        request.download = &sink;
        request.observer = observer;
        request.progressTotal = found.resource.contentLength.value_or(0);
        HttpResponse response;
        if (int64_t rc = send(account, request, response); rc != ResultCode::Success)
            return rc;
        if (response.status != 200)
            return failureOf(codeOf(response.status));
        if (!sink.finish()) {
            SystemLog::write("WebDAV: the local file cannot be completed for " + path);
            return ResultCode::LocalFileError;
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: WebDavStore::get()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault
