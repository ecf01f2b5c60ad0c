// One version everywhere: the header's macros, the library's version(), the
// version the build read from the header, and the upstream version of the
// newest debian/changelog entry. tests/CMakeLists.txt passes the last two in
// as KELVO_CMAKE_VERSION and KELVO_DEBIAN_CHANGELOG.
#include "TestSupport.h"

#include <regex>

namespace {

// "libkelvo (1:0.1.0-1) unstable; ..." -> "0.1.0": no epoch, no Debian
// revision (after the last '-'); a native version has none.
std::string changelogUpstreamVersion(const std::string& path) {
    std::string line;
    std::getline(std::ifstream(path), line);
    std::smatch version;
    if (!std::regex_search(line, version, std::regex(R"(\((?:[0-9]+:)?(.+?)(?:-[^-)]*)?\))")))
        return "unreadable first line: '" + line + "'";
    return version[1];
}

}  // namespace

TEST(Version, HeaderLibraryBuildAndChangelogAgree) {
    EXPECT_STREQ(Kelvo::version(), KELVO_VERSION_STRING);
    EXPECT_STREQ(KELVO_CMAKE_VERSION, KELVO_VERSION_STRING);
    EXPECT_EQ(changelogUpstreamVersion(KELVO_DEBIAN_CHANGELOG), KELVO_VERSION_STRING)
        << "give debian/changelog an entry for the version in src-includes/Version.h";
}

// Each part outweighs everything after it, whatever the values below it.
TEST(Version, NumberOrdersByMajorThenMinorThenPatch) {
    constexpr int major = KELVO_VERSION_MAJOR, minor = KELVO_VERSION_MINOR,
                  patch = KELVO_VERSION_PATCH;
    const std::tuple<int, int, int, bool> cases[] = {
        {major, minor, patch, true}, {major, minor, patch + 1, false}, {major, minor + 1, 0, false},
        {major + 1, 0, 0, false},    {major, minor - 1, 999, true},    {major - 1, 999, 999, true},
    };
    for (const auto& [ma, mi, pa, atLeast] : cases) {
        if (ma < 0 || mi < 0)
            continue;
        EXPECT_EQ(KELVO_VERSION_AT_LEAST(ma, mi, pa), atLeast) << ma << "." << mi << "." << pa;
    }
}
