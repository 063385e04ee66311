// The task's exclusion filters, which arrive with the task list from the store: a path,
// then one filter a line. The first byte says whether the filters name folders.

#include "FuzzInput.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/SystemItems.h"
#include "support/GlobalFunction.h"

// The filters' file also asks the user about disk space; here nobody answers.
int GlobalFunction::MessageBox(const std::string&, int) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const bool folders = data[0] & 1;
    auto lines = fuzz::fields(fuzz::text(data + 1, size - 1), '\n', 16);
    const std::string path = lines.front();
    std::vector<std::string> filters(lines.begin() + 1, lines.end());
    (void)CBackupTask::RegexFun(path, filters, folders);
    for (const auto& filter : filters)
        (void)CBackupTask::RegexCombiningStrings(filter, folders);
    (void)CBackupTask::RegexBackupPathForServer(path);
    SystemItems items(filters);
    (void)items.isExcluded(path);
    (void)items.volumeOf(path);
    (void)SystemItems::parseMountInfo(path);
    return 0;
}
