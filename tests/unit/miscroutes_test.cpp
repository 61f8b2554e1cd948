#include "client/connection.h"
#include "support/board.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/syslogcapture.h"
#include "support/tempdir.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2cfile.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/iosmartsensor.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/gpiochip.h"
#include "utils/platform/emulated/smartsensormodel.h"
#include "utils/platform/emulated/textfile.h"
#include "utils/platform/filedescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <syslog.h>
#include <thread>

namespace {

using k52test::expectExchanges;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;
using k52test::throwsWith;
using utils::IOSmartSensor;
using namespace utils::platform;
using namespace utils::platform::emulated;

// --- smart sensor -------------------------------------------------------------------------

TEST(SmartSensorRoutes, GyroIsConfiguredOrSwitchedOff)
{
    k52test::RouterHarness h;
    // The rate as the sensor runs it: requests round up to a supported rate.
    const struct { const char* command; float rateHz; uint32_t latencyMs; } cases[] = {
        {"SmartSensorSetGyro 1 500 100", 800.0f, 100},
        {"SmartSensorSetGyro 1 25 0", 25.0f, 0},
        {"SmartSensorSetGyro 0 500 100", 0.0f, 10}, // switching off ignores the other two values
        {"SmartSensorSetGyro 7 100 -3", 100.0f, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        expectExchanges(h, {{c.command, "OK", "SmartSensorSetGyro: Gyro configuration set."}});
        // The virtual-sensor register straight off the bus: id, f32 rate, u32 latency, little-endian.
        uint8_t bytes[9] = {};
        utils::IOI2CFile("/dev/i2c-5", 40).readBlock(0x30, bytes);
        EXPECT_EQ(bytes[0], 37);
        EXPECT_EQ(std::bit_cast<float>(k52test::word(bytes, 1)), c.rateHz);
        EXPECT_EQ(k52test::word(bytes, 5), c.latencyMs);
    }
    auto [status, message] = h.run("SmartSensorSetGyro 1 2000 10");
    EXPECT_EQ(status, "ErrorRuntimeError") << "the sensor refuses a rate beyond its fastest";
    EXPECT_THAT(message, StartsWith("SmartSensorSetGyro: "));
    h.board().faults().inject("/dev/i2c-5", Fault::ioError);
    auto [ioStatus, ioMessage] = h.run("SmartSensorSetGyro 1 100 10");
    EXPECT_EQ(ioStatus, "ErrorIOException");
    EXPECT_THAT(ioMessage, testing::AllOf(StartsWith("SmartSensorSetGyro: "), HasSubstr("/dev/i2c-5")));
}

// --- raw I2C --------------------------------------------------------------------------------

TEST(I2CRoutes, RegisterAccessAndBusFailures)
{
    k52test::RouterHarness h;
    const char* failed = "Failed: Failed to set Address.";
    expectExchanges(h, {
        // The EEPROM at 80 holds "K52 I2C-<bus>": offset 1 is '5' (53).
        {"GetI2C 3 80 1 extra", "OK", "register 1 = 53"},
        {"SetI2C 4 80 16 171", "OK", "register 16 = 171"},
        {"GetI2C 3 80 16", "OK", "register 16 = 255"}, // another bus, still erased
        {"GetI2C 3 81 1", "Error", failed},     // nobody at that address
        {"GetI2C 3 336 1", "Error", failed},    // 336 would wrap onto 80 as a byte
        {"SetI2C 4 80 272 7", "Error", failed}, // 272 would wrap onto offset 16
        {"SetI2C 4 80 17 -1", "Error", failed},
        {"GetI2C 4 80 16", "OK", "register 16 = 171"},
        {"GetI2C 4 80 17", "OK", "register 17 = 255"},
    });
    auto [status, message] = h.run("GetI2C 9 80 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, testing::AllOf(StartsWith("Failed"), HasSubstr("Unable to open '/dev/i2c-9'")));
    h.board().faults().inject("/dev/i2c-3", Fault::ioError);
    expectExchanges(h, {{"SetI2C 3 80 1 1", "Error", failed}, {"GetI2C 2 80 1", "OK", "register 1 = 53"}});
}

// Raw I2C_SMBUS records as any i2c-dev client builds them, against the EEPROM (0x50) of
// /dev/i2c-3. The bus answers like an SMBus-only adapter. Register contents through the driver
// are checked by the I2C routes' test.
TEST(I2CDevice, SMBusTransfersAsI2CDevAnswersThem)
{
    k52test::RouterHarness h;
    utils::FileDescriptor fd(kernel().open("/dev/i2c-3", O_RDWR));
    unsigned long functions = 0;
    ASSERT_EQ(kernel().ioctl(fd.get(), I2C_FUNCS, &functions), 0);
    // quick, byte, byte data, word data, I2C block; no plain I2C, no SMBus block data.
    EXPECT_EQ(functions, 0x0C7F0000UL);

    // readWrite: 1 read, 0 write; size: 0 quick, 1 byte, 2 byte data, 3 word data, 5 block, 8 I2C
    // block; in and out: the data union's first bytes before and after the call.
    struct Step { uint8_t address; uint8_t readWrite; uint8_t command; uint32_t size; std::vector<uint8_t> in; int error; std::vector<uint8_t> out; };
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
                return request == I2C_SLAVE || request == I2C_FUNCS ? 0 : utils::platform::emulated::fail(EOPNOTSUPP);
            }
        };
        return std::make_unique<File>();
    }
};

