#include "support/board.h"
#include "support/bytes.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/iotof.h"
#include "utils/platform/emulated/tofmodel.h"
#include "utils/platform/filedescriptor.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fcntl.h>

#include <array>
#include <cstring>
#include <functional>
#include <thread>

namespace {

using k52test::throwsWith;
using utils::IOToF;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* tofPath = "/dev/k52tof";
// The two register requests, as documented for C clients.
constexpr unsigned long readRequest = 0xC108B900, writeRequest = 0x4108B901;

class ToFTest : public ::testing::Test {
protected:
    void SetUp() override { attachToF(*board_); tof_.init_tof_sensor(); }

    // One request as a C client makes it, the record laid out by hand: u32 address at 0, u32
    // length at 4, the data from 8, 264 bytes in all. `data` goes in and comes back; returns errno.
    int rawRequest(unsigned long request, uint32_t address, uint32_t length, std::vector<uint8_t>& data)
    {
        std::array<uint8_t, 264> record{};
        std::memcpy(record.data(), &address, 4);
        std::memcpy(record.data() + 4, &length, 4);
        std::copy(data.begin(), data.end(), record.begin() + 8);
        utils::FileDescriptor fd(kernel().open(tofPath, O_RDWR));
        int error = kernel().ioctl(fd.get(), request, record.data()) < 0 ? errno : 0;
        data.assign(record.begin() + 8, record.begin() + 8 + data.size());
        return error;
    }
    std::vector<uint8_t> rawRead(uint32_t address, uint32_t length)
    {
        std::vector<uint8_t> bytes(length);
        EXPECT_EQ(rawRequest(readRequest, address, length, bytes), 0);
        return bytes;
    }
    uint32_t rawRegister(uint32_t address) { return k52test::word(rawRead(address, 4).data(), 0); }
    uint32_t status(uint32_t mask) { return rawRegister(0x04) & mask; }

