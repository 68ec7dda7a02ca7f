#include "filerd/records.h"

#include <gtest/gtest.h>

#include <cstring>

namespace filerd {
namespace {

std::string words(std::initializer_list<uint32_t> values) {
  std::string out;
  for (uint32_t value : values) {
    char bytes[4];
    std::memcpy(bytes, &value, 4);
    out.append(bytes, 4);
  }
  return out;
}

TEST(Records, DisconnectRecordIsReadAsTheClientLaysItOut) {
  // 4·n + text + 9 bytes, as the client computes the length.
  std::string record = make_disconnect_record(7, {11, 22}, "bye");
  ASSERT_EQ(record.size(), 4u * 2 + 3 + 9);
  std::optional<DisconnectRecord> parsed = parse_disconnect_record(record);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->word, 7u);
  EXPECT_EQ(parsed->session_ids, (std::vector<uint32_t>{11, 22}));
  EXPECT_EQ(parsed->text, "bye");

  // A count that does not fit, a count so large that 4·n wraps, a text
  // without its NUL, and a record cut inside its header are all refused.
  EXPECT_FALSE(parse_disconnect_record(words({0, 3, 11, 22}) + std::string(1, '\0')));
  EXPECT_FALSE(parse_disconnect_record(words({0, 0x40000001, 11}) + std::string(1, '\0')));
  EXPECT_FALSE(parse_disconnect_record(words({0, 1, 11}) + "no nul"));
  EXPECT_FALSE(parse_disconnect_record(words({0, 0})));
  EXPECT_FALSE(parse_disconnect_record(std::string("\0\0\0", 3)));
  // Nothing after the ids but the NUL: an empty text.
  ASSERT_TRUE(parse_disconnect_record(words({0, 0}) + std::string(1, '\0')));
}

TEST(Records, OtherRecordsAndTheStateRecord) {
  std::optional<ShutdownRecord> shut = parse_shutdown_record(make_shutdown_record(5, "going down"));
  ASSERT_TRUE(shut);
  EXPECT_EQ(shut->grace_minutes, 5u);
  EXPECT_EQ(shut->text, "going down");
  EXPECT_FALSE(parse_shutdown_record(words({5})));

  std::string big(1 << 20, 'm');
  std::optional<MessageRecord> message = parse_message_record(make_message_record({1, 2, 3}, big));
  ASSERT_TRUE(message);
  EXPECT_EQ(message->session_ids.size(), 3u);
  EXPECT_EQ(message->text.size(), big.size());
  EXPECT_FALSE(parse_message_record(words({0xffffffff}) + std::string(1, '\0')));

  EXPECT_EQ(parse_word_record(words({9, 1})), 9u);
  EXPECT_FALSE(parse_word_record("abc"));

  std::string state = encode_state_record({true, 1234, 3});
  ASSERT_EQ(state.size(), 24u);
  EXPECT_EQ(word_at(state, 4), 2u);
  EXPECT_EQ(word_at(state, 8), 1234u);
  EXPECT_EQ(word_at(state, 12), 3u);
  EXPECT_EQ(word_at(encode_state_record({false, 1234, 0}), 4), 0u);
  EXPECT_FALSE(word_at(state, 21));
}

}  // namespace
}  // namespace filerd
