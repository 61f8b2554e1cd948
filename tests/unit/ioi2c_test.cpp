#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/filedescriptor.h"
#include "utils/io/ioi2cfile.h"
#include "utils/io/ioi2crtu.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/i2cbus.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace {

using namespace utils::platform::emulated;
using k52test::throwsWith;
using utils::platform::kernel;

class I2CTest : public ::testing::Test {
protected:
    void SetUp() override { attachI2CBuses(*board); }
    k52test::InstalledBoard board;
};

// Raw I2C_SMBUS records as any i2c-dev client builds them, against the EEPROM (0x50) of
// /dev/i2c-3. The bus answers like an SMBus-only adapter. Register contents through the driver
// are checked by the I2C routes' test.
TEST_F(I2CTest, SMBusTransfersAsI2CDevAnswersThem)
{
    utils::FileDescriptor fd(kernel().open("/dev/i2c-3", O_RDWR));
    unsigned long functions = 0;
    ASSERT_EQ(kernel().ioctl(fd.get(), I2C_FUNCS, &functions), 0);
    // quick, byte, byte data, word data, I2C block; no plain I2C, no SMBus block data.
    EXPECT_EQ(functions, 0x0C7F0000UL);

    struct Step {
        uint8_t address;
        uint8_t readWrite; // 1 read, 0 write
        uint8_t command;
        uint32_t size; // 0 quick, 1 byte, 2 byte data, 3 word data, 5 block, 8 I2C block
        std::vector<uint8_t> in; // the data union's first bytes before the call
        int error;
        std::vector<uint8_t> out; // and after it
    };
    const Step steps[] = {
        {0x00, 1, 0x00, 2, {}, ENXIO, {}}, // nothing selected yet
        {0x50, 0, 0x00, 0, {}, 0, {}},     // a quick write probes
        {0x51, 0, 0x00, 0, {}, ENXIO, {}},
        {0x50, 0, 0x01, 1, {}, 0, {}}, // a byte write sets the pointer...
        {0x50, 1, 0x00, 1, {}, 0, {'5'}}, // ...that a byte read follows
        {0x50, 1, 0x00, 3, {}, 0, {'K', '5'}}, // word data: low byte first
        {0x50, 0, 0x30, 3, {0x34, 0x12}, 0, {0x34, 0x12}},
        {0x50, 0, 0x40, 8, {3, 'a', 'b', 'c'}, 0, {3, 'a', 'b', 'c'}},
        {0x50, 1, 0x3f, 8, {4}, 0, {4, 0xff, 'a', 'b', 'c'}},
        {0x50, 1, 0x00, 8, {33}, EINVAL, {33}}, // an I2C block holds 32 bytes at most
        {0x50, 1, 0x00, 5, {}, EOPNOTSUPP, {}},
        {0x50, 2, 0x00, 2, {}, EINVAL, {}}, // neither read nor write
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(&s - steps);
        ASSERT_EQ(kernel().ioctl(fd.get(), I2C_SLAVE, reinterpret_cast<void*>(uintptr_t{s.address})), 0);
        i2c_smbus_data data{};
        std::copy(s.in.begin(), s.in.end(), data.block);
        i2c_smbus_ioctl_data request{s.readWrite, s.command, s.size, &data};
        errno = 0;
        EXPECT_EQ(kernel().ioctl(fd.get(), I2C_SMBUS, &request), s.error ? -1 : 0);
        EXPECT_EQ(errno, s.error);
        EXPECT_EQ(std::vector<uint8_t>(data.block, data.block + s.out.size()), s.out);
    }

    // The selected address belongs to this open file only; 7-bit addresses only.
    utils::FileDescriptor other(kernel().open("/dev/i2c-3", O_RDWR));
    i2c_smbus_ioctl_data quick{0, 0x00, 0, nullptr};
    EXPECT_EQ(kernel().ioctl(other.get(), I2C_SMBUS, &quick), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(kernel().ioctl(other.get(), I2C_SLAVE, reinterpret_cast<void*>(0x80UL)), -1);
    EXPECT_EQ(errno, EINVAL);
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

TEST_F(I2CTest, FailuresNameTheAddressAndTheBus)
{
    for (const auto& [fault, error] : {std::pair{Fault::ioError, EIO}, std::pair{Fault::timeout, ETIMEDOUT}}) {
        utils::IOI2CFile file("/dev/i2c-2", 0x50, O_RDWR);
        board->faults().inject("/dev/i2c-2", fault);
        uint8_t value = 0;
        EXPECT_EQ(file.readRegister(0, value), -error);
        EXPECT_THAT([&] { file.writeWord(0, 1); }, throwsWith<utils::IOError>("0x50 on /dev/i2c-2"));
        board->faults().clear("/dev/i2c-2");
    }
    board->faults().inject("/dev/i2c-4", Fault::openFails);
    EXPECT_THROW(utils::IOI2CFile("/dev/i2c-4", 0x50), utils::IOError);
    // The RTU's registers (their bytes are the RTU routes' tests') name the register.
    utils::IOI2CRTU absent("/dev/i2c-2", 67, O_RDWR);
    EXPECT_THAT([&] { absent.readRTUHalfwordRegister(14); }, throwsWith<utils::IOError>("RTU register 14"));

    board->attach("/dev/i2c-8", std::make_shared<ByteOnlyBus>());
    utils::IOI2CFile file("/dev/i2c-8", 0x20);
    const std::string failed = "I2C transfer to address 0x20 on /dev/i2c-8 failed: the bus has no SMBus ";
    EXPECT_THAT([&] { file.readWord(1); }, throwsWith<utils::IOError>(failed + "word-data reads"));
    const uint8_t bytes[] = {1, 2};
    EXPECT_THAT([&] { file.writeBlock(1, bytes); }, throwsWith<utils::IOError>(failed + "I2C-block writes"));
}

} // namespace
