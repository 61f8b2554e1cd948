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

#include <algorithm>
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

// Raw I2C_SMBUS records as any i2c-dev client builds them, against the EEPROM (0x50) and the
// temperature sensor (0x48) of /dev/i2c-3. The bus answers like an SMBus-only adapter.
TEST_F(I2CTest, SMBusTransfersAsI2CDevAnswersThem)
{
    int fd = openBus("/dev/i2c-3");
    unsigned long functions = 0;
    ASSERT_EQ(kernel().ioctl(fd, I2C_FUNCS, &functions), 0);
    // quick, byte, byte data, word data, I2C block; no plain I2C, no SMBus block data.
    EXPECT_EQ(functions, 0x0C7F0000UL);

    struct Step {
        const char* what;
        uint8_t address;
        uint8_t readWrite; // 1 read, 0 write
        uint8_t command;
        uint32_t size; // 0 quick, 1 byte, 2 byte data, 3 word data, 8 I2C block
        std::vector<uint8_t> in; // the data union's first bytes before the call
        int error;
        std::vector<uint8_t> out; // and after it
    };
    const Step steps[] = {
        {"nothing selected answers", 0x00, 1, 0x00, 2, {}, ENXIO, {}},
        {"quick write probes", 0x50, 0, 0x00, 0, {}, 0, {}},
        {"quick write to nobody", 0x51, 0, 0x00, 0, {}, ENXIO, {}},
        {"byte data read", 0x50, 1, 0x01, 2, {}, 0, {'5'}},
        {"byte data write", 0x50, 0, 0x20, 2, {0x5a}, 0, {0x5a}},
        {"byte read follows the pointer", 0x50, 1, 0x00, 1, {}, 0, {0xff}},
        {"byte write sets the pointer", 0x50, 0, 0x20, 1, {}, 0, {}},
        {"byte read from it", 0x50, 1, 0x00, 1, {}, 0, {0x5a}},
        {"word data is low byte first", 0x50, 1, 0x00, 3, {}, 0, {'K', '5'}},
        {"word data write", 0x50, 0, 0x30, 3, {0x34, 0x12}, 0, {0x34, 0x12}},
        {"read back as two bytes", 0x50, 1, 0x30, 8, {2}, 0, {2, 0x34, 0x12}},
        {"I2C block write", 0x50, 0, 0x40, 8, {3, 'a', 'b', 'c'}, 0, {3, 'a', 'b', 'c'}},
        {"I2C block read", 0x50, 1, 0x3f, 8, {4}, 0, {4, 0xff, 'a', 'b', 'c'}},
        {"I2C block over 32 bytes", 0x50, 1, 0x00, 8, {33}, EINVAL, {33}},
        {"read-only register", 0x48, 0, 0x00, 2, {7}, EIO, {7}},
        {"identifier", 0x48, 1, 0x0f, 2, {}, 0, {0xa5}},
        {"SMBus block data", 0x50, 1, 0x00, 5, {}, EOPNOTSUPP, {}},
        {"unknown size", 0x50, 1, 0x00, 9, {}, EINVAL, {}},
        {"direction neither read nor write", 0x50, 2, 0x00, 2, {}, EINVAL, {}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        ASSERT_EQ(kernel().ioctl(fd, I2C_SLAVE, reinterpret_cast<void*>(uintptr_t{s.address})), 0);
        i2c_smbus_data data{};
        std::copy(s.in.begin(), s.in.end(), data.block);
        i2c_smbus_ioctl_data request{s.readWrite, s.command, s.size, &data};
        errno = 0;
        EXPECT_EQ(kernel().ioctl(fd, I2C_SMBUS, &request), s.error ? -1 : 0);
        EXPECT_EQ(errno, s.error);
        EXPECT_EQ(std::vector<uint8_t>(data.block, data.block + s.out.size()), s.out);
    }

    // Transfers that need data refuse a missing buffer; the I2C-only ways are not there.
    i2c_smbus_ioctl_data noData{1, 0x00, 2, nullptr};
    EXPECT_EQ(kernel().ioctl(fd, I2C_SMBUS, &noData), -1);
    EXPECT_EQ(errno, EINVAL);
    uint8_t byte = 0;
    EXPECT_EQ(kernel().read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    i2c_msg message{0x50, I2C_M_RD, 1, &byte};
    i2c_rdwr_ioctl_data transfer{&message, 1};
    EXPECT_EQ(kernel().ioctl(fd, I2C_RDWR, &transfer), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);

    // The selected address belongs to this open file only; 7-bit addresses only.
    int other = openBus("/dev/i2c-3");
    i2c_smbus_ioctl_data quick{0, 0x00, 0, nullptr};
    EXPECT_EQ(kernel().ioctl(other, I2C_SMBUS, &quick), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(kernel().ioctl(other, I2C_SLAVE, reinterpret_cast<void*>(0x80UL)), -1);
    EXPECT_EQ(errno, EINVAL);
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
        EXPECT_THAT([&] { file.writeWord(0, 1); },
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

// 16-bit RTU registers are SMBus word data: low byte first on the wire.
TEST_F(I2CTest, RTUHalfwordRegistersTravelLowByteFirst)
{
    auto device = std::make_shared<RecordingDevice>();
    attachI2CBus(*board, "/dev/i2c-1").addDevice(66, device);
    utils::IOI2CRTU rtu("/dev/i2c-1", 66, O_RDWR);

    rtu.writeRTUHalfwordRegister(16, 0x1234);
    ASSERT_EQ(device->writes.size(), 1u);
    EXPECT_EQ(device->writes[0], (std::vector<uint8_t>{16, 0x34, 0x12}));

    device->answer = {0xcd, 0xab};
    EXPECT_EQ(rtu.readRTUHalfwordRegister(19), 0xabcd);
    EXPECT_EQ(device->writes.back(), std::vector<uint8_t>{19});

    utils::IOI2CRTU absent("/dev/i2c-1", 67, O_RDWR);
    EXPECT_THAT([&] { absent.readRTUHalfwordRegister(14); },
                testing::ThrowsMessage<utils::IOError>(testing::HasSubstr("RTU register 14")));
}

// A bus whose adapter knows byte transfers only, as some SMBus controllers do.
class ByteOnlyBus final : public VirtualDevice {
public:
    std::unique_ptr<VirtualFile> open(int) override
    {
        struct File final : VirtualFile {
            int ioctl(unsigned long request, void* argument) override
            {
                if (request == I2C_FUNCS)
                    *static_cast<unsigned long*>(argument) = I2C_FUNC_SMBUS_BYTE_DATA;
                return request == I2C_SLAVE || request == I2C_FUNCS ? 0 : fail(EOPNOTSUPP);
            }
        };
        return std::make_unique<File>();
    }
};

TEST_F(I2CTest, ATransferTheBusLacksIsNamed)
{
    board->attach("/dev/i2c-8", std::make_shared<ByteOnlyBus>());
    utils::IOI2CFile file("/dev/i2c-8", 0x20);
    const auto fails = [](const char* text) {
        return testing::ThrowsMessage<utils::IOError>(testing::StrEq(
            std::string("I2C transfer to address 0x20 on /dev/i2c-8 failed: ") + text));
    };
    EXPECT_THAT([&] { file.readWord(1); }, fails("the bus has no SMBus word-data reads"));
    const uint8_t bytes[] = {1, 2};
    EXPECT_THAT([&] { file.writeBlock(1, bytes); }, fails("the bus has no SMBus I2C-block writes"));
}

} // namespace
