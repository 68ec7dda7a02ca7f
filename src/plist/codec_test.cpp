// Tests of the property-list readers and writer: round trips, the refusal
// of malformed and hostile documents, and strings that XML cannot carry.
#include "plist/codec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace plist {
namespace {

Value round_trip(const Value& v) {
  Parsed p = parse_xml(write_xml(v));
  EXPECT_TRUE(p.ok()) << p.error << "\n" << write_xml(v);
  return p.value;
}

std::string wrap(const std::string& body) { return "<plist version=\"1.0\">" + body + "</plist>"; }

TEST(XmlCodecTest, RoundTripKeepsKindsOrderAndValues) {
  Dict d;
  d.set("zeta", -5);
  d.set("alpha", 18446744073709551615ull);
  d.set("max", std::numeric_limits<int64_t>::max());
  d.set("min", std::numeric_limits<int64_t>::min());
  d.set("tenth", 0.1);
  d.set("tiny", 5e-324);
  d.set("yes", true);
  d.set("no", false);
  d.set("when", Date{978307200});
  d.set("before1970", Date{-86401});
  d.set("bytes", Data{0, 1, 2, 0xfe, 0xff});
  d.set("one byte", Data{0x41});
  d.set("empty data", Data{});
  d.set("list", Array{Value("a"), Value(Array{}), Value(Dict{})});
  d.set("text", "tab\tnewline\ncr\r<&>\"' é ✓ 😀");
  d.set("", "empty key");

  Value back = round_trip(Value(d));
  ASSERT_TRUE(back.is_dict());
  const Dict& r = *back.as_dict();
  std::vector<std::string> order;
  for (const auto& [k, v] : r) order.push_back(k);
  std::vector<std::string> expected;
  for (const auto& [k, v] : d) expected.push_back(k);
  EXPECT_EQ(order, expected);

  // Equality compares numbers by value, so the integer kinds are checked
  // on their own.
  EXPECT_EQ(back, Value(d));
  EXPECT_EQ(r.find("zeta")->type(), Type::Integer);
  EXPECT_EQ(r.find("alpha")->type(), Type::Unsigned);
}

TEST(XmlCodecTest, WriterShape) {
  Dict d{{"a", Dict{{"b", Array{1}}}}, {"n", Value()}, {"e", Array{}}};
  EXPECT_EQ(write_xml(Value(d)),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>a</key>\n"
            "\t<dict>\n"
            "\t\t<key>b</key>\n"
            "\t\t<array>\n"
            "\t\t\t<integer>1</integer>\n"
            "\t\t</array>\n"
            "\t</dict>\n"
            "\t<key>n</key>\n"
            "\t<string></string>\n"
            "\t<key>e</key>\n"
            "\t<array/>\n"
            "</dict>\n"
            "</plist>\n");
  EXPECT_NE(write_xml(Value(Date{0})).find("<date>1970-01-01T00:00:00Z</date>"), std::string::npos);
  EXPECT_NE(write_xml(Value(std::nan(""))).find("<real>nan</real>"), std::string::npos);
  EXPECT_NE(write_xml(Value(-std::numeric_limits<double>::infinity())).find("<real>-inf</real>"), std::string::npos);
  // Dates beyond four-digit years are clamped so that they still read back.
  EXPECT_TRUE(round_trip(Value(Date{1e300})).as_date() != nullptr);
  EXPECT_TRUE(round_trip(Value(Date{std::nan("")})).as_date() != nullptr);
}

TEST(XmlCodecTest, ReaderAcceptsWhatOtherWritersProduce) {
  Parsed p = parse_xml(
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
      "<!DOCTYPE plist PUBLIC \"-//Example//DTD PLIST 1.0//EN\" \"http://example.com/plist.dtd\">\r\n"
      "<!-- written elsewhere -->\n"
      "<plist version=\"1.0\"><dict>\n"
      "  <key>d</key><data>\n\t\tAAEC\n\t\tAw==\n\t</data>\n"
      "  <key>unpadded</key><data>QQ</data>\n"
      "  <key>r</key><real> -1.5e3 </real>\n"
      "  <key>ri</key><real>+inf</real>\n"
      "  <key>rn</key><real>NaN</real>\n"
      "  <key>huge</key><real>1e999</real>\n"
      "  <key>i</key><integer>+7</integer>\n"
      "  <key>s</key><string>a<![CDATA[<raw>]]>b&amp;&#x263A;&#13;</string>\n"
      "  <key>e</key><string/>\n"
      "  <key>dup</key><integer>1</integer>\n"
      "  <key>dup</key><integer>2</integer>\n"
      "</dict></plist>\n");
  ASSERT_TRUE(p.ok()) << p.error;
  const Dict& d = *p.value.as_dict();
  EXPECT_EQ(*d.find("d")->as_data(), (Data{0, 1, 2, 3}));
  EXPECT_EQ(*d.find("unpadded")->as_data(), (Data{'A'}));
  EXPECT_EQ(*d.find("r")->as_real(), -1500.0);
  EXPECT_TRUE(std::isinf(*d.find("ri")->as_real()));
  EXPECT_TRUE(std::isnan(*d.find("rn")->as_real()));
  EXPECT_TRUE(std::isinf(*d.find("huge")->as_real()));
  EXPECT_EQ(*d.find("i")->as_integer(), 7);
  EXPECT_EQ(*d.find_string("s"), "a<raw>b&\u263A\r");
  EXPECT_EQ(*d.find_string("e"), "");
  EXPECT_EQ(d.size(), 10u);                    // the repeated key is stored once...
  EXPECT_EQ(*d.find("dup")->as_integer(), 2);  // ...with the last value

  // A bare value element is a document too.
  Parsed bare = parse_xml("<array><string>x</string></array>");
  ASSERT_TRUE(bare.ok()) << bare.error;
  EXPECT_EQ(bare.value, Value(Array{"x"}));
}

TEST(XmlCodecTest, MalformedDocumentsAreRefusedWithAReason) {
  const char* cases[] = {
      "",
      "not xml at all",
      "<plist><string>unclosed</plist>",
      "<plist></plist>",
      "<plist><string>a</string><string>b</string></plist>",
      "<plist><string>a</string></plist>trailing",
      "<plist><string>a</string></plist><plist/>",
      "<plist><widget/></plist>",
      "<plist><dict><key>lonely</key></dict></plist>",
      "<plist><dict><string>no key</string></dict></plist>",
      "<plist><dict>stray<key>k</key><true/></dict></plist>",
      "<plist><array>stray</array></plist>",
      "<plist><integer>12abc</integer></plist>",
      "<plist><integer></integer></plist>",
      "<plist><integer>18446744073709551616</integer></plist>",
      "<plist><integer>-9223372036854775809</integer></plist>",
      "<plist><real>1.2.3</real></plist>",
      "<plist><real>+-1</real></plist>",
      "<plist><date>2024-02-30T00:00:00Z</date></plist>",
      "<plist><date>2023-02-29T00:00:00Z</date></plist>",
      "<plist><date>2024-01-01 00:00:00</date></plist>",
      "<plist><data>A</data></plist>",
      "<plist><data>AB=C</data></plist>",
      "<plist><data>A*B=</data></plist>",
      "<plist><true>yes</true></plist>",
      "<plist><string>a<b/></string></plist>",
  };
  for (const char* doc : cases) {
    Parsed p = parse_xml(doc);
    EXPECT_FALSE(p.ok()) << doc;
    EXPECT_TRUE(p.value.is_null()) << doc;
  }
  EXPECT_FALSE(parse_xml(std::string("<plist><string>a\0b</string></plist>", 35)).ok());
  Parsed located = parse_xml("<plist>\n<dict>\n<key>n</key>\n<integer>x</integer>\n</dict>\n</plist>");
  EXPECT_NE(located.error.find("line 4"), std::string::npos) << located.error;
  EXPECT_NE(located.error.find("integer"), std::string::npos) << located.error;
  // Extremes that are in range still read.
  EXPECT_TRUE(parse_xml(wrap("<integer>-9223372036854775808</integer>")).ok());
  EXPECT_TRUE(parse_xml(wrap("<date>2024-02-29T23:59:59Z</date>")).ok());
}

TEST(XmlCodecTest, CharactersXmlForbidsAreRefusedHoweverWritten) {
  // A reference to NUL used to cut a user name short; the others slipped
  // control characters into values.
  for (const char* body :
       {"ro&#0;ot", "a&#1;b", "a&#x1F;", "a&#x0000;b", "&#xFFFE;", "&#xD800;", "&#x110000;", "&#99999999999999999999;",
        "a\x01"
        "b",
        "a\x1b[31m", "tab\t\x0c"}) {
    Parsed p = parse_xml(wrap(std::string("<string>") + body + "</string>"));
    EXPECT_FALSE(p.ok()) << body;
    EXPECT_TRUE(p.value.is_null()) << body;
  }
  Parsed key = parse_xml(wrap("<dict><key>&#0;</key><true/></dict>"));
  EXPECT_NE(key.error.find("U+0000"), std::string::npos) << key.error;
  // Between elements and in attributes a reference is still a reference.
  EXPECT_FALSE(parse_xml(wrap("<array>&#0;</array>")).ok());
  EXPECT_FALSE(parse_xml("<plist version=\"&#2;\"><true/></plist>").ok());

  // The allowed edges read, and references inside comments, CDATA and
  // processing instructions are only text.
  Parsed edges = parse_xml(wrap("<string>&#9;&#xA;&#13;&#x20;&#xD7FF;&#xE000;&#xFFFD;&#x10000;&#x10FFFF;</string>"));
  ASSERT_TRUE(edges.ok()) << edges.error;
  EXPECT_EQ(*edges.value.as_string(), "\t\n\r \uD7FF\uE000\uFFFD\U00010000\U0010FFFF");
  Parsed quoted = parse_xml("<?note &#0;?><!-- &#1; --><plist><string><![CDATA[&#0;]]>&amp;#1;</string></plist>");
  ASSERT_TRUE(quoted.ok()) << quoted.error;
  EXPECT_EQ(*quoted.value.as_string(), "&#0;&#1;");
}

TEST(XmlCodecTest, ExternalEntitiesAreNeverExpanded) {
  Parsed p = parse_xml(
      "<?xml version=\"1.0\"?>\n"
      "<!DOCTYPE plist [ <!ENTITY secret SYSTEM \"file:///etc/passwd\"> <!ENTITY word \"expanded\"> ]>\n"
      "<plist><string>&secret;&word;</string></plist>");
  if (p.ok()) {
    ASSERT_TRUE(p.value.is_string());
    EXPECT_EQ(p.value.as_string()->find("root:"), std::string::npos);
    EXPECT_EQ(p.value.as_string()->find("expanded"), std::string::npos);
  }
}

TEST(XmlCodecTest, AnyStringYieldsAReadableDocument) {
  std::string hostile;
  for (int c = 0; c < 256; ++c) hostile.push_back(static_cast<char>(c));
  hostile += "\xC0\xAF";          // overlong '/'
  hostile += "\xED\xA0\x80";      // a surrogate
  hostile += "\xEF\xBF\xBE";      // U+FFFE
  hostile += "\xF4\x90\x80\x80";  // past U+10FFFF
  hostile += "\xE2\x82";          // truncated sequence
  hostile += "]]> ok \xE2\x9C\x93";

  Value back = round_trip(Value(Dict{{hostile, hostile}}));
  ASSERT_TRUE(back.is_dict());
  ASSERT_EQ(back.as_dict()->size(), 1u);
  const std::string& s = back.as_dict()->at_index(0).first;
  EXPECT_EQ(*back.as_dict()->at_index(0).second.as_string(), s);
  const std::string fffd = "\xEF\xBF\xBD";
  EXPECT_EQ(s.substr(0, 3), fffd);  // NUL
  EXPECT_NE(s.find("\t\n" + fffd + fffd + "\r" + fffd), std::string::npos);
  EXPECT_NE(s.find(" !\"#"), std::string::npos);
  EXPECT_NE(s.find("]]> ok \xE2\x9C\x93"), std::string::npos);
  EXPECT_EQ(s.find("\xED\xA0\x80"), std::string::npos);
  EXPECT_EQ(s.find("\xEF\xBF\xBE"), std::string::npos);
}

TEST(XmlCodecTest, DeepNestingIsRefusedNotOverflowed) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  for (int i = 0; i < 100000; ++i) deep += "</array>";
  Parsed p = parse_xml(wrap(deep));
  EXPECT_FALSE(p.ok());
  EXPECT_NE(p.error.find("nesting"), std::string::npos) << p.error;

