#include "utils/io/filedescriptor.h"
#include "utils/io/mappedregion.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>

#include <functional>
#include <vector>

namespace {

using utils::FileDescriptor;
using utils::MappedRegion;

// Records what the owners hand back to the seam instead of releasing anything.
class RecordingBoard final : public utils::platform::Kernel {
public:
    int open(const std::string&, int, mode_t) override { return -1; }
    ssize_t read(int, void*, size_t) override { return -1; }
    ssize_t write(int, const void*, size_t) override { return -1; }
    ssize_t pread(int, void*, size_t, off_t) override { return -1; }
    ssize_t pwrite(int, const void*, size_t, off_t) override { return -1; }
    int ioctl(int, unsigned long, void*) override { return -1; }
    void* mmap(void*, size_t, int, int, int, off_t) override { return MAP_FAILED; }
    int poll(struct pollfd*, nfds_t, int) override { return -1; }
    int close(int fd) override
    {
        closed.push_back(fd);
        return 0;
    }
    int munmap(void* address, size_t length) override
    {
        unmapped.push_back({address, length});
        return 0;
    }
    std::vector<int> closed;
    std::vector<std::pair<void*, size_t>> unmapped;
};

class OwnersTest : public ::testing::Test {
protected:
    void SetUp() override { utils::platform::installKernel(board); }
    void TearDown() override { utils::platform::installKernel(nullptr); }
    std::shared_ptr<RecordingBoard> board = std::make_shared<RecordingBoard>();
};

TEST_F(OwnersTest, EachDescriptorGoesBackToTheSeamExactlyOnce)
{
    struct Case {
        const char* what;
        std::function<void()> run;
        std::vector<int> closed;
    };
    const std::vector<Case> cases = {
        {"destroyed", [] { FileDescriptor fd(7); }, {7}},
        {"moved from", [] { FileDescriptor a(7); FileDescriptor b(std::move(a)); }, {7}},
        {"assigned over",
         [] {
             FileDescriptor a(7), b(8);
             b = std::move(a);
         },
         {8, 7}},
        {"reset to another", [] { FileDescriptor a(7); a.reset(8); }, {7, 8}},
        {"released", [] { FileDescriptor a(7); EXPECT_EQ(a.release(), 7); }, {}},
        {"never owned one", [] { FileDescriptor a(-1); a.reset(); }, {}},
    };
    for (const auto& c : cases) {
        board->closed.clear();
        c.run();
        EXPECT_EQ(board->closed, c.closed) << c.what;
    }
}

TEST_F(OwnersTest, SystemDescriptorsBypassTheSeam)
{
    int raw = ::eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(raw, 0);
    {
        FileDescriptor a(raw, FileDescriptor::Closer::system);
        FileDescriptor b(std::move(a)); // the closer travels with the descriptor
    }
    EXPECT_TRUE(board->closed.empty());
    EXPECT_EQ(::fcntl(raw, F_GETFD), -1) << "descriptor " << raw << " still open";
}

TEST_F(OwnersTest, EachMappingIsUnmappedOnceWithItsLength)
{
    int cell[2];
    {
        MappedRegion failed(MAP_FAILED, 64);
        EXPECT_FALSE(failed);
        MappedRegion a(&cell[0], 64);
        MappedRegion b(&cell[1], 32);
        b = std::move(a);
        EXPECT_EQ(b.as<int>(), &cell[0]);
        EXPECT_EQ(b.size(), 64u);
    }
    using Unmap = std::pair<void*, size_t>;
    EXPECT_EQ(board->unmapped, (std::vector<Unmap>{{&cell[1], 32}, {&cell[0], 64}}));
}

} // namespace
