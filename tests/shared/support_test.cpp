#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLinkShared/Base64.h"
#include "OrinLinkShared/Date.h"
#include "OrinLinkShared/Text.h"
#include "OrinLinkShared/Uuid.h"

namespace orin {
namespace {

TEST(Uuid, Parse) {
  struct Case {
    std::string_view text;
    bool valid;
  };
  const Case cases[] = {
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", true},
      {"e621e1f8-c36c-495a-93fc-0c247a3e6e5f", true},
      {"e621E1F8-c36C-495a-93Fc-0C247a3E6e5F", true},
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5", false},
      {"E621E1F8C-36C-495A-93FC-0C247A3E6E5F", false},
      {"E621E1F8-C36C-495A-93FC0-C247A3E6E5F", false},
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E5G", false},
      {"{621E1F8-C36C-495A-93FC-0C247A3E6E5}", false},
      {"E621E1F8-C36C-495A-93FC-0C247A3E6E+F", false},
      {"", false},
  };
  const auto canonical = Uuid::parse(cases[0].text);
  ASSERT_EQ(canonical.value().string(), cases[0].text);
  for (const auto& c : cases)
    EXPECT_EQ(Uuid::parse(c.text), c.valid ? canonical : std::nullopt) << c.text;
}

TEST(Uuid, RandomIsVersion4AndUnique) {
  const Uuid a = Uuid::random();
  const Uuid b = Uuid::random();
  EXPECT_NE(a, b);
  EXPECT_EQ(a.bytes()[6] >> 4, 4);
  EXPECT_EQ(a.bytes()[8] >> 6, 2);
  EXPECT_EQ(Uuid::parse(a.string()), a);
}

TEST(Date, FormatsUTCWithWholeSeconds) {
  struct Case {
    Date date;
    std::string_view text;
  };
  const Case cases[] = {
      {Date{0}, "2001-01-01T00:00:00Z"},
      {Date{0.999}, "2001-01-01T00:00:00Z"},
      {Date{-0.5}, "2000-12-31T23:59:59Z"},
      {Date::fromUnixSeconds(0), "1970-01-01T00:00:00Z"},
      {Date::fromUnixSeconds(-1), "1969-12-31T23:59:59Z"},
      {Date::fromUnixSeconds(1709208000), "2024-02-29T12:00:00Z"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.date.iso8601(), c.text);
}

TEST(Date, ParsesISO8601) {
  struct Case {
    std::string_view text;
    std::optional<Date> date;
  };
  const Case cases[] = {
      {"2001-01-01T00:00:00Z", Date{0}},
      {"2001-01-01T01:30:00+01:30", Date{0}},
      {"2000-12-31T23:15:00-00:45", Date{0}},
      {"2024-02-29T12:00:00Z", Date::fromUnixSeconds(1709208000)},
      {"2000-02-29T00:00:00Z", Date::fromUnixSeconds(951782400)},
      {"1970-01-01T00:00:00Z", Date::fromUnixSeconds(0)},
      {"2023-02-29T00:00:00Z", std::nullopt},
      {"1900-02-29T00:00:00Z", std::nullopt},
      {"2001-04-31T00:00:00Z", std::nullopt},
      {"2001-13-01T00:00:00Z", std::nullopt},
      {"2001-01-01T24:00:00Z", std::nullopt},
      {"2001-01-01T00:00:60Z", std::nullopt},
      {"2001-01-01T00:00:00", std::nullopt},
      {"2001-01-01T00:00:00z", std::nullopt},
      {"2001-01-01T00:00:00Z ", std::nullopt},
      {"2001-01-01T00:00:00.5Z", std::nullopt},
      {"2001-01-01T00:00:00+0100", std::nullopt},
      {"2001-01-01T00:00:00+24:00", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Date::parseISO8601(c.text), c.date) << c.text;
}

std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

TEST(Base64, StrictDecoding) {
  struct Case {
    std::string_view text;
    std::optional<std::string_view> decoded;
  };
  const Case cases[] = {
      {"", ""},
      {"Zg==", "f"},
      {"Zm8=", "fo"},
      {"Zm9v", "foo"},
      {"Zm9vYg==", "foob"},
      {"Zm9vYmFy", "foobar"},
      {"+/8=", "\xFB\xFF"},
      {"Zg=", std::nullopt},
      {"Zg", std::nullopt},
      {"Z===", std::nullopt},
      {"====", std::nullopt},
      {"Zg==Zg==", std::nullopt},
      {"=Zm9", std::nullopt},
      {"Zm=v", std::nullopt},
      {"Zm9v\n", std::nullopt},
      {"Zm-v", std::nullopt},
      {"\xC3\xA9Zg", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(base64::decode(c.text),
              c.decoded ? std::optional(bytesOf(*c.decoded)) : std::nullopt);
    if (c.decoded) {
      EXPECT_EQ(base64::encode(bytesOf(*c.decoded)), c.text);
    }
  }
}

TEST(Base64, EveryByteRoundTrips) {
  for (std::size_t length = 0; length < 4; ++length) {
    std::vector<std::uint8_t> bytes(256 + length);
    for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<std::uint8_t>(255 - i);
    EXPECT_EQ(base64::decode(base64::encode(bytes)), bytes);
  }
}

TEST(Text, TrimmedRemovesUnicodeWhiteSpaceOnly) {
  struct Case {
    std::string_view text;
    std::string_view expected;
  };
  const Case cases[] = {
      {" \t\r\n a b \v\f", "a b"},    {"\u00A0x\u3000", "x"},
      {"\u2028\u2029x\u0085", "x"},   {"\u200Bx\u200B", "\u200Bx\u200B"},
      {" \u3000 \u00A0 ", ""},        {"", ""},
      {"\xFF x \xFF", "\xFF x \xFF"}, {" \xA0x \xC2", "\xA0x \xC2"},
      {"x \xE3\x80", "x \xE3\x80"},   {"\xC0\xA0x", "\xC0\xA0x"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(text::trimmed(c.text), c.expected) << testing::PrintToString(std::string(c.text));
  }
}

TEST(Text, IsValidUTF8) {
  struct Case {
    std::string_view bytes;
    bool valid;
  };
  const Case cases[] = {
      {"", true},
      {"plain ASCII longer than eight bytes", true},
      {"caf\xC3\xA9", true},
      {"\xE2\x82\xAC and \xF0\x9F\x98\x80", true},
      {"\xED\x9F\xBF", true},
      {"\xF4\x8F\xBF\xBF", true},
      {"\xC0\xAF", false},
      {"\xE0\x80\xAF", false},
      {"\xF0\x80\x80\xAF", false},
      {"\xED\xA0\x80", false},
      {"\xF4\x90\x80\x80", false},
      {"\xFF", false},
      {"\x80", false},
      {"\xC3", false},
      {"abcdefgh\xE2\x82", false},
      {"\xE2\x82x", false},
      {"abcdefg\xC3\xA9xyz", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(text::isValidUTF8(c.bytes), c.valid) << testing::PrintToString(std::string(c.bytes));
  }
}

}  // namespace
}  // namespace orin