    k52test::InstalledBoard board_; // first: the devices close through it
    IOToF tof_{tofPath};
};

TEST_F(ToFTest, RawRequestsAreCheckedAndAnswered)
{
    EXPECT_EQ(status(1), 1u) << "STATUS.BOOTED";
    // data: in, and expected back when it worked
    struct Case { const char* what; unsigned long request; uint32_t address, length; std::vector<uint8_t> data; int error; };
    const Case cases[] = {
        {"identity", readRequest, 0x00, 4, {0x01, 0x00, 0x52, 0x4B}, 0},
        {"frequency", writeRequest, 0x10, 4, {7, 0, 0, 0}, 0},
        {"out of range", writeRequest, 0x10, 4, {61, 0, 0, 0}, ERANGE},
        {"read-only register", writeRequest, 0x00, 4, {1, 0, 0, 0}, EPERM},
        {"no such register", readRequest, 0x3c, 4, {0, 0, 0, 0}, EINVAL},
        {"unaligned register", readRequest, 0x12, 4, {0, 0, 0, 0}, EINVAL},
        {"half a register", readRequest, 0x10, 2, {0, 0}, EINVAL},
        {"three table bytes", writeRequest, 0x203, 3, {0xaa, 0xbb, 0xcc}, 0},
        {"read back inside the table", readRequest, 0x202, 5, {0, 0xaa, 0xbb, 0xcc, 0}, 0},
        {"empty", readRequest, 0x200, 0, {}, EINVAL},
        {"longer than a record holds", readRequest, 0x200, 257, {}, EINVAL},
        {"past the address space", readRequest, 0xfffffff0, 16, {}, EINVAL},
        {"a record of another size", 0xC008B900, 0x10, 4, {}, ENOTTY},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> data = c.request == writeRequest ? c.data : std::vector<uint8_t>(c.data.size());
        EXPECT_EQ(rawRequest(c.request, c.address, c.length, data), c.error) << c.what;
        EXPECT_TRUE(c.error || data == c.data) << c.what;
    }
}

// The routes' test pins the ranges and the replies; here the register map C clients read.
TEST_F(ToFTest, SettingsLandInTheirRegisters)
{
    const std::pair<std::function<void()>, std::pair<uint32_t, uint32_t>> cases[] = {
        {[&] { tof_.set_resolution(IOToF::RESOLUTION_8X8); }, {0x0C, 64}},
        {[&] { tof_.set_frequency(15); }, {0x10, 15}},
        {[&] { tof_.set_power_mode(IOToF::SLEEP); }, {0x14, 0}},
        {[&] { tof_.set_ranging_mode(IOToF::AUTONOMOUS); }, {0x18, 3}},
        {[&] { tof_.set_integration_time(1000000); }, {0x1C, 1000000}},
        {[&] { tof_.set_calibration_reflectance_percent(17); }, {0x20, 17}},
        {[&] { tof_.set_calibration_nb_samples(200); }, {0x24, 200}},
        {[&] { tof_.set_calibration_distance(600); }, {0x28, 600}},
    };
    for (const auto& [set, at] : cases) {
        set();
        EXPECT_EQ(rawRegister(at.first), at.second) << at.first;
    }
    EXPECT_THAT([&] { tof_.set_integration_time(0); }, throwsWith<utils::IOError>("INTEGRATION_TIME", tofPath));
}

TEST_F(ToFTest, CalibrationAppliesTheFactoryOffsetsWhoseChecksumIsZlibCompatible)
{
    auto offsets = rawRead(0x100, 128);
    EXPECT_EQ(rawRegister(0x180), crc32(0, offsets.data(), offsets.size()));
    tof_.apply_calibration();
    EXPECT_EQ(status(0x8), 0x8u) << "STATUS.CALIBRATED";
    EXPECT_EQ(rawRead(0x200, 128), offsets);
}

TEST_F(ToFTest, CorruptFactoryCalibrationIsRejected)
{
    std::dynamic_pointer_cast<ToFModel>(board_->device(tofPath))->corruptFactoryCalibration();
    EXPECT_THAT([&] { tof_.apply_calibration(); }, throwsWith<utils::UtilsRuntimeError>("corrupt"));
    EXPECT_EQ(status(0x8), 0u) << "nothing may be applied";
}

TEST_F(ToFTest, ShotsRangeOnlyWhileAsked)
{
    tof_.set_frequency(60);
    EXPECT_TRUE(tof_.results().empty());
    tof_.shot();
    EXPECT_EQ(tof_.results().size(), 16u);
    EXPECT_EQ(status(0x2), 0u) << "a single shot must stop ranging again";
    tof_.start_ranging();
    tof_.shot();
    EXPECT_EQ(status(0x2), 0x2u) << "ranging continues between shots";
    EXPECT_THAT([&] { tof_.xtalk_calibration(); }, throwsWith<utils::UtilsRuntimeError>("stop ranging"));
    tof_.stop_ranging();
    EXPECT_EQ(status(0x2), 0u);
    tof_.set_calibration_nb_samples(20);
    tof_.xtalk_calibration();
    EXPECT_EQ(status(0x30), 0x20u) << "not busy, result valid";
    // A shot that never completes times out and stops ranging.
    board_->faults().inject(tofPath, Fault::timeout);
    EXPECT_THROW(tof_.shot(), utils::IOError);
    board_->faults().clear(tofPath);
    EXPECT_EQ(status(0x2), 0u);
}

// An open failure is the routes' test's; this one happens while the sensor boots.
TEST_F(ToFTest, AFaultAtStartLeavesTheSensorDead)
{
    board_->faults().inject(tofPath, Fault::timeout);
    IOToF tof(tofPath);
    EXPECT_THAT([&] { tof.init_tof_sensor(); }, throwsWith<utils::IOError>("Timed out"));
    EXPECT_THROW(tof.throwIfDead(), utils::UtilsRuntimeError);
}

TEST_F(ToFTest, ConcurrentShotsAreSerialisedByTheDriver)
{
    tof_.set_frequency(60);
    auto worker = [&] {
        for (int i = 0; i < 10; ++i) {
            tof_.shot();
            EXPECT_EQ(tof_.results().size(), 16u);
        }
    };
    std::thread other(worker);
    worker();
    other.join();
}

} // namespace
