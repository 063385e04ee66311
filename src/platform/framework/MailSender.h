#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

// Report mail. With the setting "SMTPURL" (smtp://host:port or smtps://..., user and
// password may be in the URL, the password better kept apart with PasswordMan; with
// either the session must be TLS: smtps, or STARTTLS offered by the server) a message goes out through libcurl, from "SMTPFrom" or
// cirrovault@<host name>. When it cannot be sent, or no SMTP URL is set, the message is
// kept as an .eml file in the account's outbox folder on this computer, so no report
// is lost.
class MailSender {
public:
    // Success when sent or kept; MailFailed only when neither worked.
    static int64_t send(const std::string& toAddress, const std::string& subject,
                        const std::string& body, const std::string& customerID);

    // The addresses of a recipient text ("a@x, b@y; c@z"); empty when any of them is
    // not a plain address (no spaces, controls or angle brackets, one "@").
    static std::vector<std::string> splitRecipients(const std::string& toAddress);
    // An RFC 5322 message: CRLF lines, UTF-8 text as quoted-printable, a non-ASCII
    // subject as encoded words.
    static std::string composeMessage(const std::string& from,
                                      const std::vector<std::string>& recipients,
                                      const std::string& subject, const std::string& body,
                                      Date date, const std::string& messageID);
    static std::string quotedPrintable(const std::string& text);
    static std::string encodeHeaderText(const std::string& text);
    static std::string rfc5322Date(Date date); // local time with its UTC offset

    // Sends by SMTP; false with a reason when the server did not take the message. A
    // password given here serves the user named in the URL.
    static bool sendSmtp(const std::string& url, const std::string& from,
                         const std::vector<std::string>& recipients, const std::string& message,
                         std::string& failure, const std::string& password = "");
    // Whether url is an SMTP server URL this sender can use (smtp:// or smtps:// with a
    // host); its password, if it carries one, moved out into password.
    static bool splitServerURL(const std::string& url, std::string& withoutPassword,
                               std::string& password);
    // The outbox folder of an account, and keeping a message there; the file's path,
    // or none when it could not be written.
    static std::string outboxFolder(const std::string& customerID);
    static std::optional<std::string> keepInOutbox(const std::string& customerID,
                                                   const std::string& message);
};

} // namespace cirrovault
