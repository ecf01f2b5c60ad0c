#include <Kelvo/DirNodeCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/UtilCpp.h>
#include <gmock/gmock.h>

#include "OsTestSupport.h"

#include <sys/stat.h>

#include <cstring>
#include <vector>

using ::testing::HasSubstr;
using namespace KelvoTest;

namespace {

class DirNode : public NoFdLeak {
  protected:
    void SetUp() override {
        NoFdLeak::SetUp();
        for (const char* file : {"a.log", "b.log.old", "e.txt", "log"}) {
            Kelvo::Util::fileWrite(h_, dir_ / file, "", false);
        }
        ASSERT_EQ(::mkdir((dir_ / "c.log").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("nowhere", (dir_ / "d.log").c_str()), 0);
    }

    // Names in the order the file system returns them.
    std::vector<std::string> rawOrder() const {
        std::vector<std::string> names;
        DIR* dir = ::opendir(dir_.path().c_str());
        while (const dirent* entry = ::readdir(dir)) {
            names.emplace_back(entry->d_name);
        }
        ::closedir(dir);
        return names;
    }

    std::list<std::string> expectedFiles(const std::vector<std::string>& wanted) const {
        std::list<std::string> files;
        for (const std::string& name : rawOrder()) {
            if (std::find(wanted.begin(), wanted.end(), name) != wanted.end()) {
                files.push_back(name);
            }
        }
        return files;
    }

    ScratchDir dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("DirNodeTest", {0, 1, 5});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

size_t countEntries(const Kelvo::DirNode& node) {
    size_t count = 0;
    while (node.readEntry() != nullptr) {
        ++count;
    }
    return count;
}

std::string runtimeMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const Kelvo::RuntimeException& e) {
        return e.message();
    }
    return "no RuntimeException";
}

TEST_F(DirNode, FindFilesKeepsRegularFilesAndLinksInDirectoryOrder) {
    Kelvo::DirNode node(h_, dir_.path(), nullptr);
    ASSERT_TRUE(node.isOpen());
    EXPECT_EQ(node.findFiles(".log"), expectedFiles({"a.log", "d.log"}));
    EXPECT_TRUE(node.findFiles(".log").empty()) << "the stream stays at its end";
    node.rewind();
    EXPECT_EQ(node.findFiles(""), expectedFiles({"a.log", "b.log.old", "d.log", "e.txt", "log"}));
    node.rewind();
    EXPECT_EQ(node.findFiles("log"), expectedFiles({"a.log", "d.log", "log"}));
    node.rewind();
    EXPECT_TRUE(node.findFiles(".a-much-longer-extension").empty());
}

TEST_F(DirNode, PathIsReopensEvenForTheSamePath) {
    Kelvo::DirNode node(h_);
    EXPECT_FALSE(node.isOpen());
    node.pathIs(dir_.path());
    const size_t all = countEntries(node);
    EXPECT_EQ(all, rawOrder().size());
    node.pathIs(dir_.path());
    EXPECT_EQ(countEntries(node), all);

    node.pathIs(dir_ / "c.log");
    EXPECT_EQ(node.path(), dir_ / "c.log");
    EXPECT_EQ(countEntries(node), 2u) << ". and ..";
}

TEST_F(DirNode, CopiesReadIndependentlyAndMovesTakeOver) {
    auto parent = std::make_shared<Kelvo::DirNode>(h_, dir_.path(), nullptr);
    Kelvo::DirNode node(h_, dir_.path(), parent);
    const size_t all = countEntries(node);
    node.rewind();
    ASSERT_NE(node.readEntry(), nullptr);

    Kelvo::DirNode copy(node);
    EXPECT_TRUE(copy.isOpen());
    EXPECT_EQ(copy.parent(), parent);
    EXPECT_EQ(copy.path(), node.path());
    EXPECT_EQ(countEntries(copy), all) << "a copy starts at the first entry";
    EXPECT_EQ(countEntries(node), all - 1) << "the original keeps its position";

    node.rewind();
    ASSERT_NE(node.readEntry(), nullptr);
    Kelvo::DirNode moved(std::move(node));
    EXPECT_FALSE(node.isOpen());
    EXPECT_EQ(node.parent(), nullptr);
    EXPECT_EQ(moved.parent(), parent);
    EXPECT_EQ(countEntries(moved), all - 1) << "the stream moves with its position";
    EXPECT_EQ(parent.use_count(), 3);

    Kelvo::DirNode closedCopy(node);
    EXPECT_FALSE(closedCopy.isOpen());
}

TEST_F(DirNode, UnopenableDirectoriesLeaveTheNodeClosed) {
    ASSERT_EQ(::symlink("loop-b", (dir_ / "loop-a").c_str()), 0);
    ASSERT_EQ(::symlink("loop-a", (dir_ / "loop-b").c_str()), 0);
    struct Case {
        std::string path;
        int error;
        unsigned level;
    };
    const Case cases[] = {
        {dir_ / "absent", ENOENT, 9},
        {dir_ / "a.log", ENOTDIR, 9},
        {dir_ / "d.log", ENOENT, 9},
        {dir_ / "loop-a", ELOOP, 1},
    };
    const auto upTo8 = handleWithLevels("DirNodeTest", {0, 1, 2, 3, 4, 5, 6, 7, 8});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        const std::string trace =
            fmt::format("DirNode::openDir() failed to open {} errno: {}", c.path, c.error);
        {
            StderrCapture capture;
            Kelvo::DirNode node(*upTo8, c.path, nullptr);
            EXPECT_FALSE(node.isOpen());
            const std::string text = capture.text();
            if (c.level == 9) {
                EXPECT_EQ(text, "") << "an expected condition is detail";
            } else {
                EXPECT_THAT(text, HasSubstr(trace));
            }
        }
        const auto onlyItsLevel = handleWithLevels("DirNodeTest", {c.level});
        StderrCapture capture;
        Kelvo::DirNode node(*onlyItsLevel, c.path, nullptr);
        EXPECT_THAT(capture.text(), HasSubstr(trace));
    }
}

