#include "utils/base/exceptions.h"
#include "utils/io/iotof.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/tofmodel.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <fcntl.h>

#include <array>
#include <cstring>
#include <thread>

namespace {

using utils::IOToF;
using namespace utils::platform;
using namespace utils::platform::emulated;

constexpr const char* tofPath = "/dev/k52tof";
// The two register requests, as documented for C clients.
constexpr unsigned long readRequest = 0xC108B900;
constexpr unsigned long writeRequest = 0x4108B901;

// A setting read through its out-parameter getter.
template <typename T>
std::function<unsigned()> reader(const IOToF& tof, void (IOToF::*get)(T*) const)
{
    return [&tof, get] {
        T value{};
        (tof.*get)(&value);
        return unsigned(value);
    };
}

// The call must throw E with every one of `texts` in its message.
template <typename E, typename Call>
void expectError(Call call, std::initializer_list<std::string> texts)
{
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const E& e) {
        for (const auto& text : texts)
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    }
}

class ToFTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        board_ = std::make_shared<EmulatedBoard>();
        attachToF(*board_);
        installKernel(board_);
    }
    void TearDown() override { installKernel(nullptr); }

    // One request on the device node as a C client on the board makes it, the record laid
    // out by hand: u32 address at 0, u32 length at 4, the data from 8, 264 bytes in all.
    // `data` goes in and comes back; returns the errno, 0 on success.
    int rawRequest(unsigned long request, uint32_t address, uint32_t length,
                   std::vector<uint8_t>& data)
    {
        std::array<uint8_t, 264> record{};
        std::memcpy(record.data(), &address, 4);
        std::memcpy(record.data() + 4, &length, 4);
        std::copy(data.begin(), data.end(), record.begin() + 8);
        int fd = kernel().open(tofPath, O_RDWR);
        EXPECT_GE(fd, 0);
        int error = kernel().ioctl(fd, request, record.data()) < 0 ? errno : 0;
        kernel().close(fd);
        data.assign(record.begin() + 8, record.begin() + 8 + data.size());
        return error;
    }
    std::vector<uint8_t> rawRead(uint32_t address, uint32_t length)
    {
        std::vector<uint8_t> bytes(length);
        EXPECT_EQ(rawRequest(readRequest, address, length, bytes), 0);
        return bytes;
    }
    uint32_t rawRegister(uint32_t address)
    {
        auto b = rawRead(address, 4);
        return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
    }

    std::unique_ptr<IOToF> bootedSensor()
    {
        auto tof = std::make_unique<IOToF>(tofPath);
        tof->init_tof_sensor();
        return tof;
    }

    std::shared_ptr<EmulatedBoard> board_;
};

TEST_F(ToFTest, IsDeadUntilInitialisedAndAnswersWithItsDocumentedIdentity)
{
    IOToF tof(tofPath);
    EXPECT_THROW(tof.throwIfDead(), utils::UtilsRuntimeError);
    tof.init_tof_sensor();
    EXPECT_NO_THROW(tof.throwIfDead());
    EXPECT_EQ(rawRead(0x00, 4), (std::vector<uint8_t>{0x01, 0x00, 0x52, 0x4B}));
    EXPECT_EQ(rawRegister(0x04) & 1u, 1u) << "STATUS.BOOTED";
}

TEST_F(ToFTest, RawRequestsAreCheckedAndAnswered)
{
    bootedSensor();
    struct Case {
        const char* what;
        unsigned long request;
        uint32_t address;
        uint32_t length;
        std::vector<uint8_t> data; // in, and expected back when it worked
        int error;
    };
    const Case cases[] = {
        {"frequency", writeRequest, 0x10, 4, {7, 0, 0, 0}, 0},
        {"reads back", readRequest, 0x10, 4, {7, 0, 0, 0}, 0},
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
        SCOPED_TRACE(c.what);
        std::vector<uint8_t> data =
            c.request == writeRequest ? c.data : std::vector<uint8_t>(c.data.size());
        EXPECT_EQ(rawRequest(c.request, c.address, c.length, data), c.error);
        if (!c.error) {
            EXPECT_EQ(data, c.data);
        }
    }
}

