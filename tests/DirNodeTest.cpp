#include <Kelvo/DirNodeCpp.h>
#include <Kelvo/UtilCpp.h>

#include "OsTestSupport.h"

#include <sys/stat.h>

#include <vector>

using ::testing::HasSubstr;
using namespace KelvoTest;

namespace {

class DirNode : public NoFdLeak {
  protected:
    void SetUp() override {
        NoFdLeak::SetUp();
        for (const char* file : {"a.log", "b.log.old", "e.txt"}) {
            Kelvo::Util::touch(h_, dir_ / file);
        }
        ASSERT_EQ(::mkdir((dir_ / "c.log").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("nowhere", (dir_ / "d.log").c_str()), 0);
    }

    // The wanted names in the order the file system lists them.
    std::list<std::string> inDirectoryOrder(const std::vector<std::string>& wanted) const {
        std::list<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
            const std::string name = entry.path().filename();
            if (std::find(wanted.begin(), wanted.end(), name) != wanted.end()) {
                names.push_back(name);
            }
        }
        return names;
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

TEST_F(DirNode, FindFilesKeepsRegularFilesAndLinksUntilRewound) {
    Kelvo::DirNode node(h_, dir_.path(), nullptr);
    EXPECT_EQ(node.findFiles(".log"), inDirectoryOrder({"a.log", "d.log"}));
    EXPECT_TRUE(node.findFiles(".log").empty()) << "the stream stays at its end";
    node.rewind();
    EXPECT_EQ(node.findFiles(""), inDirectoryOrder({"a.log", "b.log.old", "d.log", "e.txt"}));
    node.pathIs(dir_.path());
    EXPECT_EQ(countEntries(node), 7u) << "pathIs with the same path starts again";
}

TEST_F(DirNode, CopiesReadOnTheirOwnAndMovesTakeOver) {
    auto parent = std::make_shared<Kelvo::DirNode>(h_, dir_.path(), nullptr);
    Kelvo::DirNode node(h_, dir_.path(), parent);
    ASSERT_NE(node.readEntry(), nullptr);
    Kelvo::DirNode copy(node);
    EXPECT_EQ(copy.parent(), parent);
    EXPECT_EQ(countEntries(copy), 7u) << "a copy starts at the first entry";
    EXPECT_EQ(countEntries(node), 6u) << "the original keeps its position";

    node.rewind();
    ASSERT_NE(node.readEntry(), nullptr);
    Kelvo::DirNode moved(std::move(node));
    EXPECT_FALSE(node.isOpen());
    EXPECT_EQ(node.parent(), nullptr);
    EXPECT_EQ(countEntries(moved), 6u) << "the stream moves with its position";
    EXPECT_EQ(parent.use_count(), 3);
    EXPECT_FALSE(Kelvo::DirNode(node).isOpen());
}

TEST_F(DirNode, UnopenableDirectoriesLeaveTheNodeClosed) {
    ASSERT_EQ(::symlink("loop", (dir_ / "loop").c_str()), 0);
    const std::tuple<std::string, int, unsigned> cases[] = {
        {dir_ / "absent", ENOENT, 9},
        {dir_ / "a.log", ENOTDIR, 9},
        {dir_ / "d.log", ENOENT, 9},
        {dir_ / "loop", ELOOP, 1},
    };
    for (const auto& [path, error, level] : cases) {
        const std::string trace =
            fmt::format("DirNode::openDir() failed to open {} errno: {}", path, error);
        const auto belowIt = handleWithLevels("DirNodeTest", {0, 1, 2, 3, 4, 5, 6, 7, 8});
        const auto atIt = handleWithLevels("DirNodeTest", {level});
        CaptureStderr();
        EXPECT_FALSE(Kelvo::DirNode(*belowIt, path, nullptr).isOpen());
        const std::string quiet = GetCapturedStderr();
        EXPECT_EQ(quiet.find(trace) != std::string::npos, level < 9) << quiet;
        CaptureStderr();
        Kelvo::DirNode(*atIt, path, nullptr);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr(trace));
    }

    Kelvo::DirNode closed(h_, dir_ / "absent", nullptr);
    EXPECT_EQ(closed.readEntry(), nullptr);
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { closed.rewind(); }),
              "cannot rewind " + dir_ / "absent" + " because the directory is not open");
    EXPECT_EQ(
        thrownMessage<Kelvo::RuntimeException>([&] { closed.findFiles(".log"); }),
        "cannot find .log files in " + dir_ / "absent" + " because the directory is not open");
}

// A stream whose descriptor was closed behind its back: reading reports the
// system's error, and so does the final close.
TEST_F(DirNode, ReadErrorThrowsAndCloseFailureIsTraced) {
    CaptureStderr();
    auto node = std::make_unique<Kelvo::DirNode>(h_, dir_.path(), nullptr);
    for (int fd : openFds()) {
        std::error_code notALink;
        const auto target =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), notALink);
        if (target == dir_.path()) {
            ::close(fd);
        }
    }
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { node->readEntry(); }),
              fmt::format("failed to read {} errno: {}", dir_.path(), EBADF));
    node.reset();
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("DirNode::~DirNode() failed to close {}", dir_.path())));
}

}  // namespace