TEST(I2CDevice, FailuresNameTheAddressAndTheBus)
{
    k52test::RouterHarness h;
    for (const auto& [fault, error] : {std::pair{Fault::ioError, EIO}, std::pair{Fault::timeout, ETIMEDOUT}}) {
        utils::IOI2CFile file("/dev/i2c-2", 0x50, O_RDWR);
        h.board().faults().inject("/dev/i2c-2", fault);
        uint8_t value = 0;
        EXPECT_EQ(file.readRegister(0, value), -error);
        EXPECT_THAT([&] { file.writeWord(0, 1); }, k52test::throwsWith<utils::IOError>("0x50 on /dev/i2c-2"));
        h.board().faults().clear("/dev/i2c-2");
    }
    // The RTU's registers (their bytes are the RTU routes' tests') name the register.
    utils::IOI2CRTU absent("/dev/i2c-2", 67, O_RDWR);
    EXPECT_THAT([&] { absent.readRTUHalfwordRegister(14); }, k52test::throwsWith<utils::IOError>("RTU register 14"));

    h.board().attach("/dev/i2c-8", std::make_shared<ByteOnlyBus>());
    utils::IOI2CFile file("/dev/i2c-8", 0x20);
    const std::string failed = "I2C transfer to address 0x20 on /dev/i2c-8 failed: the bus has no SMBus ";
    EXPECT_THAT([&] { file.readWord(1); }, k52test::throwsWith<utils::IOError>(failed + "word-data reads"));
    const uint8_t bytes[] = {1, 2};
    EXPECT_THAT([&] { file.writeBlock(1, bytes); }, k52test::throwsWith<utils::IOError>(failed + "I2C-block writes"));
}

// --- CPU information ------------------------------------------------------------------------

// Each command reads the file afresh, so a changed file shows in the next reply.
TEST(CpuInfoRoutes, ReportTheFileAsItIsNowOrItsFailure)
{
    k52test::RouterHarness h;
    auto file = std::dynamic_pointer_cast<TextFile>(h.board().device("/proc/cpuinfo"));
    ASSERT_NE(file, nullptr);
    expectExchanges(h, {{"GetCPUInfoChipID", "OK", "GetCPUInfoChipID:  Serial: 00000000e52a0b1c"},
                        {"GetCPUInfoHardware extra words", "OK", "GetCPUInfoHardware: Hardware : K52 emulated board"}});
    file->setContent("processor\t: 0\n");
    expectExchanges(h, {{"GetCPUInfoChipID", "OK", "GetCPUInfoChipID:  Serial: unknown"},
                        {"GetCPUInfoHardware", "OK", "GetCPUInfoHardware: Hardware : unknown"}});
    for (Fault fault : {Fault::openFails, Fault::ioError}) {
        h.board().faults().inject("/proc/cpuinfo", fault);
        for (const std::string route : {"GetCPUInfoChipID", "GetCPUInfoHardware"}) {
            auto [status, message] = h.run(route);
            EXPECT_EQ(status, "ErrorIOException") << route;
            EXPECT_THAT(message, testing::AllOf(StartsWith(route + ": "), HasSubstr("/proc/cpuinfo")));
        }
    }
}