TEST_F(ToFTest, SettingsReadBackAsWritten)
{
    auto tof = bootedSensor();
    struct Case {
        const char* name;
        std::function<void()> set;
        std::function<unsigned()> get;
        unsigned expected;
    };
    const auto resolution = reader(*tof, &IOToF::get_resolution);
    const auto frequency = reader(*tof, &IOToF::get_frequency);
    const auto power = reader(*tof, &IOToF::get_power_mode);
    const auto ranging = reader(*tof, &IOToF::get_ranging_mode);
    const auto integration = reader(*tof, &IOToF::get_integration_time);
    const Case cases[] = {
        {"8x8", [&] { tof->set_resolution(IOToF::RESOLUTION_8X8); }, resolution, 64},
        {"15 Hz at 8x8", [&] { tof->set_frequency(15); }, frequency, 15},
        {"4x4", [&] { tof->set_resolution(IOToF::RESOLUTION_4X4); }, resolution, 16},
        {"60 Hz at 4x4", [&] { tof->set_frequency(60); }, frequency, 60},
        {"1 Hz", [&] { tof->set_frequency(1); }, frequency, 1},
        {"sleep", [&] { tof->set_power_mode(IOToF::SLEEP); }, power, 0},
        {"wakeup", [&] { tof->set_power_mode(IOToF::WAKEUP); }, power, 1},
        {"autonomous", [&] { tof->set_ranging_mode(IOToF::AUTONOMOUS); }, ranging, 3},
        {"continuous", [&] { tof->set_ranging_mode(IOToF::CONTINUOUS); }, ranging, 1},
        {"1 us", [&] { tof->set_integration_time(1); }, integration, 1},
        {"1 s", [&] { tof->set_integration_time(1000000); }, integration, 1000000},
    };
    for (const auto& c : cases) {
        c.set();
        EXPECT_EQ(c.get(), c.expected) << c.name;
    }
    // Calibration parameters have no getter; they must land in their documented registers.
    tof->set_calibration_reflectance_percent(17);
    tof->set_calibration_nb_samples(200);
    tof->set_calibration_distance(600);
    EXPECT_EQ(rawRegister(0x20), 17u);
    EXPECT_EQ(rawRegister(0x24), 200u);
    EXPECT_EQ(rawRegister(0x28), 600u);
}

