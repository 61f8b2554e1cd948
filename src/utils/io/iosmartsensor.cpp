#include "utils/io/iosmartsensor.h"

#include "utils/base/crc.h"
#include "utils/base/exceptions.h"

#include <bit>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

namespace utils {

using namespace smartsensor_registers;

static_assert(firmwareChunkSize == IOI2CFile::maxBlockLength - 4,
              "a firmware chunk and its offset fill one I2C block");

namespace {

constexpr char firmwareMagic[8] = {'K', '5', '2', 'S', 'S', 'F', 'W', '1'};

uint32_t loadLE32(const uint8_t* p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void storeLE32(uint8_t* p, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(value >> (8 * i));
}

std::string hex32(uint32_t value)
{
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

const char* errorText(uint8_t code)
{
    using E = Error;
    switch (static_cast<E>(code)) {
    case E::none: return "no error";
    case E::notInBootloader: return "not in its bootloader";
    case E::chunkOutOfOrder: return "firmware chunk out of order";
    case E::firmwareTooLarge: return "firmware too large";
    case E::crcMismatch: return "firmware CRC mismatch";
    case E::noFirmware: return "no valid firmware to boot";
    case E::unknownSensor: return "unknown virtual sensor";
    case E::rateOutOfRange: return "rate out of range";
    case E::notRunning: return "firmware not running";
    }
    return "unknown error";
}

std::string formatRate(float hertz)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(hertz));
    return text;
}

} // namespace

IOSmartSensor::IOSmartSensor(std::string bus, uint8_t address, int flags, int irqPin,
                             uint16_t responseTimeoutMs, std::string firmwarePath,
                             PrintFunction print)
    : busPath_(std::move(bus)), address_(address), flags_(flags), irqPin_(irqPin),
      responseTimeoutMs_(responseTimeoutMs), firmwarePath_(std::move(firmwarePath)),
      print_(std::move(print))
{
}

IOSmartSensor::~IOSmartSensor() = default;

std::string IOSmartSensor::where() const
{
    char address[8];
    std::snprintf(address, sizeof address, "0x%02x", address_);
    return "SmartSensor at " + std::string(address) + " on " + busPath_;
}

void IOSmartSensor::print(const std::string& message) const
{
    if (print_)
        print_("SmartSensor: " + message);
}

IOI2CFile& IOSmartSensor::bus()
{
    if (!bus_)
        bus_ = std::make_unique<IOI2CFile>(busPath_, address_, flags_);
    return *bus_;
}

void IOSmartSensor::write(uint8_t reg, const uint8_t* bytes, size_t length)
{
    bus().writeBlock(reg, {bytes, length});
}

void IOSmartSensor::write(uint8_t reg, std::initializer_list<uint8_t> bytes)
{
    write(reg, bytes.begin(), bytes.size());
}

void IOSmartSensor::read(uint8_t reg, uint8_t* bytes, size_t length)
{
    bus().readBlock(reg, {bytes, length});
}

uint8_t IOSmartSensor::status()
{
    uint8_t value = 0;
    read(Register::status, &value, 1);
    return value;
}

bool IOSmartSensor::isRunning() { return status() & Status::running; }

void IOSmartSensor::throwIfRefused(const std::string& what)
{
    // STATUS, RESET (reads 0) and ERROR in one transfer.
    uint8_t bytes[3] = {};
    read(Register::status, bytes, sizeof bytes);
    if (bytes[0] & Status::error)
        throw UtilsRuntimeError(where() + " refused " + what + ": " + errorText(bytes[2]) + ".");
}

uint8_t IOSmartSensor::waitForStatus(uint8_t mask, const char* what)
{
    const auto timeout = std::chrono::milliseconds(responseTimeoutMs_);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        uint8_t value = status();
        if (value & (mask | Status::error))
            return value;
        if (std::chrono::steady_clock::now() >= deadline)
            throw IOError(where() + ": timed out after " + std::to_string(timeout.count()) +
                          " ms waiting for " + what + ".");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void IOSmartSensor::softReset()
{
    uint8_t id = 0;
    read(Register::chipId, &id, 1);
    if (id != chipId) {
        char text[64];
        std::snprintf(text, sizeof text, ": unexpected chip id 0x%02x (expected 0x%02x).", id,
                      chipId);
        throw UtilsRuntimeError(where() + text);
    }
    write(Register::reset, {resetKey});
    waitForStatus(Status::bootloader, "its bootloader after a reset");
    print("soft reset done, bootloader ready.");
}

void IOSmartSensor::registerCallBacks()
{
    write(Register::interruptEnable, {interruptDataReady | interruptError});
    print("data-ready and error interrupts routed to GPIO " + std::to_string(irqPin_) + ".");
}

void IOSmartSensor::uploadFirmwareToRam(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw IOError("Unable to open smart-sensor firmware '" + path +
                      "': " + std::strerror(errno));
    std::vector<uint8_t> image((std::istreambuf_iterator<char>(file)),
                               std::istreambuf_iterator<char>());
    if (file.bad())
        throw IOError("Unable to read smart-sensor firmware '" + path + "'.");

    auto reject = [&](const std::string& why) {
        throw UtilsRuntimeError("Smart-sensor firmware '" + path + "' " + why);
    };
    if (image.size() < firmwareHeaderSize)
        reject("is too short for its 16-byte header.");
    if (std::memcmp(image.data(), firmwareMagic, sizeof firmwareMagic) != 0)
        reject("is not a smart-sensor firmware image (bad magic).");
    const uint32_t length = loadLE32(image.data() + 8);
    const uint32_t crc = loadLE32(image.data() + 12);
    const uint8_t* payload = image.data() + firmwareHeaderSize;
    const size_t present = image.size() - firmwareHeaderSize;
    if (length != present)
        reject("declares " + std::to_string(length) + " payload bytes but holds " +
               std::to_string(present) + ".");
    if (length == 0 || length > maxFirmwareSize)
        reject("has a payload of " + std::to_string(length) + " bytes; the sensor takes 1 to " +
               std::to_string(maxFirmwareSize) + ".");
    if (uint32_t actual = CRCSum32(payload, length, 0xFFFFFFFF); actual != crc)
        reject("is corrupt: payload CRC " + hex32(actual) + ", header says " + hex32(crc) + ".");

    if (!(status() & Status::bootloader))
        throw UtilsRuntimeError(where() + " is not in its bootloader: reset it before uploading.");
    uint8_t word[4];
    storeLE32(word, length);
    write(Register::firmwareLength, word, sizeof word);
    storeLE32(word, crc);
    write(Register::firmwareCrc, word, sizeof word);
    throwIfRefused("the firmware");

    std::vector<uint8_t> chunk(4 + firmwareChunkSize);
    for (uint32_t offset = 0; offset < length; offset += firmwareChunkSize) {
        size_t n = std::min<size_t>(firmwareChunkSize, length - offset);
        storeLE32(chunk.data(), offset);
        std::memcpy(chunk.data() + 4, payload + offset, n);
        write(Register::firmwareData, chunk.data(), 4 + n);
    }
    throwIfRefused("the firmware");
    if (!(status() & Status::firmwareValid))
        throw UtilsRuntimeError(where() + " did not accept the firmware from '" + path + "'.");
    print("uploaded " + std::to_string(length) + " bytes of firmware '" + path + "' (CRC " +
          hex32(crc) + ").");
}

void IOSmartSensor::boot()
{
    write(Register::boot, {0x01});
    throwIfRefused("to boot");
    uint8_t value = waitForStatus(Status::running, "its firmware to start");
    if (value & Status::error)
        throwIfRefused("to boot");
    print("firmware running.");
}

void IOSmartSensor::enableVirtualSensor(uint8_t id, float rateHz, uint32_t latencyMs)
{
    if (!std::isfinite(rateHz) || rateHz < 0.0f)
        throw UtilsRuntimeError(where() + ": invalid rate " + formatRate(rateHz) +
                                " for virtual sensor " + std::to_string(id) + ".");
    if (!isRunning())
        throw UtilsRuntimeError(where() + " is not running: upload and boot its firmware first.");
    uint8_t config[9];
    config[0] = id;
    storeLE32(config + 1, std::bit_cast<uint32_t>(rateHz));
    storeLE32(config + 5, latencyMs);
    write(Register::virtualSensor, config, sizeof config);
    throwIfRefused("virtual sensor " + std::to_string(id));

    read(Register::virtualSensor, config, sizeof config);
    float actual = std::bit_cast<float>(loadLE32(config + 1));
    if (actual == 0.0f)
        print("virtual sensor " + std::to_string(id) + " disabled.");
    else
        print("virtual sensor " + std::to_string(id) + " at " + formatRate(actual) +
              " Hz (asked " + formatRate(rateHz) + "), latency " +
              std::to_string(loadLE32(config + 5)) + " ms.");
}

IOSmartSensor::GyroSample IOSmartSensor::readGyro()
{
    uint8_t bytes[10];
    read(Register::gyroData, bytes, sizeof bytes);
    auto axis = [&](int i) {
        auto raw = static_cast<int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
        return static_cast<float>(raw) / 16.0f;
    };
    return {axis(0), axis(1), axis(2), loadLE32(bytes + 6)};
}

} // namespace utils
