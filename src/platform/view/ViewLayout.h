#pragma once

namespace cirrovault {

// Names shared by the controllers that fill windows and the back ends that draw them:
// layouts, the outlets of each layout, buttons and window events.
namespace ViewLayout {
// The wait dialog: page 0 a message, page 1 scan totals, page 2 a retry countdown.
inline constexpr const char* LoopDialog = "LoopDialog";
inline constexpr const char* ProgressWindow = "ProgressWindow";
inline constexpr const char* DownloadProgressWindow = "DownloadProgressWindow";
} // namespace ViewLayout

namespace ViewOutlet {
inline constexpr const char* Title = "title";
inline constexpr const char* CancelTitle = "cancelTitle";
// LoopDialog
inline constexpr const char* LogOnStr = "mLogOnStr";
inline constexpr const char* ScanFileStr = "mScanFileStr";
inline constexpr const char* TotalSourceFilePath = "mTotalSourceFilePath";
inline constexpr const char* TotalSourceSize = "mTotalSourceSize";
inline constexpr const char* TotalFilesCount = "mTotalFilesCount";
inline constexpr const char* RetryLogonStr = "mRetryLogonStr";
// ProgressWindow
inline constexpr const char* Message = "message";
inline constexpr const char* Bar = "bar";
inline constexpr const char* TotalLabel = "totalLabel";
inline constexpr const char* Total = "total";
inline constexpr const char* TotalUnit = "totalUnit";
inline constexpr const char* LeftLabel = "leftLabel";
inline constexpr const char* Left = "left";
inline constexpr const char* LeftUnit = "leftUnit";
inline constexpr const char* TimeLeftLabel = "timeLeftLabel";
inline constexpr const char* TimeLeft = "timeLeft";
// DownloadProgressWindow (also TimeLeft)
inline constexpr const char* DownPath = "downPath";
inline constexpr const char* TransferRate = "transferRate";
inline constexpr const char* RestoringFile = "restoringFile";
inline constexpr const char* FilePrgBar = "filePrgBar";
} // namespace ViewOutlet

namespace ViewButton {
inline constexpr const char* Cancel = "Cancel";
inline constexpr const char* Retry = "Retry";
// The window's own close button.
inline constexpr const char* Close = "Close";
} // namespace ViewButton

// Events a window sends to its actions, like buttons but raised by the back end.
namespace ViewEvent {
// The window's modal session has begun (the window became the main window).
inline constexpr const char* Shown = "Shown";
// The window is about to close, whoever closes it.
inline constexpr const char* WillClose = "WillClose";
} // namespace ViewEvent

} // namespace cirrovault
