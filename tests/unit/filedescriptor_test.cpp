#include "utils/platform/filedescriptor.h"
#include "utils/platform/kernel.h"
#include "utils/platform/mappedregion.h"

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
    int close(int fd) override { return closed.push_back(fd), 0; }
    int munmap(void* address, size_t length) override { return unmapped.push_back({address, length}), 0; }
    std::vector<int> closed;
    std::vector<std::pair<void*, size_t>> unmapped;
};

TEST(Owners, EachDescriptorAndMappingGoesBackExactlyOnce)
{
    auto board = std::make_shared<RecordingBoard>();
    utils::platform::installKernel(board);
    const std::pair<std::function<void()>, std::vector<int>> cases[] = {
        {[] { FileDescriptor fd(7); }, {7}},
        {[] { FileDescriptor a(7); FileDescriptor b(std::move(a)); }, {7}},
        {[] { FileDescriptor a(7), b(8); b = std::move(a); }, {8, 7}},
        {[] { FileDescriptor a(7); a.reset(8); }, {7, 8}},
        {[] { FileDescriptor a(7); EXPECT_EQ(a.release(), 7); }, {}},
        {[] { FileDescriptor a(-1); a.reset(); }, {}},
    };
    for (const auto& [run, closed] : cases) {
        board->closed.clear();
        run();
        EXPECT_EQ(board->closed, closed);
    }

    // The system closer travels with the descriptor and never reaches the seam.
    int raw = ::eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(raw, 0);
    board->closed.clear();
    {
        FileDescriptor a(raw, FileDescriptor::Closer::system);
        FileDescriptor b(std::move(a));
    }
    EXPECT_TRUE(board->closed.empty());
    EXPECT_EQ(::fcntl(raw, F_GETFD), -1) << "descriptor " << raw << " still open";

    int cell[2];
    {
        MappedRegion failed(MAP_FAILED, 64);
        EXPECT_FALSE(failed);
        MappedRegion a(&cell[0], 64), b(&cell[1], 32);
        b = std::move(a);
        EXPECT_EQ(b.as<int>(), &cell[0]);
    }
    EXPECT_EQ(board->unmapped, (std::vector<std::pair<void*, size_t>>{{&cell[1], 32}, {&cell[0], 64}}));
    utils::platform::installKernel(nullptr);
}

} // namespace
