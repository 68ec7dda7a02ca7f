// Tests of the JSON form: every kind survives a round trip with its exact
// value and kind, the tags cannot be confused with dictionaries, and hostile
// documents are refused without a half value.
#include "plist/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace plist {
namespace {

using namespace std::string_literals;

Value round_trip(const Value& v, bool pretty = false) {
  std::string text = write_json(v, pretty);
  Parsed p = parse_json(text);
  EXPECT_TRUE(p.ok()) << p.error << "\n" << text;
  return p.value;
}

TEST(JsonCodecTest, RoundTripKeepsKindsOrderAndExactValues) {
  Dict d;
  d.set("zeta", -5);
  d.set("umax", std::numeric_limits<uint64_t>::max());
  d.set("max", std::numeric_limits<int64_t>::max());
  d.set("min", std::numeric_limits<int64_t>::min());
  d.set("one", 1.0);
  d.set("negzero", -0.0);
  d.set("huge", 1e308);
  d.set("tenth", 0.1);
  d.set("tiny", 5e-324);
  d.set("yes", true);
  d.set("no", false);
  d.set("when", Date{1795428000});  // 2026-11-23T10:00:00Z
  d.set("quarter", Date{1795428000.25});
  d.set("before1970", Date{-86400.5});
  d.set("bytes", Data{0, 1, 2, 0xfe, 0xff});
  d.set("empty data", Data{});
  d.set("list", Array{Value("a"), Value(Array{}), Value(Dict{})});
  d.set("text", "nul\0inside \"quoted\" \\ é 😀 \x01"s);
  d.set("", "empty key");
  d.set("nothing", Value());

  for (bool pretty : {false, true}) {
    Value back = round_trip(Value(d), pretty);
    const Dict* b = back.as_dict();
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->size(), d.size());
    for (size_t i = 0; i < d.size(); ++i) {
      const auto& [key, value] = d.at_index(i);
      EXPECT_EQ(b->at_index(i).first, key);
      EXPECT_EQ(b->at_index(i).second.type(), value.type()) << key;
      EXPECT_EQ(b->at_index(i).second, value) << key;
    }
    EXPECT_TRUE(std::signbit(*b->find("negzero")->as_real()));
    EXPECT_EQ(b->find("quarter")->as_date()->seconds, 1795428000.25);
  }

  // Writers choose forms that cannot be mistaken for one another.
  EXPECT_EQ(write_json(Value(1.0)), "1.0");
  EXPECT_EQ(write_json(Value(-0.0)), "-0.0");
  EXPECT_EQ(write_json(Value(1e308)), "1e+308");
  EXPECT_EQ(write_json(Value(Date{1795428000})), "{\"$date\":\"2026-11-23T10:00:00Z\"}");
  EXPECT_EQ(write_json(Value(Date{1795428000.25})), "{\"$date\":\"2026-11-23T10:00:00.25Z\"}");
  EXPECT_EQ(write_json(Value(Data{'h', 'i'})), "{\"$data\":\"aGk=\"}");
  EXPECT_EQ(write_json(Value(Dict{{"k", 1}, {"a", Array{}}})), "{\"k\":1,\"a\":[]}");
  EXPECT_EQ(write_json(Value(Dict{{"a", Array{1, 2}}, {"b", Dict{}}}), true),
            "{\n  \"a\": [\n    1,\n    2\n  ],\n  \"b\": {}\n}");

  // Non-finite reals have no JSON form.
  EXPECT_EQ(write_json(Value(std::numeric_limits<double>::quiet_NaN())), "null");
  EXPECT_EQ(write_json(Value(-std::numeric_limits<double>::infinity())), "null");
}

