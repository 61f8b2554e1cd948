#include "utils/platform/emulated/tofmodel.h"

#include "utils/base/crc.h"
#include "utils/platform/emulated/board.h"
#include "utils/regmap/tofregisters.h"

#include <endian.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>

namespace utils::platform::emulated {

namespace {

using Reg = tof_registers::Register;
using Bit = tof_registers::Status;
using Cmd = tof_registers::Command;
using namespace std::chrono_literals;

constexpr auto bootTime = 10ms;
constexpr auto crossTalkTimePerSample = 1ms;
constexpr uint32_t maxDistanceMm = 4000;
constexpr size_t tableBytes = 64 * sizeof(int16_t);

double seconds(std::chrono::steady_clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

// A fixed pseudo-random value in [-1, 1] for one zone of one frame (splitmix64).
double noise(uint64_t seed)
{
    uint64_t z = seed + 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<double>(z >> 11) / static_cast<double>(1ull << 52) - 1.0;
}

// Copies the part of `image` (which starts at `base`) that the access names.
int copyOut(const std::vector<uint8_t>& image, uint32_t base, uint32_t address,
            std::span<uint8_t> data)
{
    if (address < base || address - base + data.size() > image.size())
        return EINVAL;
    std::memcpy(data.data(), image.data() + (address - base), data.size());
    return 0;
}

std::vector<uint8_t> littleEndianTable(const std::array<int16_t, 64>& values)
{
    std::vector<uint8_t> bytes(tableBytes);
    for (size_t i = 0; i < values.size(); ++i) {
        uint16_t wire = htole16(static_cast<uint16_t>(values[i]));
        std::memcpy(bytes.data() + i * sizeof wire, &wire, sizeof wire);
    }
    return bytes;
}

} // namespace

ToFModel::ToFModel(FaultInjector& faults)
    : RegisterModel(devicePath, faults), created_(Clock::now())
{
    for (unsigned zone = 0; zone < factoryOffsets_.size(); ++zone)
        factoryOffsets_[zone] = factoryOffsetMm(zone);
    auto image = littleEndianTable(factoryOffsets_);
    factoryChecksum_ = CRCSum32(image.data(), image.size(), 0xFFFFFFFF);
}

int16_t ToFModel::factoryOffsetMm(unsigned zone)
{
    return static_cast<int16_t>(static_cast<int>((zone * 37 + 11) % 41) - 20);
}

double ToFModel::sceneDistanceMm(unsigned zone, unsigned zones, Clock::duration sinceStart)
{
    const unsigned side = zones == 64 ? 8 : 4;
    const double x = (zone % side + 0.5) / side;
    const double y = (zone / side + 0.5) / side;
    if (x >= 0.3 && x <= 0.7 && y >= 0.25 && y <= 0.75)
        return 650.0 + 250.0 * std::sin(2.0 * std::numbers::pi * seconds(sinceStart) / 20.0);
    if (y > 0.5)
        return 1800.0 - (y - 0.5) * 2.0 * 900.0; // the floor comes closer toward the bottom
    return 1800.0;
}

void ToFModel::corruptFactoryCalibration()
{
    std::lock_guard lock(mutex_);
    factoryChecksum_ ^= 0x00010000;
}

void ToFModel::resetConfiguration()
{
    resolution_ = 16;
    frequency_ = 15;
    powerMode_ = 1;
    rangingMode_ = 1;
    integrationUs_ = 5000;
    reflectance_ = 50;
    samples_ = 10;
    calibrationDistance_ = 1000;
    crossTalk_ = 0;
    crossTalkValid_ = false;
    crossTalkDone_ = {};
    calibrationEnabled_ = false;
    offsetTable_.fill(0);
    ranging_ = false;
    framesBefore_ = 0;
    framesRead_ = 0;
    lastFrame_.clear();
}

bool ToFModel::booted() const { return bootRequested_ && Clock::now() >= bootDone_; }

bool ToFModel::crossTalkBusy() const
{
    return crossTalkDone_ != Clock::time_point{} && (timingOut() || Clock::now() < crossTalkDone_);
}

ToFModel::Clock::duration ToFModel::integration() const
{
    return std::chrono::microseconds(integrationUs_);
}

ToFModel::Clock::duration ToFModel::framePeriod() const
{
    Clock::duration period = std::chrono::microseconds(1000000 / frequency_);
    return std::max(period, integration());
}

uint64_t ToFModel::framesCompleted() const
{
    if (!ranging_ || timingOut())
        return 0;
    auto elapsed = Clock::now() - rangingStart_;
    if (elapsed < integration())
        return 0;
    return 1 + static_cast<uint64_t>((elapsed - integration()) / framePeriod());
}

uint32_t ToFModel::status() const
{
    uint32_t bits = 0;
    if (booted() && !timingOut())
        bits |= Bit::booted;
    if (ranging_)
        bits |= Bit::ranging;
    if (framesCompleted() > framesRead_)
        bits |= Bit::dataReady;
    if (calibrationEnabled_)
        bits |= Bit::calibrated;
    if (crossTalkBusy())
        bits |= Bit::crossTalkBusy;
    else if (crossTalkValid_)
        bits |= Bit::crossTalkValid;
    return bits;
}

uint16_t ToFModel::offsetFor(unsigned zone, const std::array<int16_t, 64>& table) const
{
    if (resolution_ == 64)
        return static_cast<uint16_t>(table[zone]);
    // A 4x4 zone covers a 2x2 block of the 8x8 grid.
    const unsigned row = zone / 4 * 2, column = zone % 4 * 2;
    int sum = table[row * 8 + column] + table[row * 8 + column + 1] +
              table[(row + 1) * 8 + column] + table[(row + 1) * 8 + column + 1];
    return static_cast<uint16_t>(static_cast<int16_t>(std::lround(sum / 4.0)));
}

std::vector<uint16_t> ToFModel::measure(uint64_t frame) const
{
    const auto exposed = rangingStart_ + integration() + (frame - 1) * framePeriod();
    const double amplitude = 2.0 + 20.0 * std::min(1.0, 1000.0 / integrationUs_);
    const auto session = static_cast<uint64_t>(rangingStart_.time_since_epoch().count());
    std::vector<uint16_t> distances(resolution_);
    for (unsigned zone = 0; zone < resolution_; ++zone) {
        double mm = sceneDistanceMm(zone, resolution_, exposed - created_);
        mm += static_cast<int16_t>(offsetFor(zone, factoryOffsets_));
        if (calibrationEnabled_)
            mm -= static_cast<int16_t>(offsetFor(zone, offsetTable_));
        mm += amplitude * noise(session * 131 + frame * 67 + zone);
        distances[zone] = static_cast<uint16_t>(std::clamp(std::lround(mm), 0l,
                                                           static_cast<long>(maxDistanceMm)));
    }
    return distances;
}

int ToFModel::readRegister(uint32_t address, uint32_t& value)
{
    if (address == Reg::id) {
        value = tof_registers::deviceId;
        return 0;
    }
    if (address == Reg::status) {
        value = status();
        return 0;
    }
    if (address == Reg::command) {
        value = 0; // write-only
        return 0;
    }
    if (!booted())
        return EAGAIN;
    switch (address) {
    case Reg::resolution: value = resolution_; return 0;
    case Reg::frequency: value = frequency_; return 0;
    case Reg::powerMode: value = powerMode_; return 0;
    case Reg::rangingMode: value = rangingMode_; return 0;
    case Reg::integrationTime: value = integrationUs_; return 0;
    case Reg::calibrationReflectance: value = reflectance_; return 0;
    case Reg::calibrationSamples: value = samples_; return 0;
    case Reg::calibrationDistance: value = calibrationDistance_; return 0;
    case Reg::crossTalk: value = crossTalkBusy() ? 0 : crossTalk_; return 0;
    case Reg::calibrationEnable: value = calibrationEnabled_; return 0;
    case Reg::frameCount:
        value = static_cast<uint32_t>(framesBefore_ + framesCompleted());
        return 0;
    case Reg::temperature: {
        // Milli-degrees Celsius: the room's slow swing plus the emitter's warmth while ranging.
        double t = seconds(Clock::now() - created_);
        double warmth = ranging_ ? 2500.0 * (1.0 - std::exp(-seconds(Clock::now() - rangingStart_) / 20.0)) : 0.0;
        value = static_cast<uint32_t>(static_cast<int32_t>(
            std::lround(36000.0 + 1500.0 * std::sin(2.0 * std::numbers::pi * t / 90.0) + warmth)));
        return 0;
    }
    default: return EINVAL;
    }
}

int ToFModel::writeRegister(uint32_t address, uint32_t value)
{
    if (address == Reg::command)
        return command(value);
    if (address == Reg::id || address == Reg::status)
        return EPERM;
    if (!booted())
        return EAGAIN;
    // Acquisition parameters are fixed while the sensor ranges.
    const bool configuration = address == Reg::resolution || address == Reg::frequency ||
                               address == Reg::powerMode || address == Reg::rangingMode ||
                               address == Reg::integrationTime;
    if (configuration && ranging_)
        return EBUSY;
    auto inRange = [](uint32_t v, uint32_t low, uint32_t high) { return v >= low && v <= high; };
    switch (address) {
    case Reg::resolution:
        if (value != 16 && value != 64)
            return EINVAL;
        resolution_ = value;
        frequency_ = std::min<uint32_t>(frequency_, value == 64 ? 15 : 60);
        return 0;
    case Reg::frequency:
        if (!inRange(value, 1, resolution_ == 64 ? 15 : 60))
            return ERANGE;
        frequency_ = value;
        return 0;
    case Reg::powerMode:
        if (value > 1)
            return EINVAL;
        powerMode_ = value;
        return 0;
    case Reg::rangingMode:
        if (value != tof_registers::CONTINUOUS && value != tof_registers::AUTONOMOUS)
            return EINVAL;
        rangingMode_ = value;
        return 0;
    case Reg::integrationTime:
        if (!inRange(value, 1, 1000000))
            return ERANGE;
        integrationUs_ = value;
        return 0;
    case Reg::calibrationReflectance:
        if (value > 100)
            return ERANGE;
        reflectance_ = value;
        return 0;
    case Reg::calibrationSamples:
        if (!inRange(value, 1, 255))
            return ERANGE;
        samples_ = value;
        return 0;
    case Reg::calibrationDistance:
        if (!inRange(value, 1, 10000))
            return ERANGE;
        calibrationDistance_ = value;
        return 0;
    case Reg::calibrationEnable:
        if (value > 1)
            return EINVAL;
        calibrationEnabled_ = value;
        return 0;
    case Reg::crossTalk:
    case Reg::frameCount:
    case Reg::temperature: return EPERM;
    default: return EINVAL;
    }
}

int ToFModel::command(uint32_t code)
{
    if (code == static_cast<uint32_t>(Cmd::boot)) {
        resetConfiguration();
        bootRequested_ = true;
        bootDone_ = Clock::now() + bootTime;
        return 0;
    }
    if (!booted())
        return EAGAIN;
    switch (static_cast<Cmd>(code)) {
    case Cmd::startRanging:
        if (powerMode_ != tof_registers::WAKEUP)
            return EPERM;
        if (crossTalkBusy())
            return EBUSY;
        if (!ranging_) {
            ranging_ = true;
            rangingStart_ = Clock::now();
            framesRead_ = 0;
        }
        return 0;
    case Cmd::stopRanging:
        if (ranging_) {
            framesBefore_ += framesCompleted();
            ranging_ = false;
            framesRead_ = 0;
        }
        return 0;
    case Cmd::crossTalk:
        if (ranging_ || crossTalkBusy())
            return EBUSY;
        if (powerMode_ != tof_registers::WAKEUP)
            return EPERM;
        crossTalkDone_ = Clock::now() + samples_ * crossTalkTimePerSample;
        // Counts per second that the cover glass returns: a darker or nearer target shows
        // more of it relative to the signal.
        crossTalk_ = 200 + (100 - reflectance_) * 4 + 100000 / (calibrationDistance_ + 100);
        crossTalkValid_ = true;
        return 0;
    default: return EINVAL;
    }
}

int ToFModel::readTable(uint32_t address, std::span<uint8_t> data)
{
    if (!booted())
        return EAGAIN;
    if (address < Reg::factoryChecksum + sizeof(uint32_t)) {
        auto image = littleEndianTable(factoryOffsets_);
        uint32_t checksum = htole32(factoryChecksum_);
        image.insert(image.end(), reinterpret_cast<uint8_t*>(&checksum),
                     reinterpret_cast<uint8_t*>(&checksum) + sizeof checksum);
        return copyOut(image, Reg::factoryOffsets, address, data);
    }
    if (address >= Reg::offsetTable && address < Reg::offsetTable + tableBytes)
        return copyOut(littleEndianTable(offsetTable_), Reg::offsetTable, address, data);
    if (address >= Reg::results && address < Reg::results + tableBytes) {
        uint64_t frames = framesCompleted();
        if (frames > framesRead_) {
            lastFrame_ = measure(frames);
            framesRead_ = frames;
        }
        if (lastFrame_.empty())
            return ENODATA;
        std::vector<uint8_t> image(tableBytes, 0);
        for (size_t i = 0; i < lastFrame_.size(); ++i) {
            uint16_t wire = htole16(lastFrame_[i]);
            std::memcpy(image.data() + i * sizeof wire, &wire, sizeof wire);
        }
        return copyOut(image, Reg::results, address, data);
    }
    return EINVAL;
}

int ToFModel::writeTable(uint32_t address, std::span<const uint8_t> data)
{
    if (!booted())
        return EAGAIN;
    auto inside = [&](uint32_t base, size_t size) {
        return address >= base && address - base + data.size() <= size;
    };
    if (inside(Reg::factoryOffsets, tableBytes + sizeof(uint32_t)) ||
        inside(Reg::results, tableBytes))
        return EPERM;
    if (!inside(Reg::offsetTable, tableBytes))
        return EINVAL;
    for (size_t i = 0; i < data.size(); ++i) {
        size_t byte = address - Reg::offsetTable + i;
        auto* entry = reinterpret_cast<uint8_t*>(&offsetTable_[byte / 2]);
        // Entries are little-endian on the wire and native in the table.
        entry[std::endian::native == std::endian::little ? byte % 2 : 1 - byte % 2] = data[i];
    }
    return 0;
}

void attachToF(EmulatedBoard& board)
{
    board.attach(ToFModel::devicePath, std::make_shared<ToFModel>(board.faults()));
}

} // namespace utils::platform::emulated
