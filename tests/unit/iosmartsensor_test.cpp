#include "support/bytes.h"
#include "support/tempdir.h"
#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/iosmartsensor.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/smartsensormodel.h"

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

using k52test::throwsWith;
using utils::IOSmartSensor;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* busPath = "/dev/i2c-5";
const std::string shippedFirmware = std::string(K52_SOURCE_DIR) + "/etc/firmware/smartsensor.bin";

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

class SmartSensorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        attachSmartSensor(*board_);
    }

    IOSmartSensor makeSensor(uint8_t address = 40)
    {
        return IOSmartSensor(busPath, address, 2, 17, 100, shippedFirmware,
                             [this](const std::string& m) { messages_.push_back(m); });
    }
    void bringUp(IOSmartSensor& sensor)
    {
        sensor.softReset();
        sensor.registerCallBacks();
        sensor.uploadFirmwareToRam(shippedFirmware);
        sensor.boot();
    }
    // Registers read straight off the bus, bypassing the driver.
    std::string rawRead(uint8_t reg, size_t length)
    {
        std::string bytes(length, '\0');
        utils::IOI2CFile(busPath, 40).readBlock(reg, {reinterpret_cast<uint8_t*>(bytes.data()), length});
        return bytes;
    }

    k52test::InstalledBoard board_;
    std::vector<std::string> messages_;
    k52test::TempDir dir_{"k52smartsensor"};
};

TEST_F(SmartSensorTest, BringsUpTheShippedFirmwareAndReportsEachStep)
{
    auto sensor = makeSensor();
    bringUp(sensor);
    std::string payload = k52test::fileBytes(shippedFirmware).substr(16);
    uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(payload.data()), payload.size());
    EXPECT_EQ(rawRead(0x10, 4), le32(payload.size()));
    EXPECT_EQ(rawRead(0x14, 4), le32(crc));
    EXPECT_EQ(rawRead(0x04, 1), std::string(1, '\x03')) << "data-ready and error interrupts";
    EXPECT_EQ(messages_, (std::vector<std::string>{
                             "SmartSensor: soft reset done, bootloader ready.",
                             "SmartSensor: data-ready and error interrupts routed to GPIO 17.",
                             "SmartSensor: uploaded " + std::to_string(payload.size()) + " bytes of firmware '" +
                                 shippedFirmware + "' (CRC " + k52test::hex(crc) + ").",
                             "SmartSensor: firmware running.",
                         }));
}

TEST_F(SmartSensorTest, BadFirmwareFilesAreRejectedBeforeTheSensorRunsThem)
{
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
    auto sensor = makeSensor();
    sensor.softReset();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir_.writeFile(std::string(c.name) + ".bin", c.image);
        EXPECT_THAT([&] { sensor.uploadFirmwareToRam(path); }, throwsWith<utils::UtilsRuntimeError>(c.text));
    }
    EXPECT_THAT([&] { sensor.uploadFirmwareToRam(dir_.file("missing.bin")); },
                throwsWith<utils::IOError>("No such file or directory"));
    EXPECT_THAT([&] { sensor.boot(); }, throwsWith<utils::UtilsRuntimeError>("no valid firmware to boot"));

    // A valid image of any size goes across in chunks, the last one short; only a sensor in
    // its bootloader takes one, and a reset drops the running firmware.
    sensor.uploadFirmwareToRam(dir_.writeFile("good.bin", good));
    sensor.boot();
    EXPECT_TRUE(sensor.isRunning());
    EXPECT_THAT([&] { sensor.uploadFirmwareToRam(shippedFirmware); },
                throwsWith<utils::UtilsRuntimeError>("not in its bootloader"));
    sensor.softReset();
    EXPECT_FALSE(sensor.isRunning());
}

// Rates round up to one the sensor runs; the register bytes and a rate beyond the sensor's are
// the gyro route's test's.
TEST_F(SmartSensorTest, VirtualSensorRequests)
{
    auto sensor = makeSensor();
    EXPECT_THAT([&] { sensor.enableVirtualSensor(37, 100.0f, 10); },
                throwsWith<utils::UtilsRuntimeError>("not running"));
    bringUp(sensor);
    messages_.clear();
    sensor.enableVirtualSensor(37, 0.5f, 10);
    sensor.enableVirtualSensor(37, 0.0f, 10);
    EXPECT_EQ(messages_, (std::vector<std::string>{
                             "SmartSensor: virtual sensor 37 at 25 Hz (asked 0.5), latency 10 ms.",
                             "SmartSensor: virtual sensor 37 disabled.",
                         }));
    EXPECT_THAT([&] { sensor.enableVirtualSensor(36, 100.0f, 10); },
                throwsWith<utils::UtilsRuntimeError>("refused virtual sensor 36: unknown virtual sensor."));
    EXPECT_THAT([&] { sensor.enableVirtualSensor(37, -1.0f, 10); }, throwsWith<utils::UtilsRuntimeError>("invalid rate -1"));
}

TEST_F(SmartSensorTest, BusFaultsAndAMissingSensorBecomeIOErrors)
{
    // A bus error is the gyro route's test's.
    for (const auto& [fault, address, text] : {std::tuple{Fault::openFails, 40, "Unable to open '/dev/i2c-5'"},
                                               std::tuple{Fault::timeout, 40, "timed out"},
                                               std::tuple{Fault::none, 41, "No such device or address"}}) {
        SCOPED_TRACE(text);
        board_->faults().inject(busPath, fault);
        auto sensor = makeSensor(static_cast<uint8_t>(address));
        EXPECT_THAT([&] { sensor.softReset(); }, throwsWith<utils::IOError>(text));
        board_->faults().clear(busPath);
    }
}

} // namespace
