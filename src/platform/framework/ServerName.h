#pragma once

#include <string>

namespace cirrovault {

// Local names as the service keeps them. The service refuses names holding
// \ / : * ? " < > | { }, which are ordinary on Linux ("Notes 10:30.txt"), so each such
// character is stored as "%" and its two upper-case hex digits ("Notes 10%3A30.txt").
// A "%" of the name is written "%25" only where it would otherwise read as one of
// those escapes, so every other name is stored exactly as it is and old backups keep
// their names. decode(encode(x)) == x for every name.
class ServerName {
public:
    static std::string encode(const std::string& localName);
    static std::string decode(const std::string& serverName);
    // A relative local path ("a/b:c") as the server's relative path ("a\b%3Ac"), and back.
    static std::string encodePath(const std::string& localRelative);
    static std::string decodePath(const std::string& serverRelative);
    // A name the service refuses as it stands.
    static bool needsEncoding(const std::string& localName);
};

} // namespace cirrovault
