#include "TestSupport.h"

using namespace KelvoTest;

namespace {

using DirNode = OsTest;

using Names = std::multiset<std::string>;  // the file system's order is its own

size_t countEntries(const Kelvo::DirNode& node) {
    size_t count = 0;
    while (node.readEntry() != nullptr)
        ++count;
    return count;
}

// Seven entries with "." and "..": files, a directory and a dangling link.
TEST_F(DirNode, FindFilesCopiesAndMovesKeepTheirOwnPosition) {
    for (const char* file : {"a.log", "b.log.old", "e.txt"})
        Kelvo::Util::touch(h_, path(file));
    ASSERT_EQ(::mkdir(path("c.log").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("nowhere", path("d.log").c_str()), 0);
    auto parent = std::make_shared<Kelvo::DirNode>(h_, dir_, nullptr);
    Kelvo::DirNode node(h_, dir_, parent);
    const auto logs = node.findFiles(".log");
    EXPECT_EQ(Names(logs.begin(), logs.end()), (Names{"a.log", "d.log"}));
    EXPECT_TRUE(node.findFiles(".log").empty()) << "the stream stays at its end";
    node.rewind();
    const auto all = node.findFiles("");
    EXPECT_EQ(Names(all.begin(), all.end()), (Names{"a.log", "b.log.old", "d.log", "e.txt"}));
    node.pathIs(dir_);  // the same path starts again
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

// A missing directory is routine: only other failures trace at level 1.
TEST_F(DirNode, UnopenableDirectoriesLeaveTheNodeClosed) {
    Kelvo::Util::touch(h_, path("a.log"));
    ASSERT_EQ(::symlink("loop", path("loop").c_str()), 0);
    auto levelOne = handleWithLevels({1});
    for (const auto& [name, error] :
         {std::pair{"absent", ENOENT}, {"a.log", ENOTDIR}, {"loop", ELOOP}}) {
        CaptureStderr();
        Kelvo::DirNode closed(*levelOne, path(name), nullptr);
        EXPECT_EQ(closed.readEntry(), nullptr) << name;
        EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { closed.findFiles(".log"); }),
                  "cannot find .log files in " + path(name) + " because the directory is not open");
        EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { closed.rewind(); }),
                  "cannot rewind " + path(name) + " because the directory is not open");
        EXPECT_EQ(
            GetCapturedStderr().find(fmt::format("DirNode::openDir() failed to open {} errno: {}",
                                                 path(name), error)) != std::string::npos,
            error == ELOOP)
            << name;
    }
}

// A stream whose descriptor was closed behind its back: reading reports the
// system's error, and so does the final close.
TEST_F(DirNode, ReadErrorThrowsAndCloseFailureIsTraced) {
    CaptureStderr();
    auto node = std::make_unique<Kelvo::DirNode>(h_, dir_, nullptr);
    std::error_code notALink;
    for (int fd : openFds()) {
        if (std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", fd), notALink) == dir_)
            ::close(fd);
    }
    EXPECT_EQ(thrownMessage<Kelvo::RuntimeException>([&] { node->readEntry(); }),
              fmt::format("failed to read {} errno: {}", dir_, EBADF));
    node.reset();
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("DirNode::~DirNode() failed to close {}", dir_)));
}

}  // namespace
