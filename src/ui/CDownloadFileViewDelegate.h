#pragma once

namespace cirrovault {

class CDownloadFileView;

// What the restore view asks of its controller: stop the restore.
class CDownloadFileViewDelegate {
public:
    virtual ~CDownloadFileViewDelegate() = default;
    // True when the stop reached the worker.
    virtual bool StopDownloadFileDelegateFun(CDownloadFileView& view) = 0;
};

} // namespace cirrovault