// --- button ---------------------------------------------------------------------------------

TEST(ButtonRoute, EdgesBecomeColouredNoticesInOrderUntilDisabled)
{
    k52test::RouterHarness h;
    auto& chip = dynamic_cast<GPIOChip&>(*h.board().device(GPIOChip::path));
    EXPECT_THROW(h.run("MonitorButton on"), utils::UtilsRuntimeError);
    h.board().faults().inject(GPIOChip::path, Fault::openFails);
    auto [status, message] = h.run("MonitorButton 1");
    EXPECT_EQ(status, "ErrorIOException");
    EXPECT_THAT(message, StartsWith("Failed"));
    h.board().faults().clear(GPIOChip::path);

    k52test::SyslogCapture capture;
    // A second enable replaces the callbacks: still one notice per edge.
    expectExchanges(h, {{"MonitorButton 1", "OK", "button monitor enabled."},
                        {"MonitorButton 1", "OK", "button monitor enabled."}});
    chip.press();
    std::this_thread::sleep_for(200ms); // an edge with nobody to tell breaks nothing
    k52client::ControlClient client("127.0.0.1", h.config.controlPort());
    h.resources->controlSocket().acceptConnection();
    chip.release();
    chip.press();
    for (auto [text, color] : {std::pair{"Button : Falling Edge Detected.", 0x3B65E3u},
                               {"Button : Rising Edge Detected.", 0xFF9D00u}}) {
        k52client::Notice notice = client.readNotice(2000ms);
        EXPECT_EQ(notice.message, text);
        EXPECT_EQ(notice.color, color);
    }
    EXPECT_THROW(client.readNotice(300ms), std::runtime_error) << "no duplicate notices";

    std::vector<std::pair<int, std::string>> edges;
    for (const auto& record : capture.records())
        if (record.text.find("Edge Detected !") != std::string::npos)
            edges.emplace_back(LOG_PRI(record.priority), record.text.substr(record.text.rfind("] ") + 2));
    const std::pair<int, std::string> rising{LOG_WARNING, "Button : Rising Edge Detected !\n"};
    EXPECT_EQ(edges, (decltype(edges){rising, {LOG_INFO, "Button : Falling Edge Detected !\n"}, rising}));

    expectExchanges(h, {{"MonitorButton 0", "OK", "button monitor disabled."}});
    chip.release();
    EXPECT_THROW(client.readNotice(300ms), std::runtime_error) << "disabled";
}

std::string le32(uint32_t v)
{
    return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

// An image laid out like the shipped one, built here with zlib's CRC.
std::string firmwareImage(const std::string& payload)
{
    uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(payload.data()), payload.size());
    return "K52SSFW1" + le32(payload.size()) + le32(crc) + payload;
}

