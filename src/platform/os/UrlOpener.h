#pragma once

#include <string>

namespace cirrovault {

// Opens a web address in the user's browser (xdg-open). Never waits for the browser.
class UrlOpener {
public:
    // False when the address is empty or the opener cannot be started.
    static bool open(const std::string& url);
    // The program started for an address; tests point it at a script of their own.
    static void setOpenerProgram(const std::string& program); // "" = "xdg-open"
};

} // namespace cirrovault
