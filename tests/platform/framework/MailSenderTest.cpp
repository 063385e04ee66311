#include <gtest/gtest.h>
#include <sodium.h>

#include "common/LoopbackPort.h"
#include "common/TempHome.h"
#include "platform/framework/MailSender.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {
std::string decodeQuotedPrintable(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '=')
            out += text[i];
        else if (text.compare(i, 3, "=\r\n") != 0)
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += text[i] == '=' ? 2 : 0;
    }
    return out;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
        lines.push_back(text.substr(at, end - at));
    EXPECT_EQ(at, text.size()) << "every line ends with CRLF";
    return lines;
}

TEST(MailSenderTest, HeaderTextIsOneLineAndNonAsciiBecomesEncodedWords) {
    EXPECT_EQ(MailSender::encodeHeaderText("Backup done"), "Backup done");
    EXPECT_EQ(MailSender::encodeHeaderText("a\r\nBcc: x@y.z"), "a  Bcc: x@y.z");

    std::string subject;
    for (int i = 0; i < 30; ++i)
        subject += "T\xC3\xA4sk \xE2\x82\xAC ";
    std::string encoded = MailSender::encodeHeaderText(subject) + "\r\n ", decoded;
    for (size_t at = 0, end; (end = encoded.find("\r\n ", at)) != std::string::npos; at = end + 3) {
        std::string word = encoded.substr(at, end - at);
        ASSERT_TRUE(word.size() <= 75 && word.rfind("=?UTF-8?B?", 0) == 0) << word;
        std::string b64 = word.substr(10, word.size() - 12);
        std::string bytes(b64.size(), '\0');
        size_t length = 0;
        ASSERT_EQ(sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(),
                                    b64.c_str(), b64.size(), nullptr, &length, nullptr,
                                    sodium_base64_VARIANT_ORIGINAL),
                  0);
        bytes.resize(length);
        EXPECT_NE(static_cast<unsigned char>(bytes.front()) & 0xC0, 0x80); // whole characters
        decoded += bytes;
    }
    EXPECT_EQ(decoded, subject);
}

TEST(MailSenderTest, RecipientsMessageLayoutAndABodyQuotedPrintableWithinLineLimits) {
    EXPECT_EQ(MailSender::splitRecipients("a@x.org, b@y.org;c@z.org"),
              (std::vector<std::string>{"a@x.org", "b@y.org", "c@z.org"}));
    for (const char* refused : {"", "nobody", "a@x.org\r\nRCPT TO:<b@y.org>", "<a@x.org>"})
        EXPECT_TRUE(MailSender::splitRecipients(refused).empty()) << refused;

    std::vector<std::string> lines =
        linesOf(MailSender::composeMessage("me@host", {"a@x.org", "b@y.org"}, "Report",
                                           "Line 1\nLine 2", Date(1'700'000'000), "<id@host>"));
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_TRUE(lines[0].rfind("Date: ", 0) == 0 && lines[0].find(" 2023 ") != std::string::npos);
    EXPECT_EQ(std::vector(lines.begin() + 1, lines.end()),
              (std::vector<std::string>{"From: me@host", "To: a@x.org, b@y.org", "Subject: Report",
                                        "Message-ID: <id@host>", "MIME-Version: 1.0",
                                        "Content-Type: text/plain; charset=UTF-8",
                                        "Content-Transfer-Encoding: quoted-printable", "", "Line 1",
                                        "Line 2"}));

    std::string body = "Plain line\n" + std::string(200, 'x') + "\r\n.starts with a dot\n"
                       "ends in spaces  \ttab\t\nequals = sign\rUmlaut \xC3\xBC and \xE2\x82\xAC\n";
    std::string encoded = MailSender::quotedPrintable(body);
    for (const std::string& line : linesOf(encoded)) {
        EXPECT_TRUE(line.size() <= 76 && line.front() != '.' && line.back() != ' ' &&
                    line.back() != '\t')
            << line;
        for (unsigned char c : line)
            EXPECT_TRUE((c >= 32 && c < 127) || c == '\t') << line;
    }
    std::string expected = "Plain line\r\n" + std::string(200, 'x') + "\r\n.starts with a dot\r\n"
                           "ends in spaces  \ttab\t\r\nequals = sign\r\nUmlaut \xC3\xBC and "
                           "\xE2\x82\xAC\r\n";
    EXPECT_EQ(decodeQuotedPrintable(encoded), expected);
}

TEST(MailSenderTest, UnsentReportsAreKeptInTheOutbox) {
    test::TempHome home;
    TransferApiUtil::releaseTransferApiUtil();
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    const std::string outbox = home.dataHome() + "/cirrovault/outbox/unknown";

    // No SMTP server set: kept, one file per report.
    EXPECT_EQ(api.SendEmailToUser("a@x.org", "First", "Body one"), ResultCode::Success);
    EXPECT_EQ(api.SendEmailToUser("a@x.org", "Second", "Body two"), ResultCode::Success);
    auto kept = FileSystem::listDirectory(outbox).value_or(std::vector<std::string>{});
    ASSERT_EQ(kept.size(), 2u);
    for (const auto& name : kept) {
        EXPECT_EQ(name.substr(name.size() - 4), ".eml");
        EXPECT_NE(FileSystem::readFile(outbox + "/" + name)->find("To: a@x.org\r\n"),
                  std::string::npos);
    }

    // A server that cannot be reached: kept too, and the failure is logged.
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey(
        "SMTPURL", "smtp://127.0.0.1:" + std::to_string(test::unusedLoopbackPort())));
    SystemLog::startCapture();
    EXPECT_EQ(api.SendEmailToUser("a@x.org", "Third", "Body"), ResultCode::Success);
    EXPECT_TRUE(SystemLog::capturedContains("Error: report mail could not be sent by SMTP"));
    SystemLog::stopCapture();
    EXPECT_EQ(FileSystem::listDirectory(outbox)->size(), 3u);

    // Neither sent nor kept, or no address at all: the only failures.
    ASSERT_TRUE(FileSystem::removeAll(home.dataHome() + "/cirrovault/outbox"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(home.dataHome() + "/cirrovault/outbox", "blocker"));
    EXPECT_EQ(std::make_pair(api.SendEmailToUser("a@x.org", "Fourth", "Body"),
                             api.SendEmailToUser("", "Fifth", "Body")),
              std::make_pair(ResultCode::MailFailed, ResultCode::MailFailed));
}

} // namespace
