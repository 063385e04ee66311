#pragma once

namespace cirrovault {

// Names shared by the controllers that fill windows and the back ends that draw them:
// layouts, the outlets of each layout, buttons and window events.
namespace ViewLayout {
// The wait dialog: page 0 a message, page 1 scan totals, page 2 a retry countdown.
inline constexpr const char* LoopDialog = "LoopDialog";
inline constexpr const char* ProgressWindow = "ProgressWindow";
inline constexpr const char* DownloadProgressWindow = "DownloadProgressWindow";
// The first step of the new-task wizard: name, description, schedule type, weekday, time.
inline constexpr const char* CreateTaskStep1 = "CreateTaskStep1";
// The local folder browser: one row per item of the current folder, ticks by row.
inline constexpr const char* FilePathBrowser = "FilePathBrowser";
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
// CreateTaskStep1
inline constexpr const char* TaskName = "taskName";
inline constexpr const char* TaskDescription = "taskDescription";
inline constexpr const char* DaysPopupButton = "daysPopupButton"; // items: titles; value: index
inline constexpr const char* BackupTypeMatrixRadio = "backupTypeMatrixRadio"; // value: tag
inline constexpr const char* BackupDate = "backupDate"; // value: seconds since 1970
// FilePathBrowser
inline constexpr const char* CurrentPath = "currentPath";
inline constexpr const char* Rows = "rows";     // items: one drawn row each, "[x] " or "[ ] " first
inline constexpr const char* Cursor = "cursor"; // value: index of the highlighted row; a back end may set it
inline constexpr const char* Status = "status"; // e.g. why a folder shows nothing
} // namespace ViewOutlet

namespace ViewButton {
inline constexpr const char* Cancel = "Cancel";
inline constexpr const char* Retry = "Retry";
// The window's own close button.
inline constexpr const char* Close = "Close";
// CreateTaskStep1 (the radio matrix's action is its outlet name)
inline constexpr const char* Next = "Next";
inline constexpr const char* Back = "Back";
// FilePathBrowser
inline constexpr const char* Up = "Up";
inline constexpr const char* Down = "Down";
inline constexpr const char* Open = "Open";     // opens the highlighted folder
inline constexpr const char* Parent = "Parent"; // goes to the enclosing folder
inline constexpr const char* Tick = "Tick";     // ticks or unticks the highlighted row
inline constexpr const char* Done = "Done";
} // namespace ViewButton

// Events a window sends to its actions, like buttons but raised by the back end.
namespace ViewEvent {
// The window's modal session has begun (the window became the main window).
inline constexpr const char* Shown = "Shown";
// The window is about to close, whoever closes it.
inline constexpr const char* WillClose = "WillClose";
} // namespace ViewEvent

} // namespace cirrovault
