#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/pairing/DeviceRegistry.h"
#include "OrinLink/pairing/TokenHash.h"

#include "tests/core/TemporaryDirectory.h"

namespace orin {
namespace {

using Kind = PairingError::Kind;
using test::TemporaryDirectory;

const Date start = Date::fromUnixSeconds(1795197600);  // 2026-11-20T18:00:00Z

const std::map<Kind, std::string_view> texts{
    {Kind::tooManyAttempts,
     "Too many incorrect codes. Wait one minute, then enter the current code shown on the Mac."},
    {Kind::tokenUnavailable, "Could not create a secure pairing token. Please try again."},
    {Kind::invalidCode, "The pairing code did not match."},
    {Kind::expiredCode, "The pairing code expired. A new code is now available."},
};

// Four-byte draws come from `words` while it lasts; everything else from a fixed sequence.
struct FakeRandom {
  std::deque<std::uint32_t> words;
  bool fails = false;
  std::uint64_t state = 1;

  bool fill(std::span<std::uint8_t> bytes) {
    if (fails) return false;
    if (bytes.size() == sizeof(std::uint32_t) && !words.empty()) {
      std::memcpy(bytes.data(), &words.front(), sizeof(std::uint32_t));
      words.pop_front();
      return true;
    }
    for (auto& byte : bytes) {
      state = state * 6364136223846793005u + 1442695040888963407u;
      byte = static_cast<std::uint8_t>(state >> 56);
    }
    return true;
  }
};

class DeviceRegistryTest : public ::testing::Test {
 protected:
  DeviceRegistry open() {
    return DeviceRegistry(
        file, [this] { return now; }, [this](std::span<std::uint8_t> b) { return random.fill(b); });
  }

  // The error pairing with `entered` ends in, with its text checked; or nothing, with the new
  // token checked.
  std::optional<Kind> tryPairing(DeviceRegistry& registry, const std::string& entered) {
    try {
      const std::string token = registry.pair("device", "Headset", entered);
      EXPECT_EQ(token.size(), 44u);
      EXPECT_TRUE(registry.authenticate(token));
      EXPECT_EQ(readFile(file).value_or("").find(token), std::string::npos);
      return std::nullopt;
    } catch (const PairingError& e) {
      EXPECT_EQ(e.what(), texts.at(e.kind()));
      return e.kind();
    }
  }

  void writeFile(std::string_view text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
  }

