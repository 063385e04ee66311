// Uploads and downloads of the service session: progress into the caller's
// TrueProgressCallback, cancel from it or from CurlHandleController, and the encrypted
// form for files under the encryption folder.
#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/DecryptingFileSink.h"
#include "platform/framework/EncryptingFileSource.h"
#include "platform/framework/FileCrypto.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/framework/LocalFileSource.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferApiUtilState.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

// The pass phrase of a file in the encrypted area: the one the caller gave, else the
// phrase kept on this computer for the task folder the file lies in.
std::string passPhraseFor(const TransferInfo& transferInfo, const std::string& path) {
    if (!transferInfo.passPhrase().empty())
        return transferInfo.passPhrase();
    return PasswordMan().FindPasswordForPath(path).value_or("");
}

// The names relative to its task an encrypted file at this server path may be bound
// to, the first being the one a new file gets; a version in the history folder keeps
// the name its file had when encrypted.
std::vector<std::string> boundNamesOf(const std::string& path) {
    auto names = FileCrypto::boundNames(path, LoadString::GetValueByKey("EncryptionFolder", ""),
                                        LoadString::GetValueByKey("IDS_HISTFOLDER", ""));
    if (names.empty())
        names.push_back(path);
    return names;
}

// One transfer as the store sees it. Registers the calling thread with
// CurlHandleController for its lifetime, so CancelConnection(thread) reaches it.
class TransferWatch : public TransferObserver {
public:
    TransferWatch(TrueProgressCallback* progress, bool shared)
        : progress_(progress), shared_(shared),
          cancel_(CurlHandleController::shared().beginTransfer()) {
        if (progress_ && !shared_) {
            progress_->setTempSize(0);
            progress_->setSentSize(0);
        }
    }
    ~TransferWatch() override {
        if (progress_ && shared_ && done_ > 0)
            progress_->addSentSize(-static_cast<int64_t>(done_), false);
        CurlHandleController::shared().endTransfer();
    }
    TransferWatch(const TransferWatch&) = delete;
    TransferWatch& operator=(const TransferWatch&) = delete;

