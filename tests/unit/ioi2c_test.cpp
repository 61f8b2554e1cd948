#include "utils/base/exceptions.h"
#include "utils/io/filedescriptor.h"
#include "utils/io/ioi2cfile.h"
#include "utils/io/ioi2crtu.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/i2cbus.h"
#include "utils/platform/kernel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

using namespace utils::platform::emulated;
using utils::platform::kernel;

// A device that records what the master wrote and answers reads from a script.
class RecordingDevice final : public I2CDevice {
public:
    bool write(std::span<const uint8_t> data) override
    {
        writes.emplace_back(data.begin(), data.end());
        return true;
    }
    bool read(std::span<uint8_t> data) override
    {
        for (auto& byte : data)
            byte = answer.empty() ? 0 : answer[next++ % answer.size()];
        return true;
    }
    std::vector<std::vector<uint8_t>> writes;
    std::vector<uint8_t> answer;
    size_t next = 0;
};

class I2CTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        board = std::make_shared<EmulatedBoard>();
        attachI2CBuses(*board);
        utils::platform::installKernel(board);
    }
    void TearDown() override
    {
        descriptors.clear(); // closed on the board, before it is uninstalled
        utils::platform::installKernel(nullptr);
    }

    // An open /dev/i2c-N descriptor through the seam, closed at the end of the test.
    int openBus(const std::string& path)
    {
        int fd = kernel().open(path, O_RDWR);
        EXPECT_GE(fd, 0) << path;
        descriptors.emplace_back(fd);
        return fd;
    }

    std::shared_ptr<EmulatedBoard> board;
    std::vector<utils::FileDescriptor> descriptors;
};

TEST_F(I2CTest, RegisterAccessOnEveryGeneralBus)
{
    struct Case {
        const char* bus;
        uint8_t address;
        uint8_t reg;
        int readResult;
        uint8_t readValue; // when readResult is 0
        uint8_t written;
        int writeResult;
    };
    const Case cases[] = {
        {"/dev/i2c-2", 0x50, 0, 0, 'K', 0x11, 0},         // EEPROM label, writable
        {"/dev/i2c-3", 0x50, 0x80, 0, 0xff, 0x22, 0},     // erased EEPROM byte
        {"/dev/i2c-4", 0x48, 0x00, 0, 25, 0x33, -EIO},    // temperature is read-only
        {"/dev/i2c-4", 0x48, 0x0f, 0, 0xa5, 0x01, -EIO},  // identifier is read-only
        {"/dev/i2c-2", 0x48, 0x03, 0, 80, 0x44, 0},       // alarm limit is writable
        {"/dev/i2c-3", 0x51, 0x00, -ENXIO, 0, 0, -ENXIO}, // nothing at 0x51
        {"/dev/i2c-3", 0x90, 0x00, -EINVAL, 0, 0, -EINVAL}, // not a 7-bit address
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.bus) + " address " + std::to_string(c.address));
        utils::IOI2CFile file(c.bus, c.address, O_RDWR);
        uint8_t value = 0;
        ASSERT_EQ(file.readRegister(c.reg, value), c.readResult);
        if (c.readResult != 0)
            continue;
        EXPECT_EQ(value, c.readValue);
        EXPECT_EQ(file.writeRegister(c.reg, c.written), c.writeResult);
        ASSERT_EQ(file.readRegister(c.reg, value), 0);
        EXPECT_EQ(value, c.writeResult == 0 ? c.written : c.readValue);
    }
}

