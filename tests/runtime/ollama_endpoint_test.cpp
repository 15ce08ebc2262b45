#include <optional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "OrinLink/runtime/OllamaRuntime.h"

namespace orin {
namespace {

auto fields(const OllamaEndpoint& e) {
  return std::tuple(e.tls, e.host, e.port, e.pathPrefix);
}

TEST(OllamaEndpoint, ParsesHTTPBaseURLsAndRefusesTheRest) {
  struct Case {
    std::string text;
    std::optional<OllamaEndpoint> expected;
  };
  const Case cases[] = {
      {"http://localhost:11434", OllamaEndpoint{false, "localhost", 11434, "/"}},
      {"https://models.example.com", OllamaEndpoint{true, "models.example.com", 443, "/"}},
      {"http://10.0.0.2/", OllamaEndpoint{false, "10.0.0.2", 80, "/"}},
      {"http://h:/x/", OllamaEndpoint{false, "h", 80, "/x/"}},
      {"HTTPS://Box:8443/prefix", OllamaEndpoint{true, "Box", 8443, "/prefix/"}},
      {"http://[::1]:8080/a/b%20c", OllamaEndpoint{false, "::1", 8080, "/a/b%20c/"}},
      {"", std::nullopt},
      {"localhost:11434", std::nullopt},
      {"ftp://h/", std::nullopt},
      {"http://", std::nullopt},
      {"http:///path", std::nullopt},
      {"http:h", std::nullopt},
      {"http://h:0", std::nullopt},
      {"http://h:65536", std::nullopt},
      {"http://h:port", std::nullopt},
      {"http://h:12x/", std::nullopt},
      {"http://user:secret@h", std::nullopt},
      {"http://h/?q=1", std::nullopt},
      {"http://h/#part", std::nullopt},
      {"http://h x/", std::nullopt},
      {"http://%68ost/", std::nullopt},
      {"http://[v1.x]/", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto parsed = OllamaEndpoint::parse(c.text);
    ASSERT_EQ(parsed.has_value(), c.expected.has_value());
    if (parsed) {
      EXPECT_EQ(fields(*parsed), fields(*c.expected));
    }
  }
  EXPECT_EQ(fields(OllamaEndpoint::defaultEndpoint()),
            fields(*OllamaEndpoint::parse(OllamaEndpoint::defaultBaseURL)));
}

TEST(DisplayPrompt, FindsTheUsersWords) {
  const std::string a300(300, 'a');
  std::string euros;
  for (int i = 0; i < 301; ++i)
    euros += "\u20AC";
  struct Case {
    std::string name;
    std::string prompt;
    std::string shown;
  };
  const Case cases[] = {
      {"last user message, trimmed",
       "<user_message>first</user_message>\n<user_message>\n\u00A0 second\n</user_message>",
       "second"},
      {"unclosed message falls back to the last user turn",
       "<start_of_turn>user\nold<end_of_turn><start_of_turn>user\n new \n<end_of_turn>\n"
       "<start_of_turn>model\n<user_message>never closed",
       "new"},
      {"turn without its end runs to the end", "<start_of_turn>user\n  open question  ",
       "open question"},
      {"unclosed message and no turn: the prompt's start", "<user_message> x", "<user_message> x"},
      {"no markers: the first 300 characters as they stand", "  " + a300, "  " + a300.substr(2)},
      {"short prompt unchanged", "  hi\n", "  hi\n"},
      {"characters, never bytes", euros, euros.substr(0, 300 * 3)},
      {"a multibyte character at the cut stays whole", std::string(299, 'a') + "\U0001F600" + "zz",
       std::string(299, 'a') + "\U0001F600"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(displayPrompt(c.prompt), c.shown);
  }
}

}  // namespace
}  // namespace orin
