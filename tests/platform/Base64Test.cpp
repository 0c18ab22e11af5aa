// SPDX-License-Identifier: Apache-2.0
#include "platform/Base64.h"

#include "platform/UUID.h"

#include <gtest/gtest.h>

namespace sealscope {

// The vectors of RFC 4648 §10, and bytes that need the last two digits.
TEST(Base64, WritesAndReads)
{
    struct Case {
        std::string_view bytes, text;
    };
    const Case cases[] = {{"", ""},
                          {"f", "Zg=="},
                          {"fo", "Zm8="},
                          {"foo", "Zm9v"},
                          {"foob", "Zm9vYg=="},
                          {"fooba", "Zm9vYmE="},
                          {"foobar", "Zm9vYmFy"},
                          {"\xFB\xEF\xBE\xFF", "++++/w=="},
                          {"\xFF\xFF\xFF", "////"}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(base64(DataView(bytes)), text);
        EXPECT_EQ(fromBase64(text), Data::fromText(bytes)) << text;
    }
    for (const char* text : {"Z", "Zg", "Zg=", "Zg===", "=", "====", "Z===", "Zm9v\n", "Zm 9", "Zm9-", "Z=9v", "Zg==Zg=="})
        EXPECT_FALSE(fromBase64(text)) << text;
}

TEST(UUID, ReadsWhatItWrites)
{
    const UUID id = UUID::random();
    EXPECT_EQ(UUID::fromText(id.text()), id);
    EXPECT_NE(UUID::random(), id);
    EXPECT_EQ(id.text()[14], '4') << "version 4 (RFC 9562 §5.4)";
    for (const char* text :
         {"", "0a1B2c3D-0000-4000-8000-00000000000", "0a1B2c3D-0000-4000-8000-00000000000FF", "0a1B2c3D00000-4000-8000-00000000000F",
          "0a1B2c3D-0000-4000-8000-0000000000 F", "0a1B2c3D-0000-4000-8000-0000000000-1", "{a1B2c3D-0000-4000-8000-0000000000F}"})
        EXPECT_FALSE(UUID::fromText(text)) << text;
}

}  // namespace sealscope