  TemporaryDirectory dir;
  std::filesystem::path file = dir.path() / "data" / "OrinLink" / "paired-devices.json";
  Date now = start;
  FakeRandom random;
};

TEST_F(DeviceRegistryTest, CodeIsDrawnWithoutModuloBias) {
  // 4294800000 is the largest multiple of 900000 that fits in 32 bits: draws at or above it would
  // favour the low codes, so they are drawn again.
  struct Case {
    std::deque<std::uint32_t> words;
    std::string code;
  };
  const Case cases[] = {
      {{0}, "100 000"},
      {{899999}, "999 999"},
      {{900000}, "100 000"},
      {{4294799999u}, "999 999"},
      {{4294800000u, 0xFFFFFFFFu, 23456}, "123 456"},
  };
  for (const auto& c : cases) {
    random.words = c.words;
    const DeviceRegistry registry = open();
    EXPECT_EQ(registry.pairingCode(), c.code);
    EXPECT_TRUE(random.words.empty());
  }
}

TEST_F(DeviceRegistryTest, RemainingSecondsTruncateAndNeverGoNegative) {
  const DeviceRegistry registry = open();
  const std::pair<double, std::int64_t> cases[] = {{0, 600},   {0.4, 599}, {599, 1},
                                                   {599.6, 0}, {600, 0},   {4000, 0}};
  for (const auto& [elapsed, remaining] : cases) {
    now = start.adding(elapsed);
    EXPECT_EQ(registry.pairingCodeRemainingSeconds(), remaining) << elapsed;
  }
}

enum class Entry { shown, wrong, previous };
struct Step {
  double at;  // seconds after the registry was made
  Entry entry;
  std::optional<Kind> error;
  int repeat = 1;
};

TEST_F(DeviceRegistryTest, PairingSequences) {
  const std::optional<Kind> ok;
  const auto invalid = Kind::invalidCode, locked = Kind::tooManyAttempts,
             expired = Kind::expiredCode;
  const std::pair<const char*, std::vector<Step>> sequences[] = {
      {"four wrong then right succeeds and resets the count",
       {{0, Entry::wrong, invalid, 4},
        {1, Entry::shown, ok},
        {2, Entry::wrong, invalid, 4},
        {2, Entry::wrong, locked}}},
      {"the fifth wrong code locks even the right one for 60 s",
       {{10, Entry::wrong, invalid, 4},
        {10, Entry::wrong, locked},
        {10, Entry::shown, locked},
        {69.9, Entry::shown, locked},
        {70, Entry::shown, ok}}},
      {"the lock clears with the count",
       {{0, Entry::wrong, invalid, 4}, {0, Entry::wrong, locked}, {60, Entry::wrong, invalid}}},
      {"expiry at 600 s renews the code and is not counted",
       {{0, Entry::wrong, invalid, 4}, {600, Entry::shown, expired}, {600, Entry::shown, ok}}},
      {"an expired code stays refused",
       {{600, Entry::shown, expired}, {600, Entry::previous, invalid}}},
      {"each code lives 600 s from its making",
       {{599.5, Entry::shown, ok}, {1199, Entry::shown, ok}, {1799, Entry::shown, expired}}},
      {"a used code is refused", {{0, Entry::shown, ok}, {1, Entry::previous, invalid}}},
      {"the lock outranks expiry",
       {{590, Entry::wrong, invalid, 4},
        {590, Entry::wrong, locked},
        {620, Entry::shown, locked},
        {650, Entry::shown, expired}}},
  };
  for (const auto& [name, steps] : sequences) {
    SCOPED_TRACE(name);
    now = start;
    DeviceRegistry registry = open();
    std::string previous;
    for (const Step& step : steps) {
      for (int i = 0; i < step.repeat; ++i) {
        SCOPED_TRACE(step.at);
        now = start.adding(step.at);
        const std::string shown = registry.pairingCode();
        const std::string entered = step.entry == Entry::shown   ? shown
                                    : step.entry == Entry::wrong ? "000 000"
                                                                 : previous;
        const std::optional<Kind> error = tryPairing(registry, entered);
        ASSERT_EQ(error, step.error);
        const bool renewed = !error || error == expired;
        EXPECT_EQ(registry.pairingCode() != shown, renewed);
        if (renewed) {
          EXPECT_EQ(registry.pairingCodeCreatedAt(), now);
          previous = shown;
        }
      }
    }
  }
}

TEST_F(DeviceRegistryTest, BlanksAnywhereAreIgnoredAndNothingElse) {
  const std::pair<std::string, bool> cases[] = {
      {"123 456", true},   {"123456", true},   {" 123456 ", true}, {"1 2 3 4 5 6", true},
      {"123\t456", false}, {"123-456", false}, {"12 345", false},  {"", false},
  };
  for (const auto& [entered, matches] : cases) {
    random.words = {23456};
    DeviceRegistry registry = open();
    ASSERT_EQ(registry.pairingCode(), "123 456");
    EXPECT_EQ(tryPairing(registry, entered),
              matches ? std::nullopt : std::optional(Kind::invalidCode))
        << entered;
  }
}

TEST_F(DeviceRegistryTest, FailingRandomSourceGivesNoTokenAndKeepsTheCode) {
  DeviceRegistry registry = open();
  const std::string code = registry.pairingCode();
  random.fails = true;
  EXPECT_EQ(tryPairing(registry, code), Kind::tokenUnavailable);
  EXPECT_TRUE(registry.devices().empty());
  random.fails = false;
  EXPECT_EQ(tryPairing(registry, code), std::nullopt);
}

TEST_F(DeviceRegistryTest, RepairingKeepsIdentityAndRevokesTheOldTokenOnce) {
  DeviceRegistry registry = open();
  std::vector<std::string> revoked, paired;
  registry.onRevoked = [&](const std::string& hash) { revoked.push_back(hash); };
  registry.onPaired = [&](const std::string& name) { paired.push_back(name); };

  const std::string first = registry.pair("headset-1", "Headset", registry.pairingCode());
  const std::string other = registry.pair("phone-1", "Headset", registry.pairingCode());
  now = start.adding(30);
  ASSERT_TRUE(registry.authenticate(first));
  const PairedDevice before = registry.devices().at(0);

  now = start.adding(90);
  const std::string second = registry.pair("headset-1", "Studio", registry.pairingCode());
  ASSERT_EQ(registry.devices().size(), 2u);
  const PairedDevice& after = registry.devices()[0];
  EXPECT_EQ(after.id, before.id);
  EXPECT_EQ(after.lastSeenAt, before.lastSeenAt);
  EXPECT_EQ(after.displayName, "Studio");
  EXPECT_EQ(after.tokenHash, tokenHash(second));
  EXPECT_EQ(after.pairedAt, now);
  EXPECT_EQ(revoked, std::vector<std::string>{before.tokenHash});
  EXPECT_EQ(paired, (std::vector<std::string>{"Headset", "Headset", "Studio"}));
  EXPECT_FALSE(registry.authenticate(first));
  EXPECT_TRUE(registry.authenticate(second));
  EXPECT_EQ(registry.deviceName(other), "Headset");
  EXPECT_EQ(open().devices().size(), 2u);
}

TEST_F(DeviceRegistryTest, AuthenticationRewritesThePrivateFileExactly) {
  writeFile(R"([{"deviceId": "headset-1", "displayName": "Headset",
      "id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "pairedAt": "2026-11-20T18:00:00Z",
      "tokenHash": "930bbdc51b6aed5c2a5678fd6e28dee7a05e8a4b643cfc0b4427c3efb86c0d94"}])");
  DeviceRegistry registry = open();
  now = Date::fromUnixSeconds(1795239180.75);
  ASSERT_TRUE(registry.authenticate("secret-token"));
  EXPECT_EQ(readFile(file), R"([
  {
    "deviceId": "headset-1",
    "displayName": "Headset",
    "id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
    "lastSeenAt": "2026-11-21T05:33:00Z",
    "pairedAt": "2026-11-20T18:00:00Z",
    "tokenHash": "930bbdc51b6aed5c2a5678fd6e28dee7a05e8a4b643cfc0b4427c3efb86c0d94"
  }
])");
  EXPECT_EQ(test::permissions(file), 0600);
  EXPECT_EQ(test::permissions(file.parent_path()), 0700);
  EXPECT_EQ(registry.deviceName("secret-token"), "Headset");
}

