#include "utils/io/iotof.h"

#include "utils/base/crc.h"
#include "utils/base/exceptions.h"

#include <endian.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace utils {

using namespace tof_registers;

namespace {

using namespace std::chrono_literals;

constexpr auto bootTimeout = 500ms;
// 255 averaged frames at the sensor's fastest rate, with room to spare.
constexpr auto crossTalkTimeout = 2000ms;

std::string hex(uint32_t value)
{
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace

IOToF::IOToF(std::string path, int flags) : IORegisterFile(std::move(path), flags) {}

IOToF::~IOToF()
{
    // Leave the sensor idle for the next user; nobody is left to report a failure to.
    if (ranging_ && isOpen()) {
        try {
            command(Command::stopRanging);
        } catch (const UtilsException&) {
        }
    }
}

void IOToF::command(Command what) const
{
    writeRegister(Register::command, static_cast<uint32_t>(what), "COMMAND");
}

void IOToF::init_tof_sensor()
{
    std::lock_guard lock(mutex_);
    alive_ = false;
    ranging_ = false;
    results_.clear();
    open();
    uint32_t id = readRegister(Register::id, "DEVICE_ID");
    if (id != deviceId)
        throw UtilsRuntimeError("ToF '" + path() + "': unexpected device id " + hex(id) +
                                " (expected " + hex(deviceId) + ").");
    command(Command::boot);
    waitForBits(Register::status, "STATUS", Status::booted, Status::booted, bootTimeout,
                "the sensor to boot");
    alive_ = true;
}

bool IOToF::cameUp() const
{
    std::lock_guard lock(mutex_);
    return alive_;
}

void IOToF::throwIfDead() const
{
    if (!cameUp())
        throw UtilsRuntimeError("ToF '" + path() + "' is not initialized.");
}

void IOToF::apply_calibration()
{
    std::lock_guard lock(mutex_);
    std::array<uint8_t, maxZones * sizeof(int16_t)> offsets{};
    readBlock(Register::factoryOffsets, offsets.data(), offsets.size(), "FACTORY_OFFSETS");
    uint32_t stored = readRegister(Register::factoryChecksum, "FACTORY_CHECKSUM");
    uint32_t computed = CRCSum32(offsets.data(), offsets.size(), 0xFFFFFFFF);
    if (stored != computed)
        throw UtilsRuntimeError("ToF '" + path() + "': factory calibration is corrupt (CRC " +
                                hex(computed) + ", stored " + hex(stored) + ").");
    // Both tables have the same little-endian layout, so the bytes go across unchanged.
    writeBlock(Register::offsetTable, offsets.data(), offsets.size(), "OFFSET_TABLE");
    writeRegister(Register::calibrationEnable, 1, "CALIBRATION_ENABLE");
    if (!(readRegister(Register::status, "STATUS") & Status::calibrated))
        throw UtilsRuntimeError("ToF '" + path() + "' did not accept its calibration.");
}

void IOToF::get_resolution(Resolution* resolution) const
{
    std::lock_guard lock(mutex_);
    *resolution = static_cast<Resolution>(readRegister(Register::resolution, "RESOLUTION"));
}

void IOToF::set_resolution(Resolution resolution)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::resolution, resolution, "RESOLUTION");
}

void IOToF::get_frequency(unsigned char* hertz) const
{
    std::lock_guard lock(mutex_);
    *hertz = static_cast<unsigned char>(readRegister(Register::frequency, "FREQUENCY"));
}

void IOToF::set_frequency(unsigned char hertz)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::frequency, hertz, "FREQUENCY");
}

void IOToF::get_power_mode(PowerMode* mode) const
{
    std::lock_guard lock(mutex_);
    *mode = static_cast<PowerMode>(readRegister(Register::powerMode, "POWER_MODE"));
}

void IOToF::set_power_mode(PowerMode mode)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::powerMode, mode, "POWER_MODE");
}

void IOToF::get_ranging_mode(RangingMode* mode) const
{
    std::lock_guard lock(mutex_);
    *mode = static_cast<RangingMode>(readRegister(Register::rangingMode, "RANGING_MODE"));
}