// One sensor from reset to running: damaged images refused, the shipped one taken, each step
// reported.
TEST(SmartSensor, RefusesBadFirmwareThenRunsTheShippedOne)
{
    k52test::InstalledBoard board;
    attachSmartSensor(*board);
    k52test::TempDir dir("k52smartsensor");
    const std::string shipped = std::string(K52_SOURCE_DIR) + "/etc/firmware/smartsensor.bin";
    std::vector<std::string> messages;
    IOSmartSensor sensor("/dev/i2c-5", 40, 2, 17, 100, shipped,
                         [&](const std::string& m) { messages.push_back(m); });
    // Registers read straight off the bus, bypassing the driver.
    auto rawRead = [](uint8_t reg, size_t length) {
        std::string bytes(length, '\0');
        utils::IOI2CFile("/dev/i2c-5", 40).readBlock(reg, {reinterpret_cast<uint8_t*>(bytes.data()), length});
        return bytes;
    };
    EXPECT_THAT([&] { sensor.enableVirtualSensor(37, 100.0f, 10); },
                throwsWith<utils::UtilsRuntimeError>("not running"));

    std::string good = firmwareImage(std::string(1000, '\x5a'));
    std::string flipped = good;
    flipped[500] ^= 0x01;
    std::string badMagic = good;
    badMagic[3] = 'X';
    struct Case { const char* name; std::string image; const char* text; };
    const Case cases[] = {
        {"empty", "", "too short"},
        {"bad magic", badMagic, "bad magic"},
        {"truncated", good.substr(0, good.size() - 1), "declares 1000 payload bytes but holds 999"},
        {"corrupt payload", flipped, "is corrupt"},
        {"no payload", firmwareImage(""), "payload of 0 bytes"},
        {"larger than the sensor's RAM", firmwareImage(std::string(65537, '\x01')),
         "payload of 65537 bytes"},
    };
    sensor.softReset();
    for (const auto& c : cases) {
        std::string path = dir.writeFile(std::string(c.name) + ".bin", c.image);
        EXPECT_THAT([&] { sensor.uploadFirmwareToRam(path); }, throwsWith<utils::UtilsRuntimeError>(c.text))
            << c.name;
    }
    EXPECT_THAT([&] { sensor.uploadFirmwareToRam(dir.file("missing.bin")); },
                throwsWith<utils::IOError>("No such file or directory"));
    EXPECT_THAT([&] { sensor.boot(); }, throwsWith<utils::UtilsRuntimeError>("no valid firmware to boot"));
    sensor.uploadFirmwareToRam(dir.writeFile("good.bin", good)); // the undamaged image is taken

    messages.clear();
    sensor.softReset();
    sensor.registerCallBacks();
    sensor.uploadFirmwareToRam(shipped);
    sensor.boot();
    std::string payload = k52test::fileBytes(shipped).substr(16);
    uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(payload.data()), payload.size());
    EXPECT_EQ(rawRead(0x10, 4), le32(payload.size()));
    EXPECT_EQ(rawRead(0x14, 4), le32(crc));
    EXPECT_EQ(rawRead(0x04, 1), std::string(1, '\x03')) << "data-ready and error interrupts";
    // Rates round up to one the sensor runs; the register bytes are the gyro route's test's.
    sensor.enableVirtualSensor(37, 0.5f, 10);
    sensor.enableVirtualSensor(37, 0.0f, 10);
    EXPECT_EQ(messages, (std::vector<std::string>{
                            "SmartSensor: soft reset done, bootloader ready.",
                            "SmartSensor: data-ready and error interrupts routed to GPIO 17.",
                            "SmartSensor: uploaded " + std::to_string(payload.size()) +
                                " bytes of firmware '" + shipped + "' (CRC " + k52test::hex(crc) + ").",
                            "SmartSensor: firmware running.",
                            "SmartSensor: virtual sensor 37 at 25 Hz (asked 0.5), latency 10 ms.",
                            "SmartSensor: virtual sensor 37 disabled.",
                        }));
    EXPECT_THAT([&] { sensor.enableVirtualSensor(36, 100.0f, 10); },
                throwsWith<utils::UtilsRuntimeError>("refused virtual sensor 36: unknown virtual sensor."));
    EXPECT_THAT([&] { sensor.enableVirtualSensor(37, -1.0f, 10); },
                throwsWith<utils::UtilsRuntimeError>("invalid rate -1"));
    // Only a sensor in its bootloader takes firmware, and a reset drops the running one.
    EXPECT_THAT([&] { sensor.uploadFirmwareToRam(shipped); },
                throwsWith<utils::UtilsRuntimeError>("not in its bootloader"));
    sensor.softReset();
    EXPECT_FALSE(sensor.isRunning());
}

} // namespace