TEST_F(DeviceRegistryTest, EmptyTokensNeverMatchEvenTheEmptyTextsHash) {
  writeFile(
      R"([{"deviceId": "d", "displayName": "Empty", "id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
      "pairedAt": "2026-11-20T18:00:00Z", "tokenHash": ")" +
      tokenHash("") + R"("}])");
  DeviceRegistry registry = open();
  ASSERT_EQ(registry.devices().size(), 1u);
  EXPECT_FALSE(registry.authenticate(""));
  EXPECT_FALSE(registry.authenticate(std::nullopt));
  EXPECT_EQ(registry.deviceName(""), std::nullopt);
}

TEST_F(DeviceRegistryTest, UnusableFilesLoadEmptyAndStayUntilTheNextSave) {
  const std::optional<std::string> contents[] = {
      std::nullopt,
      "[]",
      "",
      "garbage",
      "{}",
      R"([{"id": "not-a-uuid", "deviceId": "d", "displayName": "n", "tokenHash": "h",
           "pairedAt": "2026-11-20T18:00:00Z"}])",
      R"([{"id": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "deviceId": "d", "displayName": "n",
           "tokenHash": "h", "pairedAt": 815000000}])",
  };
  for (const auto& content : contents) {
    std::filesystem::remove(file);
    if (content) writeFile(*content);
    DeviceRegistry registry = open();
    EXPECT_TRUE(registry.devices().empty()) << content.value_or("(missing)");
    EXPECT_EQ(readFile(file), content);
  }
}

TEST_F(DeviceRegistryTest, RemovingADeviceRevokesItsToken) {
  DeviceRegistry registry = open();
  const std::string gone = registry.pair("a", "A", registry.pairingCode());
  const std::string kept = registry.pair("b", "B", registry.pairingCode());
  std::vector<std::string> revoked;
  int changes = 0;
  registry.onRevoked = [&](const std::string& hash) { revoked.push_back(hash); };
  registry.onChanged = [&] { ++changes; };

  EXPECT_TRUE(registry.removeDevice(registry.devices().at(0).id));
  EXPECT_FALSE(registry.removeDevice(Uuid::random()));
  EXPECT_EQ(revoked, std::vector<std::string>{tokenHash(gone)});
  EXPECT_EQ(changes, 1);
  EXPECT_FALSE(registry.authenticate(gone));
  EXPECT_TRUE(registry.authenticate(kept));
  const DeviceRegistry reloaded = open();
  ASSERT_EQ(reloaded.devices().size(), 1u);
  EXPECT_EQ(reloaded.devices()[0].deviceId, "b");
}

TEST_F(DeviceRegistryTest, AFailedSaveKeepsTheListInMemory) {
  std::ofstream(dir.path() / "blocker") << "a file where the folder should be";
  file = dir.path() / "blocker" / "paired-devices.json";
  DeviceRegistry registry = open();
  const std::string token = registry.pair("device", "Headset", registry.pairingCode());
  EXPECT_EQ(registry.devices().size(), 1u);
  EXPECT_TRUE(registry.authenticate(token));
}

}  // namespace
}  // namespace orin
