#include "platform/framework/Functions.h"

#include <cctype>
#include <cmath>
#include <exception>
#include <fmt/format.h>

#include "platform/framework/LoadString.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/UrlCoding.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"

namespace cirrovault {

namespace {

constexpr const char* kMonthNames[] = {"January", "February", "March",     "April",
                                       "May",     "June",     "July",      "August",
                                       "September", "October", "November", "December"};

// One piece of a date pattern: a run of one field letter, or literal text.
struct Token {
    char letter = 0; // 0 = literal
    int count = 0;
    std::string literal;
};

bool isFieldLetter(char c) {
    return c == 'y' || c == 'M' || c == 'd' || c == 'H' || c == 'h' || c == 'm' || c == 's' ||
           c == 'a';
}

std::vector<Token> tokenize(const std::string& pattern) {
    std::vector<Token> tokens;
    auto addLiteral = [&](const std::string& text) {
        if (text.empty())
            return;
        if (tokens.empty() || tokens.back().letter != 0)
            tokens.push_back(Token{});
        tokens.back().literal += text;
    };
    for (size_t i = 0; i < pattern.size();) {
        char c = pattern[i];
        if (c == '\'') {
            size_t close = pattern.find('\'', i + 1);
            if (close == i + 1) { // '' is a quote
                addLiteral("'");
                i += 2;
                continue;
            }
            if (close == std::string::npos)
                close = pattern.size();
            addLiteral(pattern.substr(i + 1, close - i - 1));
            i = close + 1;
        } else if (isFieldLetter(c)) {
            size_t end = pattern.find_first_not_of(c, i);
            if (end == std::string::npos)
                end = pattern.size();
            tokens.push_back(Token{c, static_cast<int>(end - i), {}});
            i = end;
        } else {
            addLiteral(std::string(1, c));
            ++i;
        }
    }
    return tokens;
}

std::string padded(long value, int width) { return fmt::format("{:0{}}", value, width); }

bool isNumericToken(const Token& token) {
    return token.letter != 0 && token.letter != 'a' && !(token.letter == 'M' && token.count >= 3);
}

bool startsWithNoCase(const std::string& text, size_t at, const std::string& word) {
    if (text.size() - at < word.size())
        return false;
    for (size_t i = 0; i < word.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[at + i])) !=
            std::tolower(static_cast<unsigned char>(word[i])))
            return false;
    return true;
}

int daysInMonth(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

} // namespace

std::string Functions::stringTransFromedDate(Date date, const std::string& formateType) {
    try {
        DateComponents c = Calendar::components(date);
        int second = static_cast<int>(std::floor(c.second));
        std::string out;
        for (const Token& token : tokenize(formateType)) {
            switch (token.letter) {
            case 0: out += token.literal; break;
            case 'y': out += token.count == 2 ? padded(c.year % 100, 2) : padded(c.year, token.count); break;
            case 'M':
                if (token.count >= 4)
                    out += kMonthNames[c.month - 1];
                else if (token.count == 3)
                    out += std::string(kMonthNames[c.month - 1]).substr(0, 3);
                else
                    out += padded(c.month, token.count);
                break;
            case 'd': out += padded(c.day, token.count); break;
            case 'H': out += padded(c.hour, token.count); break;
            case 'h': out += padded(c.hour % 12 == 0 ? 12 : c.hour % 12, token.count); break;
            case 'm': out += padded(c.minute, token.count); break;
            case 's': out += padded(second, token.count); break;
            case 'a': out += c.hour < 12 ? "AM" : "PM"; break;
            }
        }
        return out;
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::stringTransFromedDate");
        return "";
    }
}

std::optional<Date> Functions::dayTransFromedString(const std::string& text,
                                                    const std::string& formateType) {
    try {
        std::vector<Token> tokens = tokenize(formateType);
        if (text.empty() || tokens.empty())
            return std::nullopt;
        DateComponents c; // fields the pattern lacks stay at 1970-01-01 00:00:00
        int hour12 = -1;
        int pm = -1;
        size_t at = 0;
        for (size_t t = 0; t < tokens.size(); ++t) {
            const Token& token = tokens[t];
            if (token.letter == 0) {
                if (text.compare(at, token.literal.size(), token.literal) != 0)
                    return std::nullopt;
                at += token.literal.size();
                continue;
            }
            if (token.letter == 'a') {
                if (startsWithNoCase(text, at, "AM"))
                    pm = 0;
                else if (startsWithNoCase(text, at, "PM"))
                    pm = 1;
                else
                    return std::nullopt;
                at += 2;
                continue;
            }
            if (token.letter == 'M' && token.count >= 3) {
                int found = 0;
                for (int m = 12; m >= 1 && !found; --m) {
                    std::string name = kMonthNames[m - 1];
                    std::string word = token.count == 3 ? name.substr(0, 3) : name;
                    if (startsWithNoCase(text, at, word)) {
                        found = m;
                        at += word.size();
                    }
                }
                if (!found)
                    return std::nullopt;
                c.month = found;
                continue;
            }
            // Numbers: as many digits as there are, unless the next field follows
            // with no separator, when the pattern's width decides.
            bool fixedWidth = t + 1 < tokens.size() && isNumericToken(tokens[t + 1]);
            size_t maxDigits = fixedWidth ? static_cast<size_t>(token.count) : 9;
            size_t digits = 0;
            long value = 0;
            while (at < text.size() && digits < maxDigits &&
                   std::isdigit(static_cast<unsigned char>(text[at]))) {
                value = value * 10 + (text[at] - '0');
                ++at;
                ++digits;
            }
            if (digits == 0)
                return std::nullopt;
            switch (token.letter) {
            case 'y':
                c.year = static_cast<int>(value);
                if (token.count == 2 && digits <= 2)
                    c.year += value <= 68 ? 2000 : 1900;
                break;
            case 'M': c.month = static_cast<int>(value); break;
            case 'd': c.day = static_cast<int>(value); break;
            case 'H': c.hour = static_cast<int>(value); break;
            case 'h': hour12 = static_cast<int>(value); break;
            case 'm': c.minute = static_cast<int>(value); break;
            case 's': c.second = static_cast<double>(value); break;
            }
        }
        // Trailing blanks are forgiven; anything else means the text is not a date.
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])))
            ++at;
        if (at != text.size())
            return std::nullopt;
        if (hour12 >= 0) {
            // A 12-hour field over 12 is read as a 24-hour one; without a marker the
            // morning is meant (12 is midnight).
            if (hour12 > 23)
                return std::nullopt;
            c.hour = hour12 > 12 ? hour12 : hour12 % 12 + (pm == 1 ? 12 : 0);
        } else if (pm == 1 && c.hour < 12) {
            c.hour += 12;
        }
        if (c.year < 1 || c.month < 1 || c.month > 12 || c.day < 1 ||
            c.day > daysInMonth(c.year, c.month) || c.hour > 23 || c.minute > 59 || c.second > 59)
            return std::nullopt;
        return Calendar::dateFromComponents(c);
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::dayTransFromedString");
        return std::nullopt;
    }
}

