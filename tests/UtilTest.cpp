#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/UtilCpp.h>
#include <gmock/gmock.h>

#include "OsTestSupport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

using ::testing::HasSubstr;
using ::testing::Not;
using namespace KelvoTest;
namespace Util = Kelvo::Util;

namespace {

class UtilFiles : public NoFdLeak {
  protected:
    void SetUp() override {
        NoFdLeak::SetUp();
        Kelvo::throwOnAssertFailIs(true);
    }
    ScratchDir dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("UtilTest", {0, 5, 9});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

std::string runtimeMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const Kelvo::RuntimeException& e) {
        return e.message();
    }
    return "no RuntimeException";
}

std::string assertMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no AssertException";
}

TEST_F(UtilFiles, TouchCreatesMissingFileAndKeepsContents) {
    const std::string file = dir_ / "touched";
    EXPECT_TRUE(Util::touch(h_, file));
    EXPECT_EQ(Util::fileSize(h_, file), 0u);
    Util::fileWrite(h_, file, "keep", false);
    EXPECT_TRUE(Util::touch(h_, file));
    EXPECT_EQ(Util::fileRead(h_, file, false), "keep");

    StderrCapture capture;
    EXPECT_FALSE(Util::touch(h_, dir_ / "missing/touched"));
    EXPECT_THAT(capture.text(), HasSubstr("unable to open " + dir_ / "missing/touched" +
                                          " reason: No such file or directory"));
}

TEST_F(UtilFiles, FileWriteReplacesContentsAndReportsFailureByPath) {
    const std::string file = dir_ / "written";
    Util::fileWrite(h_, file, "first, longer contents", false);
    Util::fileWrite(h_, file, "second", false);
    EXPECT_EQ(Util::fileRead(h_, file, false), "second");

    const std::string unwritable = dir_ / "missing/written";
    EXPECT_EQ(runtimeMessage([&] { Util::fileWrite(h_, unwritable, "x", false); }), unwritable);
    StderrCapture capture;
    EXPECT_NO_THROW(Util::fileWrite(h_, unwritable, "x", true));
    EXPECT_THAT(capture.text(), HasSubstr("unable to open " + unwritable + " reason:No such file"));
}

TEST_F(UtilFiles, FileReadOfUnreadablePathIsEmptyAndTracedByChosenLevel) {
    const auto errorsOnly = handleWithLevels("UtilTestErrors", {0});
    struct Case {
        std::string path;
        std::string trace;
    };
    const Case cases[] = {
        {dir_ / "absent", "unable to open file " + dir_ / "absent"},
        {dir_.path(), "unable to open file " + dir_.path() +
                          ". Caught std::exception: basic_filebuf::underflow"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        {
            StderrCapture capture;
            EXPECT_EQ(Util::fileRead(*errorsOnly, c.path, false), "");
            EXPECT_THAT(capture.text(), HasSubstr(c.trace));
        }
        StderrCapture capture;
        EXPECT_EQ(Util::fileRead(*errorsOnly, c.path, true), "");
        EXPECT_EQ(capture.text(), "") << "an ignored failure traces below level 0";
    }
    // Larger than one read buffer, with embedded zero bytes.
    std::string big(10000, 'z');
    big[5000] = '\0';
    Util::fileWrite(h_, dir_ / "big", big, false);
    EXPECT_EQ(Util::fileRead(h_, dir_ / "big", true), big);
}

TEST_F(UtilFiles, ExistsRemoveAndSizeFollowTheFileSystem) {
    const std::string file = dir_ / "file";
    Util::fileWrite(h_, file, "12345", false);
    ASSERT_EQ(::symlink(file.c_str(), (dir_ / "link").c_str()), 0);
    ASSERT_EQ(::symlink((dir_ / "nowhere").c_str(), (dir_ / "dangling").c_str()), 0);

    EXPECT_TRUE(Util::fileExists(h_, file));
    EXPECT_TRUE(Util::fileExists(h_, dir_ / "link"));
    EXPECT_FALSE(Util::fileExists(h_, dir_ / "dangling"));
    EXPECT_EQ(Util::fileSize(h_, dir_ / "link"), 5u);

    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Util::fileSize(h_, fd), 5u);
    ::close(fd);
    {
        StderrCapture capture;
        EXPECT_EQ(Util::fileSize(h_, dir_ / "absent"), 0u);
        EXPECT_EQ(Util::fileSize(h_, -1), 0u);
        const std::string text = capture.text();
        EXPECT_THAT(text, HasSubstr("unable to stat file " + dir_ / "absent" + ": No such file"));
        EXPECT_THAT(text, HasSubstr("unable to fstat fd -1: Bad file descriptor"));
    }

    const auto errorsOnly = handleWithLevels("UtilTestErrors", {0});
    StderrCapture capture;
    EXPECT_TRUE(Util::fileRemove(*errorsOnly, file));
    EXPECT_FALSE(Util::fileExists(h_, file));
    EXPECT_TRUE(Util::fileRemove(*errorsOnly, file)) << "a missing file is no error";
    EXPECT_TRUE(Util::fileRemove(*errorsOnly, dir_ / "dangling")) << "removes the link itself";
    EXPECT_FALSE(Util::fileRemove(*errorsOnly, dir_.path()));
    const std::string text = capture.text();
    EXPECT_THAT(text, HasSubstr("unlink() error " + dir_.path() + ": Is a directory"));
    EXPECT_THAT(text, Not(HasSubstr("unlink() error " + file)));
}

