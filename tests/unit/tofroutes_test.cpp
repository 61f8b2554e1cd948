#include "support/board.h"
#include "support/bytes.h"
#include "support/routerharness.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/iotof.h"
#include "utils/platform/emulated/tofmodel.h"
#include "utils/platform/filedescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <thread>
#include <vector>

namespace {

using k52test::expectExchanges;
using k52test::throwsWith;
using utils::IOToF;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* tofPath = "/dev/k52tof";

// The sensor serialises its own access: holding every group must not stop the routes.
TEST(ToFRoutes, RepliesAndStateAcrossSettingsTakingNoGroupLock)
{
    k52test::RouterHarness h;
    std::vector<std::unique_lock<std::mutex>> held;
    for (uint32_t group = 0; group < 14; ++group)
        held.emplace_back(h.resources->getMutex(static_cast<k52app::K52ResourceGroups>(group)));
    // The matrix is one line: each distance right-aligned in four columns and a tab, every row
    // closed by "\t.:.\t", the whole closed by "\t\t".
    for (const auto& [resolution, side] : {std::pair{"ToFSetResolution 1", 8}, {"ToFSetResolution 0", 4}}) {
        ASSERT_EQ(h.run(resolution).first, "OK") << resolution;
        auto [status, matrix] = h.run("ToFGetDistanceMatrix");
        const std::string n = std::to_string(side);
        const std::string field = "(?: {3}[0-9]| {2}[0-9]{2}| [0-9]{3}|[0-9]{4})\\t";
        const std::string row = "(?:" + field + "){" + n + "}\\t\\.:\\.\\t";
        EXPECT_TRUE(std::regex_match(matrix, std::regex("(?:" + row + "){" + n + "}\\t\\t")))
            << resolution << ": " << status << " '" << matrix << "'";
    }
    const char* asleep = "ToF '/dev/k52tof' is asleep: set the power mode to WAKEUP.";
    expectExchanges(h, {
        {"ToFGetPowerMode", "OK", "Power mode: WAKEUP"},
        {"ToFGetRangingMode", "OK", "Ranging mode: CONTINUOUS"},

        // Frequency limits follow the resolution.
        {"ToFSetFrequency 60", "OK", "Frequency set successfully"},
        {"ToFSetFrequency 61", "Error", "Frequency out of range for 4x4 resolution"},
        {"ToFSetResolution 3", "OK", "Resolution set successfully to 8x8"}, // any index but 0
        {"ToFGetResolution", "OK", "Resolution: 8x8"},
        {"ToFSetFrequency 16", "Error", "Frequency out of range for 8x8 resolution"},
        {"ToFSetFrequency 15", "OK", "Frequency set successfully"},
        {"ToFSetResolution", "OK", "Resolution set successfully to 4x4"}, // default 0
        {"ToFSetFrequency", "OK", "Frequency set successfully"},          // default 1
        {"ToFGetFrequency", "OK", "Frequency: 1"},

        {"ToFSetRangingMode 3", "OK", "Ranging mode set successfully to AUTONOMOUS"},
        {"ToFGetRangingMode", "OK", "Ranging mode: AUTONOMOUS"},
        {"ToFSetRangingMode 2", "Error", nullptr}, // the sensor knows no mode 2
        {"ToFSetIntegrationTime 2500", "OK", "Integration time set successfully to 2500 microseconds"},
        {"ToFGetIntegrationTime", "OK", "Integration time: 2500 microseconds"},

        // A refused calibration value is not remembered.
        {"ToFSetReflectance 70", "OK", "Reflectance set successfully to 70"},
        {"ToFSetReflectance 101", "Error", nullptr},
        {"ToFGetReflectance", "OK", "Reflectance: 70"},
        // The register takes the low byte (20); clients read back the number they gave.
        {"ToFSetNumberOfSamples 276", "OK", "Number of samples set successfully to 276"},
        {"ToFGetNumberOfSamples", "OK", "Number of samples: 276"},
        {"ToFSetObjectDistance 600", "OK", "Object distance set successfully to 600"},
        {"ToFGetObjectDistance", "OK", "Object distance: 600"},
        {"ToFSetMeasurementCount 5", "OK", "Loop count set successfully to 5"},

        {"ToFSetPowerMode 0", "OK", "Power mode set successfully"},
        {"ToFGetPowerMode", "OK", "Power mode: SLEEP"},
        {"ToFGetDistanceMatrix", "Error", asleep},
        {"ToFPerformXTalkCalibration", "Error", asleep},
        {"ToFSetPowerMode 1", "OK", "Power mode set successfully"},
        {"ToFPerformXTalkCalibration", "OK", "Cross-talk calibration performed successfully"},

        // Numbers beyond the parser's range become the parser's own error text.
        {"ToFSetFrequency 99999999999", "Error", "stoi"},
        {"ToFSetObjectDistance 999999999999999999999", "Error", "stoul"},
    });
}

// A sensor that fails answers "Error" naming it; one that never came up says so on every route.
TEST(ToFRoutes, DeviceErrorsAndADeadSensor)
{
    k52test::RouterHarness h;
    k52test::RouterHarness dead(k52test::EmulatedConfig::Overrides{{"emulated-fault-open", tofPath}});
    h.board().faults().inject(tofPath, Fault::ioError);
    // What the driver keeps beside the sensor still answers, calibration settings the sensor
    // cannot report from their documented values; everything else reaches the sensor.
    const std::map<std::string, std::string> unaffected = {
        {"ToFGetStatus", "ToF is enabled"},
        {"ToFGetReflectance", "Reflectance: 50"},
        {"ToFGetNumberOfSamples", "Number of samples: 10"},
        {"ToFGetObjectDistance", "Object distance: 1000"},
        {"ToFSetMeasurementCount", "Loop count set successfully to 1"},
    };
    int tofRoutes = 0;
    for (const auto& [name, route] : h.router->routes()) {
        if (name.rfind("ToF", 0) != 0)
            continue;
        ++tofRoutes;
        expectExchanges(dead, {{name.c_str(), "Error", "ToF '/dev/k52tof' is not initialized."}});
        const auto [status, message] = h.run(name);
        const auto it = unaffected.find(name);
        EXPECT_EQ(status, it == unaffected.end() ? "Error" : "OK") << name;
        if (it == unaffected.end())
            EXPECT_THAT(message, testing::HasSubstr(tofPath)) << name;
        else
            EXPECT_EQ(message, it->second);
    }
    EXPECT_EQ(tofRoutes, 20);
}

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
    // data: in, and expected back when it worked
    struct Case { const char* what; unsigned long request; uint32_t address, length; std::vector<uint8_t> data; int error; };
    const Case cases[] = {
        {"identity", readRequest, 0x00, 4, {0x01, 0x00, 0x52, 0x4B}, 0},
        {"frequency", writeRequest, 0x10, 4, {7, 0, 0, 0}, 0},
        {"out of range", writeRequest, 0x10, 4, {61, 0, 0, 0}, ERANGE},
        {"read-only register", writeRequest, 0x00, 4, {1, 0, 0, 0}, EPERM},
        {"no such register", readRequest, 0x3c, 4, {0, 0, 0, 0}, EINVAL},
        {"three table bytes", writeRequest, 0x203, 3, {0xaa, 0xbb, 0xcc}, 0},
        {"read back inside the table", readRequest, 0x202, 5, {0, 0xaa, 0xbb, 0xcc, 0}, 0},
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

TEST_F(ToFTest, CalibrationAppliesTheFactoryOffsetsOnlyUnderTheirZlibCompatibleChecksum)
{
    auto offsets = rawRead(0x100, 128);
    EXPECT_EQ(rawRegister(0x180), crc32(0, offsets.data(), offsets.size()));
    auto& model = dynamic_cast<ToFModel&>(*board_->device(tofPath));
    model.corruptFactoryCalibration();
    EXPECT_THAT([&] { tof_.apply_calibration(); }, throwsWith<utils::UtilsRuntimeError>("corrupt"));
    EXPECT_EQ(status(0x8), 0u) << "nothing may be applied";
    model.corruptFactoryCalibration(); // the same bit flips back
    tof_.apply_calibration();
    EXPECT_EQ(status(0x8), 0x8u) << "STATUS.CALIBRATED";
    EXPECT_EQ(rawRead(0x200, 128), offsets);
}

TEST_F(ToFTest, ShotsRangeOnlyWhileAskedAndTimeOutCleanly)
{
    tof_.set_frequency(60);
    tof_.shot();
    EXPECT_EQ(tof_.results().size(), 16u);
    EXPECT_EQ(status(0x2), 0u) << "a single shot must stop ranging again";
    tof_.start_ranging();
    tof_.shot();
    EXPECT_EQ(status(0x2), 0x2u) << "ranging continues between shots";
    EXPECT_THAT([&] { tof_.xtalk_calibration(); }, throwsWith<utils::UtilsRuntimeError>("stop ranging"));
    tof_.stop_ranging(); // the calibration below refuses a ranging sensor
    tof_.set_calibration_nb_samples(20);
    tof_.xtalk_calibration();
    // A shot that never completes times out and stops ranging.
    board_->faults().inject(tofPath, Fault::timeout);
    EXPECT_THROW(tof_.shot(), utils::IOError);
    IOToF booting(tofPath); // a fault while the sensor boots leaves it dead
    EXPECT_THAT([&] { booting.init_tof_sensor(); }, throwsWith<utils::IOError>("Timed out"));
    EXPECT_THROW(booting.throwIfDead(), utils::UtilsRuntimeError);
    board_->faults().clear(tofPath);
    EXPECT_EQ(status(0x2), 0u);
    // Concurrent shots are serialised by the driver.
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
