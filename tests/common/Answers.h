#pragma once

#include <initializer_list>
#include <string>

namespace cirrovault::test {

// A run of yes/no answers as "1" and "0", taken in the order written (a braced list is
// evaluated left to right), so one comparison shows every answer of a sequence.
inline std::string answers(std::initializer_list<bool> each) {
    std::string out;
    for (bool answer : each)
        out += answer ? '1' : '0';
    return out;
}

} // namespace cirrovault::test
