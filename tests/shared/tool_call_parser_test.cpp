#include <optional>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "OrinLinkShared/ToolCallParser.h"

#include "NaiveMarkupRemoval.h"

namespace orin {
namespace {

TEST(ToolCallParser, ExtractsFirstBlockAndStripsAllMarkup) {
  struct Case {
    std::string_view text;
    std::optional<std::string_view> name;
    std::string_view shown;
  };
  const Case cases[] = {
      {R"(Setting a timer. <orin_tool_call>{"tool":"timer","arguments":{"minutes":5}})"
       R"(</orin_tool_call>)",
       "timer", "Setting a timer."},
      {R"(Let me check <orin_tool_call>{"name":"weather"})", std::nullopt, "Let me check"},
      {R"(A<orin_tool_call>{"name":"first"}</orin_tool_call> B )"
       R"(<orin_tool_call>{"name":"second"}</orin_tool_call> C)",
       "first", "A B  C"},
      {"<orin_tool_call>not json</orin_tool_call>\nHello", std::nullopt, "Hello"},
      {R"(<orin_tool_call>not json</orin_tool_call><orin_tool_call>{"name":"b"}</orin_tool_call>)",
       std::nullopt, ""},
      {"<orin_tool_call>[1]</orin_tool_call>ok", std::nullopt, "ok"},
      {"<orin_tool_call></orin_tool_call>", std::nullopt, ""},
      {"  \n plain reply \t", std::nullopt, "plain reply"},
      {R"(<ORIN_TOOL_CALL>{"name":"x"}</ORIN_TOOL_CALL>)", std::nullopt,
       R"(<ORIN_TOOL_CALL>{"name":"x"}</ORIN_TOOL_CALL>)"},
      {"<orin_tool_call>\n  {\"name\":\"spaced\"}\n</orin_tool_call>", "spaced", ""},
      {"<orin_tool_call>\u00A0{\"name\":\"wide\"}\u3000</orin_tool_call>", "wide", ""},
      {R"(</orin_tool_call> x <orin_tool_call>{"name":"late"}</orin_tool_call>)", "late",
       "</orin_tool_call> x"},
      {R"(</orin_tool_call>x<orin_tool_call>{"name":"open"})", std::nullopt, "</orin_tool_call>x"},
      // Removing the inner block joins "<orin_" and "tool_call>" into a block of its own.
      {R"(keep <orin_<orin_tool_call>{}</orin_tool_call>tool_call>hidden</orin_tool_call> end)",
       std::nullopt, "keep  end"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto call = OrinToolParser::extractToolCall(c.text);
    EXPECT_EQ(call ? std::optional(call->name) : std::nullopt, c.name);
    EXPECT_EQ(OrinToolParser::removingToolCallMarkup(c.text), c.shown);
  }
}

TEST(ToolCallParser, RemovalMatchesNaiveRescanOnTrickyInputs) {
  const std::string_view tricky[] = {
      "<orin_tool<orin_tool_call></orin_tool_call>_call>",
      "<orin<orin_<orin_tool_call></orin_tool_call>tool_call></orin_tool_call>_tool_call>z",
      "a<orin_tool_call>b</orin_tool_call></orin_tool_call>c",
      "<<orin_tool_call>x</orin_tool_call>orin_tool_call>y</orin_tool_call>z",
      "<orin_tool_call</orin_tool_call>",
      "<orin_tool_call><orin_tool_call>x</orin_tool_call>y</orin_tool_call>",
      "long prefix text <orin_tool_call>a</orin_tool_call><orin_tool_call>b</orin_tool_call>",
      "<</orin_tool_call>orin_tool_call>",
  };
  for (const auto text : tricky) {
    EXPECT_EQ(OrinToolParser::removingToolCallMarkup(text), test::naiveMarkupRemoval(text)) << text;
  }

  // Random joins of tag fragments find seams that a hand-written list misses.
  const std::string_view fragments[] = {"<orin_tool_call>",
                                        "</orin_tool_call>",
                                        "<orin_",
                                        "tool_call>",
                                        "</orin_",
                                        "<orin_tool",
                                        "_call>",
                                        "<",
                                        "x",
                                        " ",
                                        "orin_tool_call>"};
  std::mt19937 random(20260521);
  std::uniform_int_distribution<std::size_t> pick(0, std::size(fragments) - 1);
  std::uniform_int_distribution<int> length(1, 14);
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    for (int i = length(random); i > 0; --i)
      text += fragments[pick(random)];
    ASSERT_EQ(OrinToolParser::removingToolCallMarkup(text), test::naiveMarkupRemoval(text)) << text;
  }
}

}  // namespace
}  // namespace orin
