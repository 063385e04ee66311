// Server paths (every path a server or the task list hands us goes through StorePath),
// the reply and date helpers of Functions, and the names encrypted files are bound to.
// Input: fields separated by TAB; the first byte's low bits choose the date pattern.

#include "FuzzInput.h"
#include "platform/framework/FileCrypto.h"
#include "platform/framework/Functions.h"
#include "platform/store/StorePath.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzz::fields(fuzz::text(data, size), '\t', 4);
    const std::string& path = parts[0];
    const std::string& other = parts.size() > 1 ? parts[1] : parts[0];

    auto normal = StorePath::normalize(path);
    auto names = StorePath::split(path);
    if (normal.has_value() != names.has_value())
        fuzz::broken("normalize and split disagree on a path");
    if (normal) {
        if (StorePath::normalize(*normal) != normal)
            fuzz::broken("normalize is not idempotent");
        if (StorePath::join(*names) != *normal)
            fuzz::broken("join(split(p)) is not normalize(p)");
        for (const auto& name : *names)
            if (!StorePath::isValidName(name) || name == ".." || name == ".")
                fuzz::broken("a refused name passed");
        if (!StorePath::isSameOrInside(*normal, *normal))
            fuzz::broken("a path is not inside itself");
        if (auto folder = StorePath::normalize(other)) {
            if (StorePath::isSameOrInside(*normal, *folder)) {
                std::string moved = StorePath::rebase(*normal, *folder, "\\x");
                if (!StorePath::normalize(moved))
                    fuzz::broken("rebase made a path that is refused");
            }
            if (StorePath::isValidName(path) &&
                !StorePath::normalize(StorePath::child(*folder, path)))
                fuzz::broken("a valid name in a valid folder is refused");
        }
        (void)FileCrypto::boundNames(*normal, "Encrypted", "History");
    }

    (void)Functions::GetValueArrayByKey(other, path);
    (void)Functions::stringFromSvrDate(path);
    static const char* const patterns[] = {"yyyy-MM-dd HH:mm:ss", "MM/dd/yyyy HH:mm:ss",
                                           "MM/dd/yyyy hh:mm:ss a", "yyyy'T'MM"};
    const char* pattern = patterns[size ? data[0] % 4 : 0];
    if (auto date = Functions::dayTransFromedString(path, pattern))
        (void)Functions::stringTransFromedDate(*date, pattern);
    (void)Functions::dayTransFromedString(path, other);
    (void)Functions::IsEncryptPath(path);
    return 0;
}
