#pragma once

namespace cirrovault {

class CDownloadFileController;

// What the restore controller tells its view: new figures to show.
class CDownloadFileDelegate {
public:
    virtual ~CDownloadFileDelegate() = default;
    // True when the view redrew itself from the controller's figures.
    virtual bool DownloadFileDelegateFun(CDownloadFileController& controller) = 0;
};

} // namespace cirrovault
