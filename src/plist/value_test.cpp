// Tests of the value type: dictionary order and indexing, numeric
// conversions at their limits, the flag test and key-value lists.
#include "plist/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace plist {
namespace {

std::vector<std::string> keys_of(const Dict& d) {
  std::vector<std::string> keys;
  for (const auto& [k, v] : d) keys.push_back(k);
  return keys;
}

TEST(DictTest, SetKeepsPositionAndRemoveKeepsTheRestInOrder) {
  Dict d{{"b", 1}, {"a", 2}, {"c", 3}};
  d.set("a", "replaced");
  EXPECT_EQ(keys_of(d), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(*d.find_string("a"), "replaced");
  d["c"] = 4;  // in place, like set
  d["d"];      // appends a null value
  EXPECT_EQ(keys_of(d), (std::vector<std::string>{"b", "a", "c", "d"}));
  EXPECT_TRUE(d.find("d")->is_null());

  EXPECT_TRUE(d.remove("b"));
  EXPECT_FALSE(d.remove("b"));
  EXPECT_EQ(keys_of(d), (std::vector<std::string>{"a", "c", "d"}));
  EXPECT_EQ(d.find("b"), nullptr);

  // Typed lookups refuse the wrong type instead of converting.
  EXPECT_EQ(d.find_dict("a"), nullptr);
  EXPECT_EQ(d.find_number("a"), nullptr);
  ASSERT_NE(d.find_number("c"), nullptr);
}

TEST(DictTest, LargeDictionaryLookupsStayRightThroughGrowthRemovalAndCopies) {
  // Short keys live inside the entries, so every reallocation moves them;
  // the index must follow or lookups read freed memory.
  Dict d;
  for (int i = 0; i < 1000; ++i) d.set("k" + std::to_string(i), i);
  for (int i = 0; i < 1000; i += 3) d.set("k" + std::to_string(i), -i);
  for (int i = 0; i < 1000; i += 7) EXPECT_TRUE(d.remove("k" + std::to_string(i)));
  d.reserve(4096);  // moves every entry at once
  d["late"] = "x";
  EXPECT_EQ(d.size(), 1000u - 143u + 1u);
  for (int i = 0; i < 1000; ++i) {
    const Value* v = d.find("k" + std::to_string(i));
    if (i % 7 == 0) {
      EXPECT_EQ(v, nullptr) << i;
    } else {
      ASSERT_NE(v, nullptr) << i;
      EXPECT_EQ(*v->as_integer(), i % 3 == 0 ? -i : i);
    }
  }
  EXPECT_EQ(keys_of(d).front(), "k1");
  EXPECT_EQ(keys_of(d).back(), "late");

  Dict copy = d;
  Dict moved = std::move(d);
  copy.set("k1", "changed");
  EXPECT_EQ(*moved.find("k1")->as_integer(), 1);
  EXPECT_EQ(*copy.find_string("k1"), "changed");
  Dict assigned;
  assigned = moved;
  moved.clear();
  EXPECT_NE(assigned.find("late"), nullptr);
  EXPECT_EQ(moved.find("late"), nullptr);
}

TEST(DictTest, ConcurrentReadersOfALargeDictionary) {
  Dict d;
  for (int i = 0; i < 200; ++i) d.set("key" + std::to_string(i), i);
  const Dict copy = d;
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t)
    readers.emplace_back([&copy] {
      for (int i = 0; i < 200; ++i) EXPECT_NE(copy.find("key" + std::to_string(i)), nullptr);
    });
  for (auto& r : readers) r.join();
}

TEST(DictTest, EqualityIgnoresOrderAndCopiesAreDeep) {
  Dict inner{{"x", 1}};
  Value a(Dict{{"p", inner}, {"q", Array{1, "two"}}});
  Value b(Dict{{"q", Array{1, "two"}}, {"p", inner}});
  EXPECT_EQ(a, b);
  a.as_dict()->find_dict("p")->set("x", 2);
  EXPECT_FALSE(a == b);
  EXPECT_EQ(*b.as_dict()->find_dict("p")->find("x")->as_integer(), 1);
}

TEST(ValueTest, IntegerKindsStayApartButCompareByValue) {
  EXPECT_EQ(Value(-5).type(), Type::Integer);
  EXPECT_EQ(Value(18446744073709551615ull).type(), Type::Unsigned);
  EXPECT_EQ(Value(3), Value(3u));
  EXPECT_EQ(Value(1), Value(true));
  EXPECT_EQ(Value(2), Value(2.0));
  // -1 and UINT64_MAX share a bit pattern but are different numbers.
  EXPECT_FALSE(Value(-1) == Value(std::numeric_limits<uint64_t>::max()));
  EXPECT_FALSE(Value("1") == Value(1));
}

TEST(ValueTest, ConversionsSaturateAndNeverInvokeUndefinedBehaviour) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Value(1e300).to_int64(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Value(-1e300).to_int64(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(Value(inf).to_uint64(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(Value(-3.5).to_uint64(), 0u);
  EXPECT_EQ(Value(std::nan("")).to_int64(), 0);
  EXPECT_EQ(Value(std::nan("")).to_int32(), 0);
  EXPECT_EQ(Value(-2.9).to_int64(), -2);
  EXPECT_EQ(Value(9.3e18).to_int64(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Value(3e9).to_int32(), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(Value(-3e9).to_int32(), std::numeric_limits<int32_t>::min());

  // Integers convert as a C cast would.
  EXPECT_EQ(Value(int64_t{0x1'0000'0005}).to_int32(), 5);
  EXPECT_EQ(Value(std::numeric_limits<uint64_t>::max()).to_int64(), -1);
  EXPECT_EQ(Value(-1).to_uint64(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(Value(true).to_double(), 1.0);

  EXPECT_FALSE(Value("12").to_int64().has_value());
  EXPECT_FALSE(Value().to_double().has_value());
  EXPECT_FALSE(Value(Date{5}).to_int64().has_value());
}

TEST(ValueTest, FlagTest) {
  for (const Value& set : {Value("YES"), Value(1), Value(0.5), Value(1ull << 40), Value(true)})
    EXPECT_TRUE(is_flag_set(&set)) << static_cast<int>(set.type());
  for (const Value& unset : {Value("NO"), Value("yes"), Value(0), Value(Array{})})
    EXPECT_FALSE(is_flag_set(&unset)) << static_cast<int>(unset.type());
  EXPECT_FALSE(is_flag_set(nullptr));
}

TEST(KeyValueListTest, EndsAtTheFirstMissingValue) {
  Value present("here");
  KeyValueList list;
  list.add("a", Value(1)).add("b", &present).add("c", std::optional<Value>()).add("d", Value(4)).add("e", &present);
  EXPECT_TRUE(list.ended());
  Dict d = list.take();
  EXPECT_EQ(keys_of(d), (std::vector<std::string>{"a", "b"}));

  // A null pointer and a null value end the list just the same.
  KeyValueList by_pointer;
  by_pointer.add("a", static_cast<const Value*>(nullptr)).add("b", Value(2));
  EXPECT_TRUE(by_pointer.take().empty());
  KeyValueList by_null;
  by_null.add("a", Value(1)).add("b", Value()).add("c", Value(3));
  EXPECT_EQ(keys_of(by_null.take()), std::vector<std::string>{"a"});
}

}  // namespace
}  // namespace plist