TEST_F(DirNode, ClosedNodeRefusesToRewindOrList) {
    const std::string path = dir_ / "absent";
    Kelvo::DirNode node(h_, path, nullptr);
    StderrCapture capture;
    EXPECT_EQ(node.readEntry(), nullptr);
    EXPECT_EQ(runtimeMessage([&] { node.rewind(); }),
              "cannot rewind " + path + " because the directory is not open");
    EXPECT_EQ(runtimeMessage([&] { node.findFiles(".log"); }),
              "cannot find .log files in " + path + " because the directory is not open");
    const std::string text = capture.text();
    EXPECT_THAT(text, HasSubstr("DirNode::readEntry() cannot read " + path +
                                " because the directory is not open"));
    EXPECT_THAT(text, HasSubstr("DirNode::findFiles() cannot find .log files"));
}

// A stream whose descriptor was closed behind its back: reading reports the
// system's error, and so does the final close.
TEST_F(DirNode, ReadErrorThrowsAndCloseFailureIsTraced) {
    StderrCapture capture;
    auto node = std::make_unique<Kelvo::DirNode>(h_, dir_.path(), nullptr);
    int streamFd = -1;
    for (int fd : openFds()) {
        char target[4096] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (::readlink(link.c_str(), target, sizeof target - 1) > 0 && target == dir_.path()) {
            streamFd = fd;
        }
    }
    ASSERT_GE(streamFd, 0);
    ASSERT_EQ(::close(streamFd), 0);
    EXPECT_EQ(runtimeMessage([&] { node->readEntry(); }),
              fmt::format("failed to read {} errno: {}", dir_.path(), EBADF));
    node.reset();
    EXPECT_THAT(capture.text(),
                HasSubstr(fmt::format("DirNode::~DirNode() failed to close {}", dir_.path())));
}

}  // namespace