    void transferred(uint64_t bytesDone, uint64_t) override { report(bytesDone, true); }
    void resumedFrom(uint64_t bytes) override {
        resumed_ = bytes;
        if (progress_)
            progress_->setTempSize(bytes);
        report(bytes, false);
    }
    bool shouldContinue() override {
        for (;;) {
            if (cancelled())
                return false;
            if (!progress_ || !progress_->IsPaused())
                return true;
            // Paused: hold the transfer here until resumed or cancelled.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    uint64_t done() const { return done_; }
    uint64_t resumed() const { return resumed_; }

private:
    void report(uint64_t bytesDone, bool fresh) {
        const uint64_t before = done_;
        done_ = bytesDone;
        if (!progress_)
            return;
        if (!shared_)
            progress_->setSentSize(bytesDone);
        else if (bytesDone != before)
            progress_->addSentSize(static_cast<int64_t>(bytesDone - before), fresh);
    }
    bool cancelled() const {
        return *cancel_ ||
               (progress_ && (progress_->IsCancelled() || progress_->IsClickedCancel()));
    }

    TrueProgressCallback* progress_;
    bool shared_;
    std::shared_ptr<std::atomic<bool>> cancel_;
    uint64_t done_ = 0;
    uint64_t resumed_ = 0;
};

void logTransferFailure(const char* operation, int64_t code, const TransferInfo& info) {
    if (code == ResultCode::Success || code == ResultCode::Cancelled)
        return;
    SystemLog::write(std::string("Error: TransferApiUtil::") + operation + "() answered " +
                     std::to_string(code) + " for \"" + info.svrFile() + "\" and \"" +
                     info.locFile() + "\"");
}

} // namespace

// Stores the local file at the server path, resuming an interrupted upload of the same
// unchanged file. Answers Success when stored; the store is asked every time (the
// engine decides beforehand whether a file changed), so Done is not used here.
int64_t TransferApiUtil::UploadFile(TransferInfo& transferInfo, UploadFileInfo& uploadInformation) {
    try {
        uploadInformation = UploadFileInfo();
        auto path = StorePath::normalize(transferInfo.svrFile());
        if (!path || *path == "\\") {
            logTransferFailure("UploadFile", ResultCode::BadPath, transferInfo);
            return ResultCode::BadPath;
        }
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;

        std::unique_ptr<ByteSource> source;
        Date modifyTime;
        int64_t code = ResultCode::Success;
        if (Functions::IsEncryptPath(*path)) {
            const std::string passPhrase = passPhraseFor(transferInfo, *path);
            if (passPhrase.empty()) {
                logTransferFailure("UploadFile", ResultCode::WrongPassPhrase, transferInfo);
                return ResultCode::WrongPassPhrase;
            }
            auto encrypted = EncryptingFileSource::open(transferInfo.locFile(), passPhrase,
                                                        boundNamesOf(*path).front(), code);
            if (encrypted)
                modifyTime = encrypted->modifyTime();
            source = std::move(encrypted);
        } else {
            auto plain = LocalFileSource::open(transferInfo.locFile());
            if (plain)
                modifyTime = plain->modifyTime();
            else
                code = ResultCode::LocalFileError;
            source = std::move(plain);
        }
        if (!source) {
            logTransferFailure("UploadFile", code, transferInfo);
            return code;
        }

        if (transferInfo.storedTime())
            modifyTime = *transferInfo.storedTime();
        TrueProgressCallback* progress = transferInfo.progress();
        if (progress && !transferInfo.sharedProgress()) {
            progress->setThisSize(source->size());
            progress->setCurrentFile(transferInfo.locFile());
        }
        TransferWatch watch(progress, transferInfo.sharedProgress());
        code = store->put(*path, *source, modifyTime, &watch);
        uploadInformation.resumedBytes = watch.resumed();
        if (code == ResultCode::Success) {
            uploadInformation.storedSize = source->size();
            uploadInformation.uploadedBytes =
                source->size() - std::min(source->size(), watch.resumed());
            // What the store now holds is what was sent: no request to read it back.
            StoreItem stored;
            stored.size = source->size();
            stored.modifyTime = modifyTime;
            stored.mode = source->mode();
            state_->tree->noteStored(*path, stored);
        } else {
            uploadInformation.uploadedBytes =
                watch.done() - std::min(watch.done(), watch.resumed());
        }
        logTransferFailure("UploadFile", code, transferInfo);
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::UploadFile()");
        return ResultCode::Failure;
    }
}

// Fetches the server file into the local path (its folder made when missing). The
// local file appears only complete, checked, and with the stored modification time.
int64_t TransferApiUtil::DownloadFile(TransferInfo& transferInfo) {
    try {
        auto path = StorePath::normalize(transferInfo.svrFile());
        if (!path || *path == "\\") {
            logTransferFailure("DownloadFile", ResultCode::BadPath, transferInfo);
            return ResultCode::BadPath;
        }
        std::shared_ptr<StoreBackend> store = backend();
        if (!store)
            return ResultCode::NoService;
        StoreItem item;
        int64_t code = store->stat(*path, item);
        if (code == ResultCode::Success && item.isFolder)
            code = ResultCode::BadRequest;
        if (code != ResultCode::Success) {
            logTransferFailure("DownloadFile", code, transferInfo);
            return code;
        }
        const bool encrypted = Functions::IsEncryptPath(*path);
        const std::string passPhrase = encrypted ? passPhraseFor(transferInfo, *path) : "";
        if (encrypted && passPhrase.empty()) {
            logTransferFailure("DownloadFile", ResultCode::WrongPassPhrase, transferInfo);
            return ResultCode::WrongPassPhrase;
        }
        const std::string& local = transferInfo.locFile();
        auto slash = local.find_last_of('/');
        if (slash != std::string::npos && slash > 0)
            FileSystem::createDirectories(local.substr(0, slash));
        transferInfo.setStoredMode(item.mode);
        auto file = LocalFileSink::open(local, item.modifyTime, item.mode);
        if (!file) {
            logTransferFailure("DownloadFile", ResultCode::LocalFileError, transferInfo);
            return ResultCode::LocalFileError;
        }

        TrueProgressCallback* progress = transferInfo.progress();
        if (progress) {
            progress->setThisSize(item.size);
            progress->setCurrentFile(local);
        }
        TransferWatch watch(progress, transferInfo.sharedProgress());
        if (encrypted) {
            DecryptingFileSink sink(std::move(file), passPhrase, boundNamesOf(*path),
                                    item.modifyTime);
            code = store->get(*path, sink, &watch);
            if (sink.error() != ResultCode::Success && code != ResultCode::Cancelled)
                code = sink.error();
            if (sink.misplaced())
                SystemLog::write("Error: \"" + *path +
                                 "\" holds an intact encrypted file made for another name or "
                                 "an earlier time: the store swapped or put back a file");
        } else {
            code = store->get(*path, *file, &watch);
            if (code != ResultCode::Success)
                file->discard();
        }
        logTransferFailure("DownloadFile", code, transferInfo);
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::DownloadFile()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault
