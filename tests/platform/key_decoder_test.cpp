#include "platform/key_decoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinetrel {
namespace {

struct Case {
  const char* name;
  std::string bytes;
  std::vector<Key> keys;
};

using enum ExtendedKey;

std::vector<Key> Keys(std::initializer_list<ExtendedKey> extended) {
  std::vector<Key> keys;
  for (const ExtendedKey key : extended) keys.push_back({static_cast<int>(key), true});
  return keys;
}

std::vector<Key> Characters(const std::string& text) {
  std::vector<Key> keys;
  for (const char letter : text) keys.push_back({static_cast<unsigned char>(letter), false});
  return keys;
}

// The keys decoded from `bytes` that come in pieces of `piece` bytes, with silence at the end.
std::vector<Key> Decode(const std::string& bytes, std::size_t piece) {
  std::vector<Key> keys;
  std::vector<std::uint8_t> waiting;
  const auto take = [&](bool silent) {
    for (;;) {
      const KeyDecoding decoding = DecodeKey(waiting, silent);
      if (decoding.used == 0) return;
      waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(decoding.used));
      if (decoding.key) keys.push_back(*decoding.key);
    }
  };
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    waiting.push_back(static_cast<std::uint8_t>(bytes[i]));
    if ((i + 1) % piece == 0) take(false);
  }
  take(true);
  EXPECT_TRUE(waiting.empty());
  return keys;
}

class KeyDecoder : public testing::TestWithParam<Case> {};

TEST_P(KeyDecoder, DecodesTheKeysFromPiecesOfAnySize) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{1000}}) {
    const std::vector<Key> keys = Decode(GetParam().bytes, piece);
    ASSERT_EQ(keys.size(), GetParam().keys.size()) << "in pieces of " << piece;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      EXPECT_EQ(keys[i].code, GetParam().keys[i].code) << i;
      EXPECT_EQ(keys[i].extended, GetParam().keys[i].extended) << i;
    }
  }
}

std::string Name(const testing::TestParamInfo<Case>& row) { return row.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Characters, KeyDecoder,
    testing::Values(Case{"Letters", "aO\x01", Characters("aO\x01")},
                    Case{"BackspaceOfBothKinds", "\x7F\b", Characters("\b\b")},
                    Case{"EnterOfBothKinds", "\r\n", Characters("\r\n")},
                    Case{"BytesAboveAscii", "\xC3\xA9\xE0", Characters("\xC3\xA9\xE0")},
                    Case{"Zero", std::string(1, '\0'), {Key{}}},
                    Case{"LoneEscape", "\x1B", Characters("\x1B")},
                    Case{"EscapeTwice", "\x1B\x1B", Characters("\x1B\x1B")},
                    Case{"EscapeThenLetter", "\x1Bq", Characters("\x1Bq")},
                    Case{"EscapeThenBracket", "\x1B[", Characters("\x1B[")},
                    Case{"EscapeThenO", "\x1BO", Characters("\x1BO")},
                    Case{"EscapeThenOThenEnter", "\x1BO\r", Characters("\x1BO\r")}),
    Name);

INSTANTIATE_TEST_SUITE_P(
    Sequences, KeyDecoder,
    testing::Values(
        Case{"ArrowsOfXterm", "\x1B[A\x1B[B\x1B[C\x1B[D", Keys({Up, Down, Right, Left})},
        Case{"ArrowsInApplicationMode", "\x1BOA\x1BOB\x1BOC\x1BOD", Keys({Up, Down, Right, Left})},
        Case{"ArrowsWithCtrl", "\x1B[1;5A\x1B[1;5B\x1B[1;5C\x1B[1;5D",
             Keys({CtrlUp, CtrlDown, CtrlRight, CtrlLeft})},
        Case{"ArrowsWithCtrlOfRxvt", "\x1BOa\x1BOb\x1BOc\x1BOd",
             Keys({CtrlUp, CtrlDown, CtrlRight, CtrlLeft})},
        Case{"ArrowsWithCtrlOfOlderTerminals", "\x1B[5A\x1BO5D", Keys({CtrlUp, CtrlLeft})},
        Case{"ShiftMakesNoOtherKey", "\x1B[1;2A\x1B[a\x1B[1;6C", Keys({Up, Up, CtrlRight})},
        Case{"NumLockMakesNoOtherKey", "\x1B[1;129A\x1B[1;133A", Keys({Up, CtrlUp})},
        Case{"PageKeys", "\x1B[5~\x1B[6~\x1B[5;5~\x1B[6;5~\x1B[5^\x1B[6^\x1B[5@",
             Keys({PageUp, PageDown, CtrlPageUp, CtrlPageDown, CtrlPageUp, CtrlPageDown,
                   CtrlPageUp})},
        Case{"EditingKeys", "\x1B[H\x1B[F\x1BOH\x1BOF\x1B[1~\x1B[4~\x1B[7~\x1B[8~\x1B[2~\x1B[3~",
             Keys({Home, End, Home, End, Home, End, Home, End, Insert, Delete})},
        Case{"TabWithCtrl", "\x1B[27;5;9~\x1B[9;5u", Keys({CtrlTab, CtrlTab})}),
    Name);

// A letter follows each sequence. Exactly that letter must be decoded.
INSTANTIATE_TEST_SUITE_P(
    NoKeyOfOurs, KeyDecoder,
    testing::Values(Case{"FunctionKeys", "\x1BOP\x1B[15~\x1B[24;5~\x1B[1;2Rq", Characters("q")},
                    Case{"FunctionKeyOfTheSystemConsole", "\x1B[[Aq", Characters("q")},
                    Case{"WithAlt", "\x1B[1;3A\x1B[5;7~q", Characters("q")},
                    Case{"BackTab", "\x1B[Zq", Characters("q")},
                    Case{"NumberZero", "\x1B[~\x1B[0~\x1B[;5~q", Characters("q")},
                    Case{"CtrlHome", "\x1B[1;5H\x1B[3;5~q", Characters("q")},
                    Case{"OtherKeyInLongForm", "\x1B[27;5;97~\x1B[97;5uq", Characters("q")},
                    Case{"HugeNumbers", "\x1B[99999999999999999999~q", Characters("q")},
                    Case{"ManyNumbers", "\x1B[1;2;3;4;5;6Aq", Characters("q")},
                    Case{"Keypad", "\x1BOjq", Characters("q")},
                    Case{"MouseReport", "\x1B[M !AqA", Characters("qA")},
                    Case{"NewMouseReport", "\x1B[<0;12;7Mq", Characters("q")},
                    Case{"TerminalIdentity", "\x1B[?64;1;2cq", Characters("q")},
                    Case{"ColourReply", "\x1B]11;rgb:00/1a/ff\x07q", Characters("q")},
                    Case{"ColourReplyOtherEnd", "\x1B]11;rgb:00/1a/ff\x1B\\q", Characters("q")},
                    Case{"VersionReply", "\x1BP>|some(370)\x1B\\q", Characters("q")},
                    Case{"CutShort", "\x1B[1;", {}}, Case{"CutShortReply", "\x1B]11;rgb", {}},
                    Case{"BrokenByTheNext", "\x1B[1;\x1B[A", Keys({Up})},
                    Case{"BrokenByEnter", "\x1B[1\r", Characters("\r")}),
    Name);

TEST(KeyDecoderBound, AnEndlessSequenceIsDropped) {
  const std::string endless = "\x1B[" + std::string(kLongestKeySequence - 2, '1');
  const std::vector<std::uint8_t> bytes(endless.begin(), endless.end());
  EXPECT_EQ(DecodeKey({bytes.data(), bytes.size() - 1}, false).used, 0U);
  const KeyDecoding decoding = DecodeKey(bytes, false);
  EXPECT_EQ(decoding.used, kLongestKeySequence);
  EXPECT_FALSE(decoding.key);
}

}  // namespace
}  // namespace kinetrel
