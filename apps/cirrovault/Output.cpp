#include "Output.h"

#include <cstdio>

namespace cirrovault::cli {

void Output::line(const std::string& text) const {
    if (json_ || quiet_)
        return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Output::result(const Json& document) const {
    if (!json_)
        return;
    std::string out = document.dump();
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
}

void Output::error(int exitCode, const std::string& message) const {
    std::fprintf(stderr, "cirrovault: %s\n", message.c_str());
    if (json_) {
        Json doc = Json::object();
        doc.set("ok", false).set("exitCode", exitCode).set("error", message);
        result(doc);
    }
}

} // namespace cirrovault::cli
