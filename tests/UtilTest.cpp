#include <Kelvo/UtilCpp.h>

#include "OsTestSupport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <limits>

using ::testing::HasSubstr;
using ::testing::Not;
using namespace KelvoTest;
namespace Util = Kelvo::Util;

namespace {

class UtilFiles : public NoFdLeak {
  protected:
    ScratchDir dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ = handleWithLevels("UtilTest", {0});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

TEST_F(UtilFiles, FileHelpersTurnFailuresIntoResultsAndLevelZeroTraces) {
    const std::string file = dir_ / "f";
    const std::string missing = dir_ / "no/f";
    ASSERT_EQ(::symlink("nowhere", (dir_ / "dangling").c_str()), 0);
    EXPECT_TRUE(Util::touch(h_, file));
    Util::fileWrite(h_, file, "a longer first text", false);
    Util::fileWrite(h_, file, "0123456789", false);
    EXPECT_TRUE(Util::touch(h_, file));
    EXPECT_EQ(Util::fileRead(h_, file, false), "0123456789") << "touch keeps contents";
    EXPECT_FALSE(Util::fileExists(h_, dir_ / "dangling"));

    const int ro = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    CaptureStderr();
    EXPECT_FALSE(Util::touch(h_, missing));
    EXPECT_EQ(
        thrownMessage<Kelvo::RuntimeException>([&] { Util::fileWrite(h_, missing, "x", false); }),
        missing);
    Util::fileWrite(h_, missing, "x", true);
    EXPECT_EQ(Util::fileRead(h_, missing, true), "");  // an optional file: below level 0
    EXPECT_EQ(Util::fileRead(h_, dir_.path(), false), "");
    EXPECT_EQ(Util::truncate(h_, file, ro, 2), -1);
    EXPECT_EQ(Util::fileSize(h_, ro), 10u);
    EXPECT_EQ(Util::fileSize(h_, missing), 0u);
    EXPECT_EQ(Util::fileSize(h_, -1), 0u);
    EXPECT_TRUE(Util::fileRemove(h_, file));
    EXPECT_TRUE(Util::fileRemove(h_, file)) << "a missing file is no error";
    EXPECT_FALSE(Util::fileRemove(h_, dir_.path()));
    const std::string text = GetCapturedStderr();
    ::close(ro);
    for (const std::string& expected : {
             "unable to open " + missing + " reason: No such file or directory",
             "unable to open " + missing + " reason:No such file or directory",
             "unable to open file " + dir_.path() + ". Caught std::exception: ",
             "ftruncate() size:2 error: " + file + ": Invalid argument",
             "unlink() error " + dir_.path() + ": Is a directory",
         }) {
        EXPECT_THAT(text, HasSubstr(expected));
    }
    EXPECT_THAT(text, Not(HasSubstr("unable to open file " + missing)));
    EXPECT_THAT(text, Not(HasSubstr("unlink() error " + file)));
}

TEST(Util, FileSizeHelperThrowsOnProductOrSumOverflow) {
    constexpr uint64_t max = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(Util::fileSizeHelper(3, 4, 5), 17u);
    EXPECT_EQ(Util::fileSizeHelper(0, max, max), max);
    const std::pair<std::array<uint64_t, 3>, const char*> cases[] = {
        {{uint64_t(1) << 62, 8, 0},
         "entries:4611686018427387904 entrySize:8 xResult:0 endResult:0"},
        {{max, 1, 1},
         "entries:18446744073709551615 entrySize:1 xResult:18446744073709551615 "
         "endResult:0"},
    };
    for (const auto& [in, text] : cases) {
        EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>(
                      [&] { Util::fileSizeHelper(in[0], in[1], in[2]); }),
                  std::string("fileSizeHelper overflow, ") + text);
    }
}

TEST_F(UtilFiles, MkpathAndTrimpathAreInverses) {
    ASSERT_EQ(::mkdir((dir_ / "a").c_str(), 0755), 0);
    EXPECT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), 0);
    errno = 0;
    EXPECT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), -1);
    EXPECT_EQ(errno, EEXIST);
    Util::fileWrite(h_, dir_ / "plain", "", false);
    EXPECT_EQ(Util::mkpath(dir_ / "plain/x/y", 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);

    EXPECT_TRUE(Util::trimpath(dir_ / "a/b/c/d", "c/d"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "a/b/c"));
    EXPECT_TRUE(std::filesystem::is_directory(dir_ / "a/b"));
    EXPECT_TRUE(Util::trimpath(dir_ / "a/b/c/d", "c/d")) << "already gone is fine";

    ASSERT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), 0);
    Util::fileWrite(h_, dir_ / "a/b/c/keep", "", false);
    EXPECT_FALSE(Util::trimpath(dir_ / "a/b/c/d", "/c/d")) << "only empty directories go";
    EXPECT_TRUE(std::filesystem::exists(dir_ / "a/b/c/keep"));

    const std::pair<std::pair<const char*, const char*>, const char*> bad[] = {
        {{"", "x"}, "absolute path is empty"},
        {{"relative/x", "x"}, "absolute path is not absolute"},
        {{"/a/x", ""}, "trailing path is empty"},
        {{"/a/x", "/a/x"}, "trailing path longer than absolute path"},
        {{"/a/x", "y"}, "trailing path is not a terminal substring of absolute path"},
    };
    for (const auto& [arguments, message] : bad) {
        EXPECT_THAT(thrownMessage<Kelvo::AssertException>(
                        [&] { Util::trimpath(arguments.first, arguments.second); }),
                    HasSubstr(message));
    }
}

TEST_F(UtilFiles, GetCwdThrowsWhenTheWorkingDirectoryIsGone) {
    const std::string gone = dir_ / "gone";
    const auto result = runInChild([&] {
        CHILD_CHECK(::mkdir(gone.c_str(), 0755) == 0 && ::chdir(gone.c_str()) == 0);
        CHILD_CHECK(Util::getCwd(h_) == gone);
        CHILD_CHECK(::rmdir(gone.c_str()) == 0);
        std::puts(thrownMessage<Kelvo::RuntimeException>([&] { Util::getCwd(h_); }).c_str());
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("getcwd() failed:No such file or directory"));
}

TEST(Util, EncodingsPutTheLeastSignificantPartFirst) {
    const std::pair<uint32_t, const char*> base64[] = {
        {0, "AAAAAA"},  {1, "BAAAAA"},           {62, "_AAAAA"},          {63, "=AAAAA"},
        {64, "ABAAAA"}, {0xC0000000u, "AAAAAD"}, {0xFFFFFFFFu, "=====D"},
    };
    for (const auto& [value, encoded] : base64) {
        EXPECT_EQ(Util::base64Encode(value), encoded) << value;
    }
    EXPECT_EQ(Util::decodeMagic(0x4f564c4bull), "KLVO");
    EXPECT_EQ(Util::decodeMagic(0x4847464544434241ull), "ABCDEFGH");
    EXPECT_EQ(Util::decodeMagic(0x4300004241ull), "AB");
}

}  // namespace
