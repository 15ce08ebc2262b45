#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "OrinLinkShared/JSONValue.h"

namespace orin {
namespace {

using Array = JSONValue::Array;
using Object = JSONValue::Object;
using Null = JSONValue::Null;

TEST(JSONValue, DecodesAndEncodesEachKind) {
  struct Case {
    std::string_view text;
    JSONValue value;
    std::string_view encoded = {};  // when it differs from the text
  };
  const Case cases[] = {
      {"true", true},
      {"false", false},
      {"1", 1.0},
      {"-0.25e2", -25.0, "-25"},
      {"-2.5", -2.5},
      {"0.1", 0.1},
      {"18446744073709551615", 18446744073709551615.0, "1.8446744073709552e+19"},
      {R"("a\/b")", "a/b"},
      {R"("é\n\"")", "\u00E9\n\""},
      {"null", Null{}},
      {R"([1,"a",null])", Array{1.0, "a", Null{}}},
      {"[null,{},false]", Array{Null{}, Object{}, false}},
      {"[]", Array{}},
      {"{}", Object{}},
      {R"({"a":[],"z":1})", Object{{"z", 1.0}, {"a", Array{}}}},
      {R"({"k":{"n":[false,0]}})", Object{{"k", Object{{"n", Array{false, 0.0}}}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto value = decodeJSON<JSONValue>(c.text);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(encodeJSON(c.value), c.encoded.empty() ? c.text : c.encoded);
  }
}

TEST(JSONValue, EqualityComparesKindsAndContent) {
  EXPECT_EQ(decodeJSON<JSONValue>(R"({"a":1,"b":[1,2]})"),
            decodeJSON<JSONValue>(R"({"b":[1.0,2],"a":1e0})"));
  EXPECT_NE(JSONValue(true), JSONValue(1.0));
  EXPECT_NE(JSONValue(false), JSONValue(0.0));
  EXPECT_NE(JSONValue(""), JSONValue(Null{}));
  EXPECT_NE(JSONValue(Array{1.0, 2.0}), JSONValue(Array{2.0, 1.0}));
  EXPECT_NE(JSONValue(Array{}), JSONValue(Object{}));
}

TEST(JSONParse, NestingBeyondTheLimitIsRefused) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_NO_THROW((void)decodeJSON<JSONValue>(nested(json::maxNestingDepth)));
  for (const std::size_t depth : {json::maxNestingDepth + 1, std::size_t{200'000}}) {
    try {
      (void)decodeJSON<JSONValue>(nested(depth));
      ADD_FAILURE() << "depth " << depth << " decoded";
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted);
    }
  }
  // Unclosed objects must not slip past the limit either.
  EXPECT_THROW((void)decodeJSON<JSONValue>(std::string(100'000, '{')), DecodingError);
  // Brackets inside text do not nest.
  const std::string bracketsInText = "\"\\\"" + std::string(1000, '[') + "\"";
  EXPECT_EQ(decodeJSON<JSONValue>(bracketsInText), JSONValue("\"" + std::string(1000, '[')));
}

}  // namespace
}  // namespace orin
