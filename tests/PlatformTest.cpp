#include <Kelvo/DisplayPointerCpp.h>
#include <Kelvo/PlatformCpp.h>

#include <gtest/gtest.h>

#include <cstdint>

using namespace Kelvo;
using namespace Kelvo::Platform;

TEST(DumpHex, LinesOfSixteenWithOffsetsAndPrintables) {
    const char text[] = "Kelvo\n0123456789abcdefXYZ";
    struct Case {
        size_t size;
        const char* dump;
    } cases[] = {
        {0, ""},
        {1, "0000: 4b  K"},
        {6, "0000: 4b 65 6c 76 6f 0a  Kelvo."},
        {19,
         "0000: 4b 65 6c 76 6f 0a 30 31 32 33 34 35 36 37 38 39  Kelvo.0123456789\n"
         "0010: 61 62 63  abc"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Util::dumpHex(text, c.size), c.dump) << c.size;
    }
}

TEST(ValuePrinter, RegisteredRendererElseHexDump) {
    const uint32_t value = 0x01020304;
    auto printer = getValuePrinter("Demo::Word", sizeof value);
    EXPECT_EQ(printer->customToString(&value), "");
    EXPECT_EQ(printer->toString(&value), "0000: 04 03 02 01  ....");

    introspectionFunctionIs("Demo::Word", [](const void* v) {
        return std::to_string(*static_cast<const uint32_t*>(v));
    });
    EXPECT_EQ(printer->toString(&value), "16909060");
    // An empty rendering falls back to the bytes.
    introspectionFunctionIs("Demo::Word", [](const void*) { return String(); });
    EXPECT_EQ(printer->toString(&value), "0000: 04 03 02 01  ....");
    introspectionFunctionIs("Demo::Word", nullptr);
    EXPECT_EQ(printer->customToString(&value), "");
}
