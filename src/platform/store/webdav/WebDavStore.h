#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/store/StoreBackend.h"
#include "platform/store/webdav/WebDavCapabilityProbe.h"
#include "platform/store/webdav/WebDavFolderTotals.h"
#include "platform/store/webdav/WebDavHttpSession.h"
#include "platform/store/webdav/WebDavMetaDocument.h"
#include "platform/store/webdav/WebDavMultistatus.h"

namespace cirrovault {

// A WebDAV server as the store: "webdav://host[:port]/path" (plain HTTP) or
// "webdavs://host/path" (TLS, certificates verified). "{user}" in the path stands for
// the logon name, for servers that give each user a folder of their own.
//
// The account's root is the URL's folder. Our own files live in its ".cirrovault"
// folder (the task list, a lock for its updates, probes); it and the ".part" files of
// unfinished uploads (marked by a property) are never listed. Modification times,
// folder descriptions and captions, and resume tags are properties of our namespace.
// Servers that keep no such properties get a document ".cirrovault-meta" in each folder
// instead (WebDavMetaDocument), with the times and descriptions of the folder's entries;
// the name is ours on such servers and refused for user files everywhere.
class WebDavStore : public StoreBackend {
public:
    // settings: where the "Quota" setting is read; without it no quota is configured.
    explicit WebDavStore(std::string serviceURL, HttpTimeouts timeouts = {},
                         SettingReader settings = {});
    ~WebDavStore() override;

    static bool isWebDavURL(const std::string& url);

    StoreCapabilities capabilities() const override;
    std::string describe() const override;
    std::string locationOf(const std::string& path) const override;

    int64_t logon(const std::string& userName, const std::string& password,
                  StoreSession& session) override;
    void logoff() override;

    int64_t stat(const std::string& path, StoreItem& item) override;
    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override;
    int64_t makeFolder(const std::string& path, const std::string& description,
                       const std::string& caption) override;
    int64_t setFolderInfo(const std::string& path, const std::string& description,
                          const std::string& caption) override;

    int64_t put(const std::string& path, ByteSource& source, Date modifyTime,
                TransferObserver* observer) override;
    int64_t get(const std::string& path, ByteSink& sink, TransferObserver* observer) override;

    int64_t move(const std::string& from, const std::string& to) override;
    int64_t copy(const std::string& from, const std::string& to) override;
    int64_t remove(const std::string& path) override;

    int64_t quota(StoreQuota& quota) override;

    int64_t readTaskList(std::string& document, std::string& version) override;
    int64_t writeTaskList(const std::string& document, const std::string& expectedVersion) override;

    int64_t flush() override;

    static constexpr uint64_t FirstSegment = 1 << 20; // resumable uploads go in growing segments
    static constexpr uint64_t MaxSegment = 16 << 20;
    static constexpr const char* MetaFolder = ".cirrovault";
    static constexpr const char* Namespace = "urn:x-cirrovault:";
    // Account size when neither the server nor the "Quota" setting gives one.
    static constexpr int64_t UnlimitedQuota = StoreQuota::Unknown;
    static constexpr double StaleLockSeconds = 60;

private:
    struct Account {
        std::string user;
        std::string password;
        std::string serverKey; // "http://host:port"
        std::string rootUrl;   // ends with "/"
        std::string rootPath;  // decoded path of rootUrl, no trailing "/" ("" at the root)
        std::string customerID;
        WebDavFeatures features;
    };
    using Totals = WebDavFolderTotals::Totals;
    // An item found by PROPFIND, with what we keep about it.
    struct Found {
        DavResource resource;
        bool unfinishedPart = false;
    };

    std::optional<Account> currentAccount() const;
    int64_t loggedOn(Account& account) const;
    // Borrows a connection of the logged-on credentials and sends the request.
    int64_t send(const Account& account, HttpRequest& request, HttpResponse& response);
    std::string urlOf(const Account& account, const std::vector<std::string>& names,
                      bool folder) const;
    // PROPFIND of one item (depth 0) or a folder and its entries (depth 1).
    int64_t propfind(const Account& account, const std::string& url, int depth,
                     std::vector<DavResource>& resources);
    // The item at names: Success, NotFound (also for our own hidden items), or a failure.
    int64_t find(const Account& account, const std::vector<std::string>& names, Found& found);
    // The figures of the folder: held ones, or counted by a walk of its listings (always
    // when recount: a look at a folder itself tells what is there now, whoever stored it;
    // listings and the account's size take the held figures).
    int64_t totalsOf(const Account& account, const std::vector<std::string>& folder, Totals& totals,
                     bool recount = false);
    bool isHidden(const std::vector<std::string>& parent, const DavResource& resource,
                  const std::string& name) const;
    StoreItem itemOf(const DavResource& resource, const std::string& name) const;
    int64_t setProperties(const Account& account, const std::string& url,
                          const std::vector<std::pair<std::string, std::string>>& set,
                          const std::vector<std::string>& remove);
    // MOVE or COPY with Overwrite: F unless overwrite.
    int64_t transfer(const Account& account, const std::string& method, const std::string& from,
                     const std::string& to, bool overwrite);
    int64_t moveOrCopy(const std::string& method, const std::string& from, const std::string& to);

