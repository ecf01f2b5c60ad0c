#include "TestSupport.h"

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

// Lines of sixteen bytes with offsets and printables; a registered renderer
// wins unless it renders nothing, and without one the printer shows the bytes.
TEST(ValuePrinter, RegisteredRendererElseHexDump) {
    const char text[] = "Kelvo\n0123456789abcdefXYZ";
    EXPECT_EQ(Util::dumpHex(text, 0), "");
    EXPECT_EQ(Util::dumpHex(text, 19),
              "0000: 4b 65 6c 76 6f 0a 30 31 32 33 34 35 36 37 38 39  Kelvo.0123456789\n"
              "0010: 61 62 63  abc");
    auto printer = getValuePrinter("Demo::Word", 4);
    std::string shown = printer->customToString(text) + "|" + printer->toString(text) + "|";
    introspectionFunctionIs("Demo::Word",
                            [](const void* v) { return String(static_cast<const char*>(v), 5); });
    shown += printer->toString(text) + "|";
    introspectionFunctionIs("Demo::Word", [](const void*) { return String(); });
    shown += printer->toString(text) + "|";
    introspectionFunctionIs("Demo::Word", nullptr);
    EXPECT_EQ(shown + printer->customToString(text),
              "|0000: 4b 65 6c 76  Kelv|Kelvo|0000: 4b 65 6c 76  Kelv|");
}