TEST_F(UtilFiles, TruncateResizesOrReportsTheCallFailure) {
    const std::string file = dir_ / "file";
    Util::fileWrite(h_, file, "0123456789", false);
    const int rw = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    const int ro = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(rw, 0);
    ASSERT_GE(ro, 0);
    EXPECT_EQ(Util::truncate(h_, file, rw, 4), 0);
    EXPECT_EQ(Util::fileSize(h_, file), 4u);
    StderrCapture capture;
    EXPECT_EQ(Util::truncate(h_, file, ro, 2), -1);
    EXPECT_THAT(capture.text(), HasSubstr("ftruncate() size:2 error: " + file + ": Invalid"));
    EXPECT_EQ(Util::fileSize(h_, file), 4u);
    ::close(rw);
    ::close(ro);
}

TEST(Util, FileSizeHelperDetectsProductAndSumOverflow) {
    constexpr uint64_t max = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(Util::fileSizeHelper(3, 4, 5), 17u);
    EXPECT_EQ(Util::fileSizeHelper(0, max, max), max);
    EXPECT_EQ(Util::fileSizeHelper(max, 1, 0), max);
    struct Case {
        uint64_t entries, entrySize, extra;
        const char* message;
    };
    const Case cases[] = {
        {uint64_t(1) << 62, 8, 0,
         "fileSizeHelper overflow, entries:4611686018427387904 entrySize:8 xResult:0 "
         "endResult:0"},
        {max, 1, 1,
         "fileSizeHelper overflow, entries:18446744073709551615 entrySize:1 "
         "xResult:18446744073709551615 endResult:0"},
        {uint64_t(1) << 32, uint64_t(1) << 32, 7,
         "fileSizeHelper overflow, entries:4294967296 entrySize:4294967296 xResult:0 "
         "endResult:7"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(runtimeMessage([&] { Util::fileSizeHelper(c.entries, c.entrySize, c.extra); }),
                  c.message);
    }
}

TEST_F(UtilFiles, MkpathCreatesMissingParentsAndReportsExistingOnes) {
    const std::string deep = dir_ / "a/b/c";
    ASSERT_EQ(::mkdir((dir_ / "a").c_str(), 0755), 0);
    EXPECT_EQ(Util::mkpath(deep, 0750), 0);
    struct stat info;
    ASSERT_EQ(::stat((dir_ / "a/b").c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    ASSERT_EQ(::stat(deep.c_str(), &info), 0);
    const mode_t mask = ::umask(022);
    ::umask(mask);
    EXPECT_EQ(info.st_mode & 0777, 0750u & ~mask);

    errno = 0;
    EXPECT_EQ(Util::mkpath(deep, 0755), -1);
    EXPECT_EQ(errno, EEXIST);

    Util::fileWrite(h_, dir_ / "plain", "", false);
    errno = 0;
    EXPECT_EQ(Util::mkpath(dir_ / "plain/x/y", 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);

    Kelvo::Platform::setupKelvoDebug("KelvoUtil/9");
    StderrCapture capture;
    Util::mkpath(dir_ / "d", 0755);
    Kelvo::Platform::clearKelvoDebug("KelvoUtil/9");
    EXPECT_THAT(capture.text(), HasSubstr("creating path: " + dir_ / "d" + " mode: 755"));
}

TEST_F(UtilFiles, TrimpathRemovesOnlyTheTrailingEmptyDirectories) {
    ASSERT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), 0);
    EXPECT_TRUE(Util::trimpath(dir_ / "a/b/c/d", "c/d"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "a/b/c"));
    EXPECT_TRUE(std::filesystem::is_directory(dir_ / "a/b"));

    EXPECT_TRUE(Util::trimpath(dir_ / "a/b/c/d", "c/d")) << "already gone is fine";

    ASSERT_EQ(Util::mkpath(dir_ / "a/b/c/d", 0755), 0);
    Util::fileWrite(h_, dir_ / "a/b/c/keep", "", false);
    Kelvo::Platform::setupKelvoDebug("KelvoUtil/5");
    StderrCapture capture;
    EXPECT_FALSE(Util::trimpath(dir_ / "a/b/c/d", "/c/d"));
    Kelvo::Platform::clearKelvoDebug("KelvoUtil/5");
    EXPECT_THAT(capture.text(),
                HasSubstr("rmdir() error " + dir_ / "a/b/c" + " reason: Directory"));
    EXPECT_FALSE(std::filesystem::exists(dir_ / "a/b/c/d"));
    EXPECT_TRUE(std::filesystem::exists(dir_ / "a/b/c/keep"));
}

TEST(Util, TrimpathRejectsInconsistentArguments) {
    Kelvo::throwOnAssertFailIs(true);
    const std::pair<std::pair<const char*, const char*>, const char*> cases[] = {
        {{"", "x"}, "absolute path is empty"},
        {{"relative/x", "x"}, "absolute path is not absolute"},
        {{"/a/x", ""}, "trailing path is empty"},
        {{"/a/x", "/a/x"}, "trailing path longer than absolute path"},
        {{"/a", "b/a"}, "trailing path longer than absolute path"},
        {{"/a/x", "y"}, "trailing path is not a terminal substring of absolute path"},
    };
    for (const auto& [arguments, message] : cases) {
        EXPECT_THAT(assertMessage([&] { Util::trimpath(arguments.first, arguments.second); }),
                    HasSubstr(message))
            << arguments.first << " " << arguments.second;
    }
}

TEST_F(UtilFiles, GetCwdReportsARemovedWorkingDirectory) {
    char expected[4096];
    ASSERT_NE(::getcwd(expected, sizeof expected), nullptr);
    EXPECT_EQ(Util::getCwd(h_), expected);

    const std::string gone = dir_ / "gone";
    const auto result = runInChild([&] {
        CHILD_CHECK(::mkdir(gone.c_str(), 0755) == 0 && ::chdir(gone.c_str()) == 0);
        CHILD_CHECK(::rmdir(gone.c_str()) == 0);
        std::fprintf(stderr, "%s\n", runtimeMessage([&] { Util::getCwd(h_); }).c_str());
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("getcwd() failed:No such file or directory"));
}

TEST(Util, Base64EncodeIsLeastSignificantGroupFirst) {
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "AAAAAA"},           {1, "BAAAAA"},           {62, "_AAAAA"},
        {63, "=AAAAA"},          {64, "ABAAAA"},          {26 | (52u << 6), "a0AAAA"},
        {0xC0000000u, "AAAAAD"}, {0xFFFFFFFFu, "=====D"},
    };
    for (const auto& [value, encoded] : cases) {
        EXPECT_EQ(Util::base64Encode(value), encoded) << value;
    }
}

TEST(Util, DecodeMagicReadsLittleEndianBytesUpToFirstZero) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0x4f564c4bull, "KLVO"},
        {0, ""},
        {0x4847464544434241ull, "ABCDEFGH"},
        {0x4300004241ull, "AB"},
    };
    for (const auto& [magic, text] : cases) {
        EXPECT_EQ(Util::decodeMagic(magic), text);
    }
}

}  // namespace