void IOToF::set_ranging_mode(RangingMode mode)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::rangingMode, mode, "RANGING_MODE");
}

void IOToF::get_integration_time(unsigned int* microseconds) const
{
    std::lock_guard lock(mutex_);
    *microseconds = readRegister(Register::integrationTime, "INTEGRATION_TIME");
}

void IOToF::set_integration_time(unsigned microseconds)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::integrationTime, microseconds, "INTEGRATION_TIME");
}

void IOToF::set_calibration_reflectance_percent(unsigned long percent)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::calibrationReflectance, static_cast<uint16_t>(percent), "CAL_REFLECTANCE");
    reflectance_ = percent;
}

void IOToF::set_calibration_nb_samples(unsigned long samples)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::calibrationSamples, static_cast<uint8_t>(samples), "CAL_SAMPLES");
    samples_ = samples;
}

void IOToF::set_calibration_distance(unsigned long millimetres)
{
    std::lock_guard lock(mutex_);
    writeRegister(Register::calibrationDistance, static_cast<uint16_t>(millimetres), "CAL_DISTANCE");
    distance_ = millimetres;
}

void IOToF::xtalk_calibration()
{
    std::lock_guard lock(mutex_);
    if (ranging_)
        throw UtilsRuntimeError("ToF '" + path() +
                                "': stop ranging before the cross-talk calibration.");
    requireAwake();
    command(Command::crossTalk);
    uint32_t status = waitForBits(Register::status, "STATUS", Status::crossTalkBusy, 0,
                                  crossTalkTimeout, "the cross-talk calibration");
    if (!(status & Status::crossTalkValid))
        throw UtilsRuntimeError("ToF '" + path() + "': cross-talk calibration failed.");
}

void IOToF::requireAwake() const
{
    if (readRegister(Register::powerMode, "POWER_MODE") != WAKEUP)
        throw UtilsRuntimeError("ToF '" + path() + "' is asleep: set the power mode to WAKEUP.");
}

void IOToF::start_ranging()
{
    std::lock_guard lock(mutex_);
    requireAwake();
    command(Command::startRanging);
    ranging_ = true;
}

void IOToF::stop_ranging()
{
    std::lock_guard lock(mutex_);
    command(Command::stopRanging);
    ranging_ = false;
}

void IOToF::shot()
{
    std::lock_guard lock(mutex_);
    // A one-off measurement ranges only for its own frame, whatever happens while it waits.
    struct RangingScope {
        const IOToF& sensor;
        bool started = false;
        ~RangingScope()
        {
            if (!started)
                return;
            try {
                sensor.command(Command::stopRanging);
            } catch (const UtilsException&) {
            }
        }
    } scope{*this};
    if (!ranging_) {
        requireAwake();
        command(Command::startRanging);
        scope.started = true;
    }

    // One frame takes its integration time, frames follow at the ranging frequency; allow two
    // frame periods and the bus's own latency before calling the sensor silent.
    uint32_t hertz = std::max<uint32_t>(1, readRegister(Register::frequency, "FREQUENCY"));
    uint32_t integrationUs = readRegister(Register::integrationTime, "INTEGRATION_TIME");
    auto timeout = std::chrono::milliseconds(2000 / hertz + integrationUs / 1000 + 100);
    waitForBits(Register::status, "STATUS", Status::dataReady, Status::dataReady, timeout,
                "ranging data");

    uint32_t zones = readRegister(Register::resolution, "RESOLUTION");
    if (zones != RESOLUTION_4X4 && zones != RESOLUTION_8X8)
        throw UtilsRuntimeError("ToF '" + path() + "' reports an unknown resolution of " +
                                std::to_string(zones) + " zones.");
    std::vector<uint16_t> distances(zones);
    readBlock(Register::results, distances.data(), zones * sizeof(uint16_t), "RESULTS");
    for (auto& distance : distances)
        distance = le16toh(distance);
    results_ = std::move(distances);
}

std::vector<uint16_t> IOToF::results() const
{
    std::lock_guard lock(mutex_);
    return results_;
}

} // namespace utils
