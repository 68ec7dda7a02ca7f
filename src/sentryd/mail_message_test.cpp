#include "sentryd/mail_message.h"

#include <gtest/gtest.h>

namespace sentryd {
namespace {

std::string header_block(const std::string& message) { return message.substr(0, message.find("\r\n\r\n") + 2); }

TEST(MailMessage, AddressesAreOnlyPlainOnes) {
  std::vector<std::string> rejected;
  auto to = parse_recipients(" a@x.test,b.c+d@y.test ,,-e@x.test,f@x.test\r\nBcc: g@x.test,<h@x.test>,i,j@", &rejected);
  EXPECT_EQ(to, (std::vector<std::string>{"a@x.test", "b.c+d@y.test"}));
  EXPECT_EQ(rejected.size(), 5u);
  EXPECT_FALSE(is_usable_address("a b@x.test"));
  EXPECT_FALSE(is_usable_address("a@b@x.test"));
  EXPECT_FALSE(is_usable_address(std::string(250, 'a') + "@x.test"));
}

// Whatever an event puts into the subject and body, the headers stay the
// ones we wrote, each on its own line(s), and the body has no bare CR, no
// line over 76 characters and no line that is a lone dot.
TEST(MailMessage, EventValuesCannotShapeTheMessage) {
  MailHeaders headers{"sentryd@host", {"a@x.test", "b@x.test"}, "Disk Evil\r\nBcc: v@x.test\n\x01 low", 0, "<1@host>"};
  std::string body = "line one\r\n.\nBcc: w@x.test\rmore " + std::string(300, 'z') + " \nünïcödé = end\n";
  std::string message = compose_message(headers, body);
  std::string head = header_block(message);
  EXPECT_EQ(head.find("\nBcc"), std::string::npos);
  EXPECT_NE(head.find("Subject: Disk Evil  Bcc: v@x.test   low\r\n"), std::string::npos);
  EXPECT_NE(head.find("To: a@x.test, b@x.test\r\n"), std::string::npos);
  EXPECT_NE(head.find("Date: "), std::string::npos);
  EXPECT_NE(head.find("Message-ID: <1@host>\r\n"), std::string::npos);

  std::string text = message.substr(head.size() + 2);
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find("\r\n", start);
    ASSERT_NE(end, std::string::npos);
    std::string line = text.substr(start, end - start);
    EXPECT_LE(line.size(), 76u) << line;
    EXPECT_NE(line, ".");
    EXPECT_EQ(line.find('\r'), std::string::npos);
    for (unsigned char c : line) EXPECT_LT(c, 0x80);
    start = end + 2;
  }
  EXPECT_NE(text.find("=2E"), std::string::npos);  // the lone dot
  EXPECT_NE(text.find("=0Dmore"), std::string::npos);
  EXPECT_NE(text.find("=3D end"), std::string::npos);
  EXPECT_NE(text.find("z=20\r\n"), std::string::npos);  // trailing blank kept visible
}

TEST(MailMessage, NonAsciiSubjectBecomesEncodedWordsOnFoldedLines) {
  std::string subject;
  for (int i = 0; i < 40; ++i) subject += "é";
  std::string head = header_block(compose_message({"s@h", {"a@x.test"}, subject, 0, "<1@h>"}, ""));
  size_t at = head.find("Subject: =?UTF-8?B?");
  ASSERT_NE(at, std::string::npos);
  std::string field = head.substr(at, head.find("\r\nDate:") - at);
  EXPECT_NE(field.find("?=\r\n =?UTF-8?B?"), std::string::npos);
  for (size_t s = 0, e; s < field.size(); s = e + 2) {
    e = field.find("\r\n", s);
    if (e == std::string::npos) e = field.size();
    EXPECT_LE(e - s, 78u);
  }
  // Text that merely looks like an encoded word is encoded too, not passed on.
  EXPECT_NE(compose_message({"s@h", {"a@x.test"}, "=?UTF-8?B?QmNj?=", 0, "<1@h>"}, "").find("Subject: =?UTF-8?B?PT9"),
            std::string::npos);
}

}  // namespace
}  // namespace sentryd
