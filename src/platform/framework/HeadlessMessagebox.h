#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/framework/NimboMessagebox.h"

namespace cirrovault {

// A presenter for no display (the daemon and the tests). It answers from a scripted
// queue first, else with a default per style; the defaults never destroy anything and
// never loop: a notice 0, try-again-or-give-up 1 (give up), yes/no 4 (no),
// retry/cancel 6 (cancel), storage order 0 (no order), folder panel "" (cancelled).
// Every dialog shown is recorded.
class HeadlessMessagebox : public NimboMessagebox::Presenter {
public:
    enum class Kind { Message, StorageOrder, FolderPanel };
    struct Shown {
        Kind kind = Kind::Message;
        std::string title;
        std::string text;
        int style = 0;
        bool checkBox = false; // storage order: the initial state of the check box
        int answer = 0;
        std::string folder;    // folder panel: the answer
    };

    static int defaultAnswerForStyle(int style);

    int showMessage(const std::string& title, const std::string& informativeText,
                    int messageboxStyle) override;
    int showStorageOrder(const std::string& title, const std::string& message, bool& checkBox,
                         int dialogStyle) override;
    std::string chooseFolder(const std::string& title) override;

    // The next message box or storage-order dialog answers this (first in, first out).
    void queueAnswer(int answer);
    void setDefaultAnswer(int style, int answer);
    void setStorageOrderDefault(int answer);
    void setFolderPanelPath(const std::string& path); // "" = cancel
    std::vector<Shown> shown() const;
    void clearShown();

private:
    int nextAnswer(int fallback); // call with mutex_ held

    mutable std::mutex mutex_;
    std::deque<int> queued_;             // guarded by mutex_
    std::map<int, int> defaults_;        // guarded by mutex_
    int storageOrderDefault_ = 0;        // guarded by mutex_
    std::string folderPanelPath_;        // guarded by mutex_
    std::vector<Shown> shown_;           // guarded by mutex_
};

} // namespace cirrovault
