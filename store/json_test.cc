#include "store/json.h"

#include <gtest/gtest.h>

namespace kandb::store::json {
namespace {

TEST(JsonTest, AcceptsAndRejects) {
  struct Case {
    const char* text;
    const char* error;  // nullptr: parses
  };
  const Case cases[] = {
      {R"( {"a":[1,-2.5e3,true,null],"b":"x"} )", nullptr},
      {R"("\u00e9\ud83d\ude00\/")", nullptr},
      {"-0", nullptr},
      {"", "json: unexpected end at offset 0"},
      {"01", "json: leading zero at offset 1"},
      {"1.", "json: bad number at offset 2"},
      {"[1,]", "json: unexpected character at offset 3"},
      {R"({"a":1,})", "json: expected member name at offset 7"},
      {R"({"a" 1})", "json: expected ':' at offset 5"},
      {"\"a\nb\"", "json: control character in string at offset 2"},
      {R"("\ud83d")", "json: unpaired surrogate at offset 7"},
      {R"("\ude00")", "json: lone low surrogate at offset 7"},
      {R"("\x")", "json: bad escape at offset 3"},
      {"true false", "json: trailing bytes at offset 5"},
      {"nul", "json: unexpected character at offset 0"},
  };
  for (const Case& c : cases) {
    Value v;
    Status s = Parse(c.text, &v);
    if (c.error == nullptr) {
      EXPECT_TRUE(s.ok()) << c.text << ": " << s.ToString();
    } else {
      EXPECT_EQ(s.ToString(), std::string("Corruption: ") + c.error) << c.text;
    }
  }
  // Depth is bounded: the reader recurses once per level.
  Value v;
  EXPECT_TRUE(Parse(std::string(kMaxDepth, '[') + std::string(kMaxDepth, ']'), &v).ok());
  EXPECT_EQ(Parse(std::string(kMaxDepth + 1, '[') + std::string(kMaxDepth + 1, ']'), &v).ToString(),
            "Corruption: json: nesting too deep at offset 64");
}

TEST(JsonTest, GatewayAnswerFieldsAndRoundTrip) {
  Value v;
  ASSERT_TRUE(Parse(R"({"ID":"9223372036854775807","TTL":3,"neg":"-5","big":"18446744073709551616",)"
                    R"("s":"\u00e9\"\u0001"})",
                    &v)
                  .ok());
  int64_t i = 0;
  uint64_t u = 0;
  ASSERT_TRUE(v.Find("ID")->AsInt64(&i));
  EXPECT_EQ(i, INT64_MAX);
  ASSERT_TRUE(v.Find("TTL")->AsUint64(&u));
  EXPECT_EQ(u, 3u);
  ASSERT_TRUE(v.Find("neg")->AsInt64(&i));
  EXPECT_EQ(i, -5);
  EXPECT_FALSE(v.Find("neg")->AsUint64(&u));
  EXPECT_FALSE(v.Find("big")->AsUint64(&u));
  EXPECT_EQ(v.Find("s")->text(), "\xc3\xa9\"\x01");
  EXPECT_EQ(v.Find("missing"), nullptr);
  EXPECT_EQ(v.Serialize(),
            R"({"ID":"9223372036854775807","TTL":3,"neg":"-5","big":"18446744073709551616",)"
            R"("s":"é\"\u0001"})");
}

TEST(JsonTest, Base64) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
      {"foo", "Zm9v"},  {"foob", "Zm9vYg=="},  {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"}, {std::string("\xff\x00\xfe", 3), "/wD+"},
  };
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(Base64Encode(bytes), text);
    std::string out;
    ASSERT_TRUE(Base64Decode(text, &out)) << text;
    EXPECT_EQ(out, bytes);
  }
  std::string out = "kept";
  for (const char* bad : {"Zg=", "Zh==", "Zm9=", "Z===", "Zg==Zg==", "Zm9v!A==", "Zm=v"}) {
    EXPECT_FALSE(Base64Decode(bad, &out)) << bad;
  }
  EXPECT_EQ(out, "kept");
}

}  // namespace
}  // namespace kandb::store::json
