#include "TestSupport.h"

using namespace KelvoTest;

namespace {

class DirNode : public OsTest {
  protected:
    void SetUp() override {
        OsTest::SetUp();
        for (const char* file : {"a.log", "b.log.old", "e.txt"})
            Kelvo::Util::touch(h_, path(file));
        ASSERT_EQ(::mkdir(path("c.log").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("nowhere", path("d.log").c_str()), 0);
    }
};

// The names found, whose order is the file system's.
std::multiset<std::string> found(const std::list<std::string>& names) {
    return {names.begin(), names.end()};
}

size_t countEntries(const Kelvo::DirNode& node) {
    size_t count = 0;
    while (node.readEntry() != nullptr)
        ++count;
    return count;
}

TEST_F(DirNode, FindFilesKeepsRegularFilesAndLinksUntilRewound) {
    Kelvo::DirNode node(h_, dir_, nullptr);
    EXPECT_EQ(found(node.findFiles(".log")), (std::multiset<std::string>{"a.log", "d.log"}));
    EXPECT_TRUE(node.findFiles(".log").empty()) << "the stream stays at its end";
    node.rewind();
    EXPECT_EQ(found(node.findFiles("")),
              (std::multiset<std::string>{"a.log", "b.log.old", "d.log", "e.txt"}));
    node.pathIs(dir_);
    EXPECT_EQ(countEntries(node), 7u) << "pathIs with the same path starts again";
}

TEST_F(DirNode, CopiesReadOnTheirOwnAndMovesTakeOver) {
    auto parent = std::make_shared<Kelvo::DirNode>(h_, dir_, nullptr);
    Kelvo::DirNode node(h_, dir_, parent);
    ASSERT_NE(node.readEntry(), nullptr);
    Kelvo::DirNode copy(node);
    EXPECT_EQ(copy.parent(), parent);
    EXPECT_EQ(std::pair(countEntries(copy), countEntries(node)), (std::pair<size_t, size_t>(7, 6)))
        << "a copy starts at the first entry; the original keeps its position";
    node.rewind();
    ASSERT_NE(node.readEntry(), nullptr);
    Kelvo::DirNode moved(std::move(node));
    EXPECT_FALSE(node.isOpen() || Kelvo::DirNode(node).isOpen() || node.parent());
    EXPECT_EQ(countEntries(moved), 6u) << "the stream moves with its position";
}

TEST_F(DirNode, UnopenableDirectoriesLeaveTheNodeClosed) {
    ASSERT_EQ(::symlink("loop", path("loop").c_str()), 0);
    // A missing directory is routine: only other failures trace at level 1.
    auto levelOne = handleWithLevels({1});
    for (const auto& [name, error] :
         {std::pair{"absent", ENOENT}, {"a.log", ENOTDIR}, {"loop", ELOOP}}) {
        CaptureStderr();
        EXPECT_FALSE(Kelvo::DirNode(*levelOne, path(name), nullptr).isOpen());
        EXPECT_EQ(
            GetCapturedStderr().find(fmt::format("DirNode::openDir() failed to open {} errno: {}",
                                                 path(name), error)) != std::string::npos,
            error == ELOOP)
            << name;
    }

    Kelvo::DirNode closed(h_, path("absent"), nullptr);
    EXPECT_EQ(closed.readEntry(), nullptr);
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { closed.rewind(); }),
              "cannot rewind " + path("absent") + " because the directory is not open");
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { closed.findFiles(".log"); }),
              "cannot find .log files in " + path("absent") + " because the directory is not open");
}

// A stream whose descriptor was closed behind its back: reading reports the
// system's error, and so does the final close.
TEST_F(DirNode, ReadErrorThrowsAndCloseFailureIsTraced) {
    CaptureStderr();
    auto node = std::make_unique<Kelvo::DirNode>(h_, dir_, nullptr);
    for (int fd : openFds()) {
        std::error_code notALink;
        if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), notALink) ==
            dir_) {
            ::close(fd);
        }
    }
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { node->readEntry(); }),
              fmt::format("failed to read {} errno: {}", dir_, EBADF));
    node.reset();
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("DirNode::~DirNode() failed to close {}", dir_)));
}

}  // namespace