TEST(JsonCodecTest, IntegersKeepSignednessAndRefuseOverflow) {
  Parsed p = parse_json(
      "[5, -5, 9223372036854775807, 9223372036854775808, 18446744073709551615, "
      "-9223372036854775808, 2.0, 1e2]");
  ASSERT_TRUE(p.ok()) << p.error;
  const Array& a = *p.value.as_array();
  EXPECT_EQ(*a[0].as_integer(), 5);
  EXPECT_EQ(*a[1].as_integer(), -5);
  EXPECT_EQ(*a[2].as_integer(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(*a[3].as_unsigned(), 9223372036854775808ull);
  EXPECT_EQ(*a[4].as_unsigned(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(*a[5].as_integer(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(*a[6].as_real(), 2.0);
  EXPECT_EQ(*a[7].as_real(), 100.0);

  for (const char* bad : {"18446744073709551616", "-9223372036854775809", "1e400", "-1e999"}) {
    Parsed q = parse_json(bad);
    EXPECT_FALSE(q.ok()) << bad;
    EXPECT_TRUE(q.value.is_null()) << bad;
  }
}

TEST(JsonCodecTest, TagsAndDollarKeys) {
  // A dictionary whose only key starts with "$" is wrapped so it reads
  // back as a dictionary, whatever it holds.
  for (const Value& v :
       {Value(Dict{{"$date", 5}}), Value(Dict{{"$data", "aGk="}}), Value(Dict{{"$x", Dict{}}}),
        Value(Dict{{"$dict", Dict{{"$date", "2026-11-23T10:00:00Z"}}}}), Value(Array{Dict{{"$", Dict{{"$y", 1}}}}})}) {
    Value back = round_trip(v);
    EXPECT_EQ(back, v) << write_json(v);
    EXPECT_EQ(write_json(back), write_json(v));
  }
  // Several keys, one of them a tag name: an ordinary dictionary.
  Parsed plain = parse_json(R"({"$date": "x", "other": 1})");
  ASSERT_TRUE(plain.ok()) << plain.error;
  EXPECT_EQ(*plain.value.as_dict()->find_string("$date"), "x");
  // The object under "$dict" is only left alone when it is the wrapper.
  Parsed mixed = parse_json(R"({"$dict": {"$date": "2026-11-23T10:00:00Z"}, "b": 2})");
  ASSERT_TRUE(mixed.ok()) << mixed.error;
  EXPECT_NE(mixed.value.as_dict()->find("$dict")->as_date(), nullptr);

  for (const char* bad :
       {R"({"$when": 1})", R"({"$date": 5})", R"({"$date": "2026-02-30T00:00:00Z"})",
        R"({"$date": "2026-11-23 10:00:00"})", R"({"$date": "2026-11-23T10:00:00.Z"})", R"({"$data": "a*b"})",
        R"({"$data": 1})", R"({"$dict": [1]})", R"([1, {"$dict": {"$bad": 1}, "x": 0}])"}) {
    Parsed p = parse_json(bad);
    EXPECT_FALSE(p.ok()) << bad;
    EXPECT_TRUE(p.value.is_null()) << bad;
  }
}

TEST(JsonCodecTest, RefusesMalformedAndHostileDocuments) {
  for (std::string bad : {"", "   ", "{", "[1,]", "{\"a\" 1}", "tru", "1 2", "{\"a\":1}}", "'x'", "NaN", "[1]x",
                          "\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "{\"\xfe\":1}", "\"\\ud800\"", "01"}) {
    Parsed p = parse_json(bad);
    EXPECT_FALSE(p.ok()) << bad;
    EXPECT_TRUE(p.value.is_null()) << bad;
    EXPECT_TRUE(p.error.starts_with("JSON: ")) << p.error;
  }

  std::string deep(100000, '[');
  Parsed p = parse_json(deep + std::string(100000, ']'));
  EXPECT_FALSE(p.ok());
  EXPECT_NE(p.error.find("nesting"), std::string::npos) << p.error;
  std::string ok_depth = std::string(500, '[') + std::string(500, ']');
  EXPECT_TRUE(parse_json(ok_depth).ok());

  // Bad UTF-8 inside a value is replaced on the way out, so the written
  // text always reads back.
  Value bad_text(std::string("a\xff\xc3z"));
  Parsed back = parse_json(write_json(Value(Dict{{"k", bad_text}})));
  ASSERT_TRUE(back.ok()) << back.error;
  EXPECT_EQ(*back.value.as_dict()->find_string("k"), "a\xef\xbf\xbd\xef\xbf\xbdz");
}

}  // namespace
}  // namespace plist
