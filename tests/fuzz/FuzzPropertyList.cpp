// Property lists, XML and binary: settings, passwords and the task list are kept in
// them, and a damaged or planted one must be refused, not crash the program.

#include "FuzzInput.h"
#include "platform/framework/PropertyList.h"

namespace {

void visit(const PropertyList& value, int depth) {
    (void)value.asBool();
    (void)value.asInteger();
    if (depth > 64)
        return;
    if (const auto* dict = value.dict())
        for (const auto& [key, member] : *dict)
            visit(member, depth + 1);
    if (const auto* array = value.array())
        for (const auto& member : *array)
            visit(member, depth + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto plist = PropertyList::parse(fuzz::text(data, size));
    if (!plist)
        return 0;
    visit(*plist, 0);
    (void)PropertyList::parse(plist->toXml());
    return 0;
}
