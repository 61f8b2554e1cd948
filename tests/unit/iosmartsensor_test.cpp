#include "support/bytes.h"
#include "support/tempdir.h"
#include "utils/base/exceptions.h"
#include "utils/io/iosmartsensor.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/smartsensormodel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <thread>

namespace {

using utils::IOSmartSensor;
using namespace utils::platform;
using namespace utils::platform::emulated;
using namespace std::chrono_literals;

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
        board_ = std::make_shared<EmulatedBoard>();
        attachSmartSensor(*board_);
        installKernel(board_);
    }
    void TearDown() override { installKernel(nullptr); }

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
        utils::IOI2CFile device(busPath, 40);
        std::string bytes(length, '\0');
        device.readBlock(reg, {reinterpret_cast<uint8_t*>(bytes.data()), length});
        return bytes;
    }

    template <typename Exception, typename Call>
    void expectThrow(Call call, const std::string& text)
    {
        EXPECT_THAT(call, testing::ThrowsMessage<Exception>(testing::HasSubstr(text)));
    }

    std::shared_ptr<EmulatedBoard> board_;
    std::vector<std::string> messages_;
    k52test::TempDir dir_{"k52smartsensor"};
};

TEST_F(SmartSensorTest, BringsUpTheShippedFirmwareAndReportsEachStep)
{
    auto sensor = makeSensor();
    bringUp(sensor);
    EXPECT_TRUE(sensor.isRunning());

    std::string image = k52test::fileBytes(shippedFirmware);
    std::string payload = image.substr(16);
    uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(payload.data()), payload.size());
    EXPECT_EQ(rawRead(0x10, 4), le32(payload.size()));
    EXPECT_EQ(rawRead(0x14, 4), le32(crc));
    EXPECT_EQ(rawRead(0x1C, 4), le32(payload.size())) << "every byte arrived";
    EXPECT_EQ(rawRead(0x04, 1), std::string(1, '\x03')) << "data-ready and error interrupts";

    ASSERT_EQ(messages_.size(), 4u);
    EXPECT_EQ(messages_[0], "SmartSensor: soft reset done, bootloader ready.");
    EXPECT_EQ(messages_[1], "SmartSensor: data-ready and error interrupts routed to GPIO 17.");
    EXPECT_NE(messages_[2].find("uploaded " + std::to_string(payload.size()) + " bytes"),
              std::string::npos)
        << messages_[2];
    EXPECT_EQ(messages_[3], "SmartSensor: firmware running.");
}

TEST_F(SmartSensorTest, BadFirmwareFilesAreRejectedBeforeTheSensorRunsThem)
{
    std::string good = firmwareImage(std::string(1000, '\x5a'));
    std::string flipped = good;
    flipped[500] ^= 0x01;
    std::string badMagic = good;
    badMagic[3] = 'X';
    struct Case {
        const char* name;
        std::string image;
        const char* text;
    };
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
        expectThrow<utils::UtilsRuntimeError>([&] { sensor.uploadFirmwareToRam(path); }, c.text);
    }
    expectThrow<utils::IOError>([&] { sensor.uploadFirmwareToRam(dir_.file("missing.bin")); },
                                "No such file or directory");
    expectThrow<utils::UtilsRuntimeError>([&] { sensor.boot(); }, "no valid firmware to boot");
    EXPECT_FALSE(sensor.isRunning());

    // A valid image of any size goes across in chunks, the last one short.
    sensor.uploadFirmwareToRam(dir_.writeFile("good.bin", good));
    sensor.boot();
    EXPECT_TRUE(sensor.isRunning());
}

TEST_F(SmartSensorTest, FirmwareGoesOnlyToASensorInItsBootloader)
{
    auto sensor = makeSensor();
    bringUp(sensor);
    expectThrow<utils::UtilsRuntimeError>([&] { sensor.uploadFirmwareToRam(shippedFirmware); },
                                          "not in its bootloader");
    sensor.softReset();
    EXPECT_FALSE(sensor.isRunning()) << "a reset drops the running firmware";
    expectThrow<utils::UtilsRuntimeError>([&] { sensor.boot(); }, "no valid firmware");
}