  std::string fine;
  for (int i = 0; i < 200; ++i) fine += "<array>";
  for (int i = 0; i < 200; ++i) fine += "</array>";
  EXPECT_TRUE(parse_xml(wrap(fine)).ok());
}

TEST(TextCodecTest, ReadsDictionariesArraysStringsAndData) {
  Parsed p = parse_text(
      "// leading comment\n"
      "{\n"
      "  \"CPU Avg Times\" = ( 1, 5, \"15\", );\n"
      "  GetDiskUsage = YES; /* inline */ bare_$+/:.-9 = v;\n"
      "  esc = \"q\\\"b\\\\n\\n\\t\\r\\a\\b\\f\\v\\101\\0\\351x\\U263a\\ud83d\\ude00\\q\";\n"
      "  bytes = < 0aFF 10 >;\n"
      "  nested = { inner = (); e = {}; };\n"
      "  single = 'it\\'s';\n"
      "  dup = 1; dup = 2\n"
      "}\n");
  ASSERT_TRUE(p.ok()) << p.error;
  const Dict& d = *p.value.as_dict();
  EXPECT_EQ(*d.find("CPU Avg Times"), Value(Array{"1", "5", "15"}));
  EXPECT_EQ(*d.find_string("GetDiskUsage"), "YES");
  EXPECT_EQ(*d.find_string("bare_$+/:.-9"), "v");
  EXPECT_EQ(*d.find_string("esc"), std::string("q\"b\\n\n\t\r\a\b\f\vA\0\351x\u263A\U0001F600q", 24));
  EXPECT_EQ(*d.find("bytes")->as_data(), (Data{0x0a, 0xff, 0x10}));
  EXPECT_EQ(*d.find("nested"), Value(Dict{{"inner", Array{}}, {"e", Dict{}}}));
  EXPECT_EQ(*d.find_string("single"), "it's");
  EXPECT_EQ(*d.find_string("dup"), "2");
  EXPECT_EQ(d.size(), 8u);

  EXPECT_EQ(parse_text("  plain  ").value, Value("plain"));
  EXPECT_EQ(parse_text("\xEF\xBB\xBF(a,b)").value, Value(Array{"a", "b"}));
  // A lone surrogate cannot be encoded and becomes U+FFFD.
  EXPECT_EQ(parse_text("\"\\UD800x\"").value, Value("\xEF\xBF\xBDx"));
}