    // limit: the "Quota" setting (configuredQuota), read once by the caller.
    int64_t checkSpace(const Account& account, int64_t adding, std::optional<int64_t> limit);
    std::optional<int64_t> configuredQuota() const;

    int64_t putSegments(const Account& account, const std::string& partUrl, ByteSource& source,
                        uint64_t offset, Date modifyTime, TransferObserver* observer, bool tagged,
                        HttpResponse& last);

    // token: what unlockTaskList needs to release the lock.
    // knownToExist: whether the target was there, when it was asked before the upload.
    int64_t replaceWithPart(const Account& account, const std::string& partUrl,
                            const std::vector<std::string>& names, std::optional<bool> knownToExist,
                            std::optional<uint64_t>& replacedSize);
    int64_t lockTaskList(const Account& account, std::string& token);
    int64_t davLockTaskList(const Account& account, std::string& token);
    void unlockTaskList(const Account& account, const std::string& token);

    // The metadata documents, for servers without properties. Changes wait in memory
    // (readers see them) and are written a folder at a time: when the work moves on to
    // another folder, when many have gathered, before a folder moves, and on flush() and
    // logoff(). A change lost in a crash only makes the next run send that file again.
    using FolderNames = std::vector<std::string>;
    using MetaChanges = std::map<std::string, std::optional<WebDavMetaEntry>>; // nullopt: drop
    static bool keepsMetaDocuments(const Account& account) {
        return !account.features.deadProperties;
    }
    static bool isReservedName(const std::vector<std::string>& names);
    // Held around a change of a folder's entries on the server and its noteMeta, on
    // servers with metadata documents (elsewhere it holds nothing).
    std::unique_lock<std::recursive_mutex> metaTurn(const Account& account);
    // stored: whether the folder's document may exist (false skips asking the server).
    int64_t readMeta(const Account& account, const FolderNames& folder, bool stored,
                     WebDavMetaEntries& entries);
    void noteMeta(const Account& account, const FolderNames& folder, const std::string& name,
                  std::optional<WebDavMetaEntry> entry);
    // Writes the changes of one folder, or of every folder.
    int64_t flushMeta(const Account& account, const std::optional<FolderNames>& only = {});
    // Under metaMutex_.
    int64_t writeMeta(const Account& account, const FolderNames& folder, MetaChanges changes);
    void dropMetaInside(const FolderNames& folder);
    void noteFolderInfo(const Account& account, const FolderNames& path,
                        const std::string& description, const std::string& caption);
    // After a MOVE or COPY: the entry of what went follows it (a copy is a new file,
    // whose server time is learned again).
    void carryMeta(const Account& account, const FolderNames& from, const FolderNames& to,
                   bool moved);
    void rebindCopiedMeta(const Account& account, const FolderNames& folder, int depth);
    static void applyMeta(StoreItem& item, const DavResource& resource,
                          const WebDavMetaEntries& entries);
    static constexpr size_t MetaBatch = 128;

    // A walk for folder figures reads every folder below the one asked for, and a listing
    // of each usually follows (a run's scan after the logon's look at the root): the
    // walk's listings are held for that, each handed out once. A change sent through this
    // store drops those of the folders it touches, and none is trusted after
    // HeldListingSeconds.
    struct HeldListing {
        std::vector<DavResource> resources;
        double heldAt = 0;
    };
    // generation: listingGeneration() from before the listing was asked for; a listing
    // that a change may have overtaken is not held.
    uint64_t listingGeneration() const;
    void holdListing(const FolderNames& folder, const std::vector<DavResource>& resources,
                     uint64_t generation);
    bool takeHeldListing(const FolderNames& folder, std::vector<DavResource>& resources);
    // Drops the listings of the folders holding the items at these URLs and of the
    // folders at or below them, and keeps any listing under way from being held.
    void dropHeldListings(const Account& account, const std::vector<std::string>& urls);
    static constexpr double HeldListingSeconds = 60;
    static constexpr size_t MaxHeldEntries = 200'000;

    static int64_t codeOf(long status);
    static int64_t worstOf(const std::string& multistatusBody);

    std::string serviceURL_;
    std::string baseUrl_; // http(s) form of serviceURL_, "{user}" still in it
    HttpTimeouts timeouts_;
    SettingReader settings_;

    mutable std::mutex mutex_;
    std::optional<Account> account_; // guarded by mutex_
    uint64_t generation_ = 0;        // guarded by mutex_; a new logon drops old connections
    std::vector<std::unique_ptr<WebDavHttpSession>> idle_; // guarded by mutex_
    std::map<FolderNames, MetaChanges> pendingMeta_;       // guarded by mutex_
    std::map<FolderNames, HeldListing> heldListings_;      // guarded by mutex_
    size_t heldEntries_ = 0;                               // guarded by mutex_
    uint64_t listingGeneration_ = 0;                       // guarded by mutex_
    // Held by a writer or reader of metadata documents, and by a change on the server
    // together with its note (metaTurn), so that a write binds its entries to a listing
    // that agrees with the notes. Taken before mutex_, never while holding it.
    std::recursive_mutex metaMutex_;
    std::atomic<bool> getTellsNoTag_ = false; // a GET of a document came without its ETag
    WebDavFolderTotals folderTotals_; // the account's root among them: the bytes it holds
};

} // namespace cirrovault
