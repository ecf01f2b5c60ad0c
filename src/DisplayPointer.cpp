// Hex dumps of raw memory.
#include <Kelvo/DisplayPointerCpp.h>

#include <fmt/format.h>

namespace Kelvo {
namespace Util {

String dumpHex(const void* data, size_t size) {
    constexpr size_t bytesPerLine = 16;
    const auto* bytes = static_cast<const unsigned char*>(data);
    fmt::memory_buffer out;
    for (size_t line = 0; line < size; line += bytesPerLine) {
        const size_t count = std::min(bytesPerLine, size - line);
        if (line != 0) {
            out.push_back('\n');
        }
        fmt::format_to(fmt::appender(out), "{:04x}:", line);
        for (size_t i = 0; i < count; ++i) {
            fmt::format_to(fmt::appender(out), " {:02x}", bytes[line + i]);
        }
        out.push_back(' ');
        out.push_back(' ');
        for (size_t i = 0; i < count; ++i) {
            const unsigned char c = bytes[line + i];
            out.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.');
        }
    }
    return fmt::to_string(out);
}

}  // namespace Util
}  // namespace Kelvo
