#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

class TrueProgressDelegate {
public:
    virtual ~TrueProgressDelegate() = default;
    virtual void progressChanged() = 0;
};

// Progress, cancel and pause marks of one run or transfer. Written by the worker,
// read and cancelled from other threads: every member is safe to use from any thread.
class TrueProgressCallback {
public:
    // Marks
    bool IsCancelled() const { return cancelled_; }
    void setCancelled(bool v) { cancelled_ = v; }
    bool IsClickedCancel() const { return clickedCancel_; }
    void setBClickedCancel(bool v) { clickedCancel_ = v; }
    bool IsPaused() const { return paused_; }
    void setPaused(bool v) { paused_ = v; }

    // Whole-run figures
    void setTotalSize(uint64_t v) { totalSize_ = v; }
    uint64_t totalSize() const { return totalSize_; }
    void setTotalFiles(int64_t v) { totalFiles_ = v; }
    int64_t totalFiles() const { return totalFiles_; }
    void setDoneFiles(int64_t v) { doneFiles_ = v; }
    int64_t doneFiles() const { return doneFiles_; }
    void setTotalFolders(int64_t v) { totalFolders_ = v; }
    int64_t totalFolders() const { return totalFolders_; }
    void setDoneFolders(int64_t v) { doneFolders_ = v; }
    int64_t doneFolders() const { return doneFolders_; }
    // Bytes of earlier files of the run already sent.
    void setDoneSize(uint64_t v) { doneSize_ = v; }
    uint64_t doneSize() const { return doneSize_; }

    // Current file
    void setThisSize(uint64_t v) { thisSize_ = v; }
    uint64_t thisSize() const { return thisSize_; }
    void setSentSize(uint64_t v);     // bytes of the current file confirmed so far
    uint64_t sentSize() const { return sentSize_; }
    void setTempSize(uint64_t v) { tempSize_ = v; } // bytes kept from an interrupted attempt
    // Transfers running side by side share sentSize: each adds what it moves (fresh
    // bytes count for the speed, resumed ones do not) and takes it back when it ends,
    // and the walk adds each stored file to doneSize.
    void addSentSize(int64_t delta, bool fresh);
    void addDoneSize(uint64_t v) { doneSize_ += v; }
    uint64_t tempSize() const { return tempSize_; }
    void setMsg(const std::string& msg);
    std::string msg() const;
    void setCurrentFile(const std::string& path);
    std::string currentFile() const;

    // Derived figures. Speed counts only bytes sent in this run, not resumed ones.
    uint64_t bytesDone() const { return doneSize_ + sentSize_; }
    double percent() const;             // 0..100 of the total size
    double speed() const;               // bytes per second since the first byte
    double secondsLeft() const;         // -1 while unknown
    void startTiming();                 // the run's first byte is about to go

    void SetDelegate(TrueProgressDelegate* delegate) { delegate_ = delegate; }
    TrueProgressDelegate* GetDelegate() const { return delegate_; }

private:
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> clickedCancel_{false};
    std::atomic<bool> paused_{false};
    std::atomic<uint64_t> totalSize_{0};
    std::atomic<int64_t> totalFiles_{0};
    std::atomic<int64_t> doneFiles_{0};
    std::atomic<int64_t> totalFolders_{0};
    std::atomic<int64_t> doneFolders_{0};
    std::atomic<uint64_t> doneSize_{0};
    std::atomic<uint64_t> thisSize_{0};
    std::atomic<uint64_t> sentSize_{0};
    std::atomic<uint64_t> tempSize_{0};
    std::atomic<uint64_t> sentThisRun_{0};
    std::atomic<double> startTime_{0};
    std::atomic<TrueProgressDelegate*> delegate_{nullptr};
    mutable std::mutex textMutex_;
    std::string msg_;         // guarded by textMutex_
    std::string currentFile_; // guarded by textMutex_
};

} // namespace cirrovault