TEST_F(I2CTest, PlainReadAndWriteFollowTheRegisterPointer)
{
    int fd = openBus("/dev/i2c-3");
    uint8_t byte = 0;

    // No address selected yet: nothing acknowledges address 0.
    errno = 0;
    EXPECT_EQ(kernel().read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, ENXIO);

    EXPECT_EQ(kernel().ioctl(fd, I2C_SLAVE, reinterpret_cast<void*>(0x80UL)), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(kernel().ioctl(fd, I2C_SLAVE, reinterpret_cast<void*>(0x50UL)), 0);

    const uint8_t store[] = {0x10, 0xde, 0xad, 0xbe};
    ASSERT_EQ(kernel().write(fd, store, sizeof store), 4);
    const uint8_t pointer[] = {0x0f};
    ASSERT_EQ(kernel().write(fd, pointer, 1), 1);
    uint8_t got[5] = {};
    ASSERT_EQ(kernel().read(fd, got, sizeof got), 5);
    const uint8_t expected[] = {0xff, 0xde, 0xad, 0xbe, 0xff};
    EXPECT_EQ(std::memcmp(got, expected, sizeof got), 0);

    // The pointer wraps from the last register to the first.
    const uint8_t last[] = {0xff};
    ASSERT_EQ(kernel().write(fd, last, 1), 1);
    ASSERT_EQ(kernel().read(fd, got, 3), 3);
    EXPECT_EQ(got[0], 0xff);
    EXPECT_EQ(got[1], 'K');
    EXPECT_EQ(got[2], '5');

    // I2C_SLAVE_FORCE selects too; the address belongs to this open file only.
    ASSERT_EQ(kernel().ioctl(fd, I2C_SLAVE_FORCE, reinterpret_cast<void*>(0x48UL)), 0);
    ASSERT_EQ(kernel().write(fd, pointer, 1), 1);
    int other = openBus("/dev/i2c-3");
    EXPECT_EQ(kernel().write(other, pointer, 1), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(I2CTest, ReadWriteIoctlIsOneTransferReportingItsMessages)
{
    int fd = openBus("/dev/i2c-2");
    unsigned long functions = 0;
    ASSERT_EQ(kernel().ioctl(fd, I2C_FUNCS, &functions), 0);
    EXPECT_TRUE(functions & I2C_FUNC_I2C);
    EXPECT_FALSE(functions & I2C_FUNC_10BIT_ADDR);

    uint8_t offset = 0;
    uint8_t label[5] = {};
    uint8_t sensorReg = 0x0f;
    uint8_t id = 0;
    i2c_msg messages[] = {
        {0x50, 0, 1, &offset},
        {0x50, I2C_M_RD, sizeof label, label},
        {0x48, 0, 1, &sensorReg},
        {0x48, I2C_M_RD, 1, &id},
    };
    i2c_rdwr_ioctl_data request{messages, 4};
    ASSERT_EQ(kernel().ioctl(fd, I2C_RDWR, &request), 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(label), sizeof label), "K52 I");
    EXPECT_EQ(id, 0xa5);

    struct Refused {
        const char* what;
        i2c_msg message;
        uint32_t count;
        int error;
    };
    uint8_t byte = 0;
    const Refused refused[] = {
        {"absent device", {0x22, I2C_M_RD, 1, &byte}, 1, ENXIO},
        {"ten-bit address", {0x50, I2C_M_TEN, 1, &byte}, 1, EINVAL},
        {"too long", {0x50, 0, 8193, &byte}, 1, EINVAL},
        {"too many messages", {0x50, 0, 1, &byte}, 43, EINVAL},
    };
    for (const Refused& r : refused) {
        SCOPED_TRACE(r.what);
        std::vector<i2c_msg> batch(r.count, r.message);
        i2c_rdwr_ioctl_data data{batch.data(), r.count};
        errno = 0;
        EXPECT_EQ(kernel().ioctl(fd, I2C_RDWR, &data), -1);
        EXPECT_EQ(errno, r.error);
    }
}

TEST_F(I2CTest, InjectedFaultsReachTheDriver)
{
    struct Case {
        Fault fault;
        int error;
    };
    for (const Case c : {Case{Fault::ioError, EIO}, Case{Fault::timeout, ETIMEDOUT}}) {
        utils::IOI2CFile file("/dev/i2c-2", 0x50, O_RDWR);
        board->faults().inject("/dev/i2c-2", c.fault);
        uint8_t value = 0;
        EXPECT_EQ(file.readRegister(0, value), -c.error);
        const uint8_t data[] = {0, 1};
        EXPECT_THAT([&] { file.send(data); },
                    testing::ThrowsMessage<utils::IOError>(testing::HasSubstr("0x50 on /dev/i2c-2")));
        board->faults().clear("/dev/i2c-2");
        EXPECT_EQ(file.readRegister(0, value), 0);
    }

    board->faults().inject("/dev/i2c-4", Fault::openFails);
    EXPECT_THROW(utils::IOI2CFile("/dev/i2c-4", 0x50), utils::IOError);
    EXPECT_THROW(utils::IOI2CFile("/dev/i2c-9", 0x50), utils::IOError);
}

TEST_F(I2CTest, ModelsJoinAnExistingBus)
{
    I2CBus& bus = attachI2CBus(*board, "/dev/i2c-2");
    EXPECT_EQ(&bus, &attachI2CBus(*board, "/dev/i2c-2"));
    EXPECT_NE(bus.deviceAt(0x50), nullptr); // the general devices stay

    auto device = std::make_shared<RecordingDevice>();
    attachI2CBus(*board, "/dev/i2c-7").addDevice(0x42, device);
    utils::IOI2CFile file("/dev/i2c-7", 0x42);
    uint8_t value = 0;
    EXPECT_EQ(file.readRegister(0x07, value), 0);
    ASSERT_EQ(device->writes.size(), 1u);
    EXPECT_EQ(device->writes[0], std::vector<uint8_t>{0x07});
}

// 16-bit RTU registers travel most significant byte first.
TEST_F(I2CTest, RTUHalfwordRegistersAreBigEndian)
{
    auto device = std::make_shared<RecordingDevice>();
    attachI2CBus(*board, "/dev/i2c-1").addDevice(66, device);
    utils::IOI2CRTU rtu("/dev/i2c-1", 66, O_RDWR);

    rtu.writeRTUHalfwordRegister(16, 0x1234);
    ASSERT_EQ(device->writes.size(), 1u);
    EXPECT_EQ(device->writes[0], (std::vector<uint8_t>{16, 0x12, 0x34}));

    device->answer = {0xab, 0xcd};
    EXPECT_EQ(rtu.readRTUHalfwordRegister(19), 0xabcd);
    EXPECT_EQ(device->writes.back(), std::vector<uint8_t>{19});

    utils::IOI2CRTU absent("/dev/i2c-1", 67, O_RDWR);
    EXPECT_THAT([&] { absent.readRTUHalfwordRegister(14); },
                testing::ThrowsMessage<utils::IOError>(testing::HasSubstr("RTU register 14")));
}

} // namespace
