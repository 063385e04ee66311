#pragma once

#include <cstdint>
#include <memory>

#include "platform/os/Thread.h"
#include "ui/NSLoopDialog.h"

namespace cirrovault {

// One worker thread waited on by a LoopDlgController, keyed by the thread.
class LoopInfo {
public:
    Thread* pThread = nullptr; // not owned
    std::shared_ptr<NSLoopDialog> pDlg;
    bool bDialogClosed = false;
    int32_t nType = 0;
};

} // namespace cirrovault
