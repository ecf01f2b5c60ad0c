#include "TestSupport.h"

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

TEST(DumpHex, LinesOfSixteenWithOffsetsAndPrintables) {
    const char text[] = "Kelvo\n0123456789abcdefXYZ";
    EXPECT_EQ(Util::dumpHex(text, 0), "");
    EXPECT_EQ(Util::dumpHex(text, 19),
              "0000: 4b 65 6c 76 6f 0a 30 31 32 33 34 "
              "35 36 37 38 39  Kelvo.0123456789\n"
              "0010: 61 62 63  abc");
}

// A registered renderer wins unless it renders nothing; without one the
// printer shows the bytes.
TEST(ValuePrinter, RegisteredRendererElseHexDump) {
    const uint32_t value = 0x01020304;
    auto printer = getValuePrinter("Demo::Word", sizeof value);
    std::string shown = printer->customToString(&value) + "|" + printer->toString(&value) + "|";
    introspectionFunctionIs("Demo::Word", [](const void* v) {
        return std::to_string(*static_cast<const uint32_t*>(v));
    });
    shown += printer->toString(&value) + "|";
    introspectionFunctionIs("Demo::Word", [](const void*) { return String(); });
    shown += printer->toString(&value) + "|";
    introspectionFunctionIs("Demo::Word", nullptr);
    EXPECT_EQ(shown + printer->customToString(&value),
              "|0000: 04 03 02 01  ....|16909060|0000: 04 03 02 01  ....|");
}
