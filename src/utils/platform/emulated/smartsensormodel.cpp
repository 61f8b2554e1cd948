#include "utils/platform/emulated/smartsensormodel.h"

#include "utils/base/crc.h"
#include "utils/platform/emulated/board.h"
#include "utils/regmap/smartsensorregisters.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

namespace utils::platform::emulated {

namespace {

using Reg = smartsensor_registers::Register;
using Bit = smartsensor_registers::Status;
using Error = smartsensor_registers::Error;
using namespace std::chrono_literals;

constexpr auto resetTime = 2ms;
constexpr auto bootTime = 20ms;

uint32_t loadLE32(const uint8_t* p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void storeLE32(uint8_t* p, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(value >> (8 * i));
}

void storeLE16(uint8_t* p, int16_t value)
{
    p[0] = static_cast<uint8_t>(value);
    p[1] = static_cast<uint8_t>(static_cast<uint16_t>(value) >> 8);
}

// A fixed pseudo-random value in [-1, 1] per sample and axis.
double noise(uint64_t seed)
{
    uint64_t z = seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
    z = (z ^ (z >> 31)) * 0xBF58476D1CE4E5B9ull;
    z ^= z >> 29;
    return static_cast<double>(z >> 11) / static_cast<double>(1ull << 52) - 1.0;
}

} // namespace

SmartSensorModel::SmartSensorModel() : created_(Clock::now()) {}

SmartSensorModel::State SmartSensorModel::state() const
{
    if (Clock::now() < stateUntil_)
        return state_;
    switch (state_) {
    case State::resetting: return State::bootloader;
    case State::booting: return State::running;
    default: return state_;
    }
}

std::array<uint8_t, 256> SmartSensorModel::snapshot() const
{
    std::array<uint8_t, 256> image{};
    const State now = state();
    image[Reg::chipId] = smartsensor_registers::chipId;
    image[Reg::status] = static_cast<uint8_t>(
        (now == State::bootloader ? Bit::bootloader : 0) | (now == State::booting ? Bit::booting : 0) |
        (now == State::running ? Bit::running : 0) | (firmwareValid_ ? Bit::firmwareValid : 0) |
        (error_ ? Bit::error : 0));
    image[Reg::error] = error_;
    image[Reg::interruptEnable] = interruptEnable_;
    storeLE32(&image[Reg::firmwareLength], firmwareLength_);
    storeLE32(&image[Reg::firmwareCrc], firmwareCrc_);
    storeLE32(&image[Reg::firmwareReceived], static_cast<uint32_t>(firmware_.size()));

    image[Reg::virtualSensor] = smartsensor_registers::gyroscope;
    storeLE32(&image[Reg::virtualSensor + 1], std::bit_cast<uint32_t>(gyroRate_));
    storeLE32(&image[Reg::virtualSensor + 5], gyroLatencyMs_);

    if (now == State::running && gyroRate_ > 0.0f) {
        const double since = std::chrono::duration<double>(Clock::now() - gyroEnabled_).count();
        const auto sample = static_cast<uint64_t>(since * gyroRate_);
        // The reading belongs to the latest sample, not to the moment of the read.
        const double t =
            std::chrono::duration<double>(gyroEnabled_ - created_).count() + static_cast<double>(sample) / gyroRate_;
        const double bias = 0.05 * std::sin(2.0 * std::numbers::pi * t / 60.0);
        const double rates[3] = {2.0 * std::sin(2.0 * std::numbers::pi * t / 7.0),
                                 1.5 * std::sin(2.0 * std::numbers::pi * t / 11.0 + 1.0),
                                 0.5 * std::cos(2.0 * std::numbers::pi * t / 13.0)};
        for (int axis = 0; axis < 3; ++axis) {
            double dps = rates[axis] + bias + 0.1 * noise(sample * 3 + axis);
            storeLE16(&image[Reg::gyroData + 2 * axis],
                      static_cast<int16_t>(std::lround(dps * 16.0)));
        }
        storeLE32(&image[Reg::gyroData + 6], static_cast<uint32_t>(sample));
    }
    return image;
}

bool SmartSensorModel::write(std::span<const uint8_t> data)
{
    std::lock_guard lock(mutex_);
    if (data.empty())
        return true; // a quick write only probes the address
    pointer_ = data[0];
    if (data.size() == 1)
        return true; // sets the register pointer for the next read
    return writeRegister(pointer_, data.subspan(1));
}

bool SmartSensorModel::read(std::span<uint8_t> data)
{
    std::lock_guard lock(mutex_);
    if (data.size() > 256u - pointer_)
        return false;
    auto image = snapshot();
    std::memcpy(data.data(), image.data() + pointer_, data.size());
    return true;
}

void SmartSensorModel::reset()
{
    state_ = State::resetting;
    stateUntil_ = Clock::now() + resetTime;
    error_ = 0;
    interruptEnable_ = 0;
    firmwareLength_ = 0;
    firmwareCrc_ = 0;
    firmware_.clear();
    firmwareValid_ = false;
    gyroRate_ = 0.0f;
    gyroLatencyMs_ = 0;
}

void SmartSensorModel::refuse(uint8_t error) { error_ = error; }

void SmartSensorModel::firmwareChunk(uint32_t offset, std::span<const uint8_t> bytes)
{
    if (offset != firmware_.size())
        return refuse(static_cast<uint8_t>(Error::chunkOutOfOrder));
    if (firmware_.size() + bytes.size() > firmwareLength_)
        return refuse(static_cast<uint8_t>(Error::firmwareTooLarge));
    firmware_.insert(firmware_.end(), bytes.begin(), bytes.end());
    if (firmware_.size() < firmwareLength_)
        return;
    if (CRCSum32(firmware_.data(), firmware_.size(), 0xFFFFFFFF) != firmwareCrc_)
        return refuse(static_cast<uint8_t>(Error::crcMismatch));
    firmwareValid_ = true;
}

void SmartSensorModel::configure(uint8_t id, float rate, uint32_t latencyMs)
{
    if (state() != State::running)
        return refuse(static_cast<uint8_t>(Error::notRunning));
    if (id != smartsensor_registers::gyroscope)
        return refuse(static_cast<uint8_t>(Error::unknownSensor));
    if (!(rate >= 0.0f) || rate > gyroRates.back())
        return refuse(static_cast<uint8_t>(Error::rateOutOfRange));
    error_ = 0;
    gyroRate_ = rate == 0.0f ? 0.0f : *std::lower_bound(gyroRates.begin(), gyroRates.end(), rate);
    gyroLatencyMs_ = latencyMs;
    gyroEnabled_ = Clock::now();
}

bool SmartSensorModel::writeRegister(uint8_t reg, std::span<const uint8_t> payload)
{
    const bool inBootloader = state() == State::bootloader;
    switch (reg) {
    case Reg::reset:
        if (payload.size() != 1 || payload[0] != smartsensor_registers::resetKey)
            return false;
        reset();
        return true;
    case Reg::interruptEnable:
        if (payload.size() != 1 ||
            payload[0] & ~(smartsensor_registers::interruptDataReady | smartsensor_registers::interruptError))
            return false;
        interruptEnable_ = payload[0];
        return true;
    case Reg::firmwareLength:
    case Reg::firmwareCrc:
        if (payload.size() != 4)
            return false;
        if (!inBootloader) {
            refuse(static_cast<uint8_t>(Error::notInBootloader));
            return true;
        }
        if (reg == Reg::firmwareCrc) {
            firmwareCrc_ = loadLE32(payload.data());
            return true;
        }
        error_ = 0;
        firmware_.clear();
        firmwareValid_ = false;
        firmwareLength_ = 0;
        if (loadLE32(payload.data()) > smartsensor_registers::maxFirmwareSize)
            refuse(static_cast<uint8_t>(Error::firmwareTooLarge));
        else
            firmwareLength_ = loadLE32(payload.data());
        return true;
    case Reg::firmwareData:
        if (payload.size() < 5 || payload.size() > 4 + smartsensor_registers::firmwareChunkSize)
            return false;
        if (!inBootloader)
            refuse(static_cast<uint8_t>(Error::notInBootloader));
        else
            firmwareChunk(loadLE32(payload.data()), payload.subspan(4));
        return true;
    case Reg::boot:
        if (payload.size() != 1 || payload[0] != 0x01)
            return false;
        if (!inBootloader || !firmwareValid_) {
            refuse(static_cast<uint8_t>(Error::noFirmware));
            return true;
        }
        error_ = 0;
        state_ = State::booting;
        stateUntil_ = Clock::now() + bootTime;
        return true;
    case Reg::virtualSensor: {
        if (payload.size() != 9)
            return false;
        configure(payload[0], std::bit_cast<float>(loadLE32(payload.data() + 1)),
                  loadLE32(payload.data() + 5));
        return true;
    }
    default: return false; // read-only or no such register: not acknowledged
    }
}

void attachSmartSensor(EmulatedBoard& board)
{
    attachI2CBus(board, SmartSensorModel::busPath)
        .addDevice(SmartSensorModel::address, std::make_shared<SmartSensorModel>());
}

} // namespace utils::platform::emulated