std::string Functions::stringFromSvrDate(const std::string& svrDate) {
    try {
        std::string text = svrDate;
        size_t begin = text.find_first_not_of(" \t\r\n");
        if (begin == std::string::npos)
            return "";
        text = text.substr(begin);
        // ISO spelling: a "T" between date and time.
        if (text.size() > 10 && text[10] == 'T')
            text[10] = ' ';
        static const char* accepted[] = {"MM/dd/yyyy HH:mm:ss", "MM/dd/yyyy h:mm:ss a",
                                         "yyyy-MM-dd HH:mm:ss", "MM/dd/yyyy", "yyyy-MM-dd"};
        for (const char* pattern : accepted) {
            if (auto date = dayTransFromedString(text, pattern))
                return stringTransFromedDate(*date, "MM/dd/yyyy HH:mm:ss");
        }
        return "";
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::stringFromSvrDate");
        return "";
    }
}

DateComponents Functions::GetDateComponentsFromNSDateAndNSCalendar(Date date, uint32_t unitFlags) {
    DateComponents all = Calendar::components(date);
    DateComponents wanted;
    if (unitFlags & CalendarUnit::Year)
        wanted.year = all.year;
    if (unitFlags & CalendarUnit::Month)
        wanted.month = all.month;
    if (unitFlags & CalendarUnit::Day)
        wanted.day = all.day;
    if (unitFlags & CalendarUnit::Hour)
        wanted.hour = all.hour;
    if (unitFlags & CalendarUnit::Minute)
        wanted.minute = all.minute;
    if (unitFlags & CalendarUnit::Second)
        wanted.second = all.second;
    if (unitFlags & CalendarUnit::Weekday)
        wanted.weekday = all.weekday;
    return wanted;
}

int Functions::getDayOfWeekly(Date date) { return Calendar::weekday(date); }

std::string Functions::FormatSizeToString(uint64_t size) {
    if (size < 1024)
        return fmt::format("{} B", size);
    static const char* units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(size) / 1024.0;
    size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(units)) {
        value /= 1024.0;
        ++unit;
    }
    return fmt::format("{:.2f} {}", value, units[unit]);
}

bool Functions::IsEncryptPath(const std::string& serverPath) {
    try {
        std::string folder = LoadString::GetValueByKey("EncryptionFolder", "");
        if (folder.empty() || serverPath.empty())
            return false;
        size_t begin = serverPath.find_first_not_of('\\');
        if (begin == std::string::npos)
            return false;
        size_t end = serverPath.find('\\', begin);
        return serverPath.substr(begin, end == std::string::npos ? std::string::npos : end - begin) ==
               folder;
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::IsEncryptPath");
        return false;
    }
}

std::vector<std::string> Functions::GetValueArrayByKey(const std::string& key,
                                                       const std::string& stringResource) {
    std::vector<std::string> values;
    try {
        size_t at = 0;
        while (at <= stringResource.size()) {
            size_t end = stringResource.find('&', at);
            if (end == std::string::npos)
                end = stringResource.size();
            std::string pair = stringResource.substr(at, end - at);
            size_t equals = pair.find('=');
            if (equals != std::string::npos && pair.compare(0, equals, key) == 0 &&
                equals == key.size())
                values.push_back(UrlCoding::decode(pair.substr(equals + 1)));
            at = end + 1;
        }
        return values;
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::GetValueArrayByKey");
        return {};
    }
}

bool Functions::OpenURLLink(const std::string& url, bool isAutoLogon) {
    try {
        if (url.empty())
            return false;
        std::string address = url;
        if (url.find("://") == std::string::npos) {
            TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
            std::string host = service.GetHttpHost();
            if (host.empty()) {
                SystemLog::write("OpenURLLink: the service has no web pages");
                return false;
            }
            address = isAutoLogon ? host + "/secure/autologon.aspx?sesID=" + service.sessionID() +
                                        "&gotoURL=" + url
                                  : host + url;
        }
        return UrlOpener::open(address);
    } catch (const std::exception&) {
        SystemLog::write("Error: Functions::OpenURLLink");
        return false;
    }
}

} // namespace cirrovault