TEST_F(ToFTest, SettingsTheSensorRefusesRaiseIOErrorNamingTheRegister)
{
    auto tof = bootedSensor();
    struct Case {
        const char* name;
        std::function<void()> set;
        const char* register_;
    };
    const Case cases[] = {
        {"61 Hz at 4x4", [&] { tof->set_frequency(61); }, "FREQUENCY"},
        {"0 Hz", [&] { tof->set_frequency(0); }, "FREQUENCY"},
        {"16 Hz at 8x8",
         [&] {
             tof->set_resolution(IOToF::RESOLUTION_8X8);
             tof->set_frequency(16);
         },
         "FREQUENCY"},
        {"32 zones", [&] { tof->set_resolution(static_cast<IOToF::Resolution>(32)); },
         "RESOLUTION"},
        {"ranging mode 2", [&] { tof->set_ranging_mode(static_cast<IOToF::RangingMode>(2)); },
         "RANGING_MODE"},
        {"0 us", [&] { tof->set_integration_time(0); }, "INTEGRATION_TIME"},
        {"101 %", [&] { tof->set_calibration_reflectance_percent(101); }, "CAL_REFLECTANCE"},
        {"0 samples", [&] { tof->set_calibration_nb_samples(0); }, "CAL_SAMPLES"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectError<utils::IOError>(c.set, {c.register_, tofPath});
    }
}

TEST_F(ToFTest, AShotYieldsOneDistancePerZoneOfAPlausibleScene)
{
    auto tof = bootedSensor();
    tof->apply_calibration();
    for (auto [resolution, side] : {std::pair{IOToF::RESOLUTION_4X4, 4u},
                                    std::pair{IOToF::RESOLUTION_8X8, 8u}}) {
        tof->set_resolution(resolution);
        tof->shot();
        auto d = tof->results();
        ASSERT_EQ(d.size(), side * side);
        for (unsigned column = 0; column < side; ++column) {
            // The top row sees the wall at 1.8 m, the bottom row the floor, nearer.
            EXPECT_NEAR(d[column], 1800, 10) << "zone " << column;
            EXPECT_LT(d[(side - 1) * side + column], 1600) << "zone " << column;
        }
        // The box in the middle sits between 0.4 and 0.9 m.
        unsigned centre = side / 2 * side + side / 2;
        EXPECT_GE(d[centre], 390);
        EXPECT_LE(d[centre], 910);
    }
    EXPECT_EQ(rawRegister(0x04) & 0x2u, 0u) << "a single shot must stop ranging again";
}

TEST_F(ToFTest, CalibrationRemovesTheFactoryOffsetsWhoseChecksumIsZlibCompatible)
{
    auto tof = bootedSensor();
    auto offsets = rawRead(0x100, 128);
    EXPECT_EQ(rawRegister(0x180), crc32(0, offsets.data(), offsets.size()));

    tof->set_resolution(IOToF::RESOLUTION_8X8);
    tof->set_frequency(1);
    tof->set_integration_time(100000); // long integration: little noise
    tof->shot();
    auto raw = tof->results();
    tof->apply_calibration();
    EXPECT_EQ(rawRegister(0x04) & 0x8u, 0x8u) << "STATUS.CALIBRATED";
    EXPECT_EQ(rawRead(0x200, 128), offsets);
    tof->shot();
    auto calibrated = tof->results();
    for (unsigned zone = 0; zone < 8; ++zone) { // the wall does not move
        int16_t offset = static_cast<int16_t>(offsets[2 * zone] | offsets[2 * zone + 1] << 8);
        EXPECT_NEAR(raw[zone] - calibrated[zone], offset, 6) << "zone " << zone;
        EXPECT_NEAR(calibrated[zone], 1800, 3) << "zone " << zone;
    }
}

TEST_F(ToFTest, CorruptFactoryCalibrationIsRejected)
{
    auto tof = bootedSensor();
    std::dynamic_pointer_cast<ToFModel>(board_->device(tofPath))->corruptFactoryCalibration();
    expectError<utils::UtilsRuntimeError>([&] { tof->apply_calibration(); }, {"corrupt"});
    EXPECT_EQ(rawRegister(0x04) & 0x8u, 0u) << "nothing may be applied";
}

TEST_F(ToFTest, ContinuousRangingDeliversFreshFrames)
{
    auto tof = bootedSensor();
    tof->set_frequency(60);
    tof->start_ranging();
    tof->shot();
    uint32_t first = rawRegister(0x34);
    tof->shot();
    EXPECT_GT(rawRegister(0x34), first);
    EXPECT_EQ(rawRegister(0x04) & 0x2u, 0x2u) << "ranging continues between shots";
    tof->stop_ranging();
    EXPECT_EQ(rawRegister(0x04) & 0x2u, 0u);
}

TEST_F(ToFTest, StateAndFaultsGiveTheirExceptions)
{
    {
        auto tof = bootedSensor();
        tof->set_power_mode(IOToF::SLEEP);
        EXPECT_THROW(tof->shot(), utils::UtilsRuntimeError);
        EXPECT_THROW(tof->xtalk_calibration(), utils::UtilsRuntimeError);

        // A shot that never completes times out and stops ranging.
        tof->set_power_mode(IOToF::WAKEUP);
        tof->set_frequency(60);
        board_->faults().inject(tofPath, Fault::timeout);
        EXPECT_THROW(tof->shot(), utils::IOError);
        board_->faults().clear(tofPath);
        EXPECT_EQ(rawRegister(0x04) & 0x2u, 0u);
        EXPECT_TRUE(tof->results().empty());
    }
    struct Case {
        const char* name;
        Fault fault;
        const char* text;
    };
    const Case cases[] = {
        {"open", Fault::openFails, "Unable to open"},
        {"io", Fault::ioError, "Input/output error"},
        {"timeout", Fault::timeout, "Timed out"},
    };
    for (const auto& c : cases) {
        board_->faults().inject(tofPath, c.fault);
        SCOPED_TRACE(c.name);
        IOToF tof(tofPath);
        expectError<utils::IOError>([&] { tof.init_tof_sensor(); }, {c.text});
        EXPECT_THROW(tof.throwIfDead(), utils::UtilsRuntimeError);
        board_->faults().clear(tofPath);
    }
}

TEST_F(ToFTest, CrossTalkCalibrationCompletes)
{
    auto tof = bootedSensor();
    tof->set_calibration_nb_samples(20);
    tof->xtalk_calibration();
    EXPECT_EQ(rawRegister(0x04) & 0x30u, 0x20u) << "not busy, result valid";
    EXPECT_GT(rawRegister(0x2C), 0u);
    tof->start_ranging();
    EXPECT_THROW(tof->xtalk_calibration(), utils::UtilsRuntimeError);
}

TEST_F(ToFTest, ConcurrentShotsAreSerialisedByTheDriver)
{
    auto tof = bootedSensor();
    tof->set_frequency(60);
    tof->set_integration_time(1000);
    auto worker = [&] {
        for (int i = 0; i < 10; ++i) {
            tof->shot();
            EXPECT_EQ(tof->results().size(), 16u);
        }
    };
    std::thread other(worker);
    worker();
    other.join();
}

} // namespace