TEST(TextCodecTest, MalformedTextIsRefusedWithAPosition) {
  const char* cases[] = {
      "",
      "   // only a comment",
      "{ a = b",
      "{ a = b c }",
      "{ a b; }",
      "{ = b; }",
      "( a b )",
      "( a, ",
      "\"unterminated",
      "\"esc \\",
      "<0a1>",
      "<0g>",
      "<0a",
      "a b",
      "{ } }",
      "/* open",
      "{ a = /* */",
      "@",
      "( , )",
      "{ a = ; }",
      "\"\\U\"",
  };
  for (const char* text : cases) {
    Parsed p = parse_text(text);
    EXPECT_FALSE(p.ok()) << text;
    EXPECT_TRUE(p.value.is_null()) << text;
  }
  Parsed located = parse_text("{\n  a = b;\n  c = d e;\n}");
  EXPECT_NE(located.error.find("line 3, column 9"), std::string::npos) << located.error;

  std::string deep(100000, '(');
  Parsed p = parse_text(deep);
  EXPECT_FALSE(p.ok());
  EXPECT_NE(p.error.find("nesting"), std::string::npos) << p.error;
}

TEST(ParseAnyTest, PicksTheFormByTheOpeningText) {
  EXPECT_EQ(parse_any("  \n<?xml version=\"1.0\"?><plist><integer>3</integer></plist>").value, Value(3));
  EXPECT_EQ(parse_any("<!DOCTYPE plist><plist><true/></plist>").value, Value(true));
  EXPECT_EQ(parse_any("\xEF\xBB\xBF <plist><string>x</string></plist>").value, Value("x"));
  // Text-form data also opens with '<' but is not XML.
  EXPECT_EQ(parse_any("<00ff>").value, Value(Data{0, 0xff}));
  EXPECT_EQ(parse_any("{ GetNumConnectedUsers = 1; }").value, Value(Dict{{"GetNumConnectedUsers", "1"}}));
  EXPECT_FALSE(parse_any("<plist>").ok());
  EXPECT_FALSE(parse_any("").ok());
}

}  // namespace
}  // namespace plist