TEST_F(SmartSensorTest, VirtualSensorRequests)
{
    auto sensor = makeSensor();
    expectThrow<utils::UtilsRuntimeError>([&] { sensor.enableVirtualSensor(37, 100.0f, 10); },
                                          "not running");
    bringUp(sensor);
    struct Case {
        uint8_t id;
        float rate;
        uint32_t latency;
        float actual; // negative: refused
        const char* text;
    };
    const Case cases[] = {
        {37, 500.0f, 100, 800.0f, "virtual sensor 37 at 800 Hz (asked 500), latency 100 ms."},
        {37, 25.0f, 0, 25.0f, "virtual sensor 37 at 25 Hz (asked 25), latency 0 ms."},
        {37, 0.5f, 10, 25.0f, "at 25 Hz (asked 0.5)"},
        {37, 1000.0f, 10000, 1600.0f, "at 1600 Hz (asked 1000), latency 10000 ms."},
        {37, 0.0f, 10, 0.0f, "virtual sensor 37 disabled."},
        {36, 100.0f, 10, -1, "refused virtual sensor 36: unknown virtual sensor."},
        {37, 2000.0f, 10, -1, "refused virtual sensor 37: rate out of range."},
        {37, -1.0f, 10, -1, "invalid rate -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        messages_.clear();
        if (c.actual < 0) {
            expectThrow<utils::UtilsRuntimeError>(
                [&] { sensor.enableVirtualSensor(c.id, c.rate, c.latency); }, c.text);
            continue;
        }
        sensor.enableVirtualSensor(c.id, c.rate, c.latency);
        ASSERT_EQ(messages_.size(), 1u);
        EXPECT_NE(messages_[0].find(c.text), std::string::npos) << messages_[0];
        // id, rate as IEEE-754 single, latency: all little-endian.
        float rate = c.actual;
        uint32_t bits;
        std::memcpy(&bits, &rate, sizeof bits);
        EXPECT_EQ(rawRead(0x30, 9), std::string(1, char(37)) + le32(bits) + le32(c.latency));
    }
}

TEST_F(SmartSensorTest, TheGyroscopeProducesSwayingSamplesWhileEnabled)
{
    auto sensor = makeSensor();
    bringUp(sensor);
    EXPECT_EQ(sensor.readGyro().samples, 0u) << "disabled after boot";
    sensor.enableVirtualSensor(37, 200.0f, 10);
    std::this_thread::sleep_for(50ms);
    auto first = sensor.readGyro();
    std::this_thread::sleep_for(50ms);
    auto second = sensor.readGyro();
    EXPECT_GE(first.samples, 5u);
    EXPECT_GE(second.samples, first.samples + 5);
    for (const auto& s : {first, second}) {
        EXPECT_LE(std::abs(s.x), 2.5f);
        EXPECT_LE(std::abs(s.y), 2.0f);
        EXPECT_LE(std::abs(s.z), 1.0f);
    }
    EXPECT_FALSE(first.x == second.x && first.y == second.y && first.z == second.z);
    sensor.enableVirtualSensor(37, 0.0f, 10);
    EXPECT_EQ(sensor.readGyro().samples, 0u);
}

TEST_F(SmartSensorTest, BusFaultsAndAMissingSensorBecomeIOErrors)
{
    struct Case {
        const char* name;
        Fault fault;
        uint8_t address;
        const char* text;
    };
    const Case cases[] = {
        {"bus missing", Fault::openFails, 40, "Unable to open '/dev/i2c-5'"},
        {"bus error", Fault::ioError, 40, "Input/output error"},
        {"bus stuck", Fault::timeout, 40, "timed out"},
        {"nobody at the address", Fault::none, 41, "No such device or address"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        board_->faults().inject(busPath, c.fault);
        auto sensor = makeSensor(c.address);
        expectThrow<utils::IOError>([&] { sensor.softReset(); }, c.text);
        board_->faults().clear(busPath);
    }
}

} // namespace
