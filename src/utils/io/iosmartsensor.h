#pragma once

#include "utils/io/ioi2cfile.h"
#include "utils/regmap/smartsensorregisters.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace utils {

// The smart sensor: a motion co-processor on an I2C bus that runs firmware uploaded by the
// host into its RAM and then serves virtual sensors (37: the gyroscope). The protocol is in
// docs/hardware/smartsensor.md.
//
// Bring-up is softReset(), registerCallBacks(), uploadFirmwareToRam(), boot(). The
// constructor touches no hardware; the bus is opened by the first operation. Progress goes to
// the print function. Bus failures and a sensor that does not answer in time throw IOError; a
// bad firmware file, a refused request or a sensor in the wrong state throw UtilsRuntimeError.
class IOSmartSensor {
public:
    using PrintFunction = std::function<void(const std::string&)>;

    static constexpr uint8_t gyroscope = smartsensor_registers::gyroscope;

    struct GyroSample {
        float x, y, z;    // degrees per second
        uint32_t samples; // produced since the sensor was enabled
    };

    // `responseTimeoutMs` bounds each wait for the sensor (reset, boot). `irqPin` is the host
    // GPIO the sensor's interrupt line is wired to.
    IOSmartSensor(std::string bus, uint8_t address, int flags, int irqPin,
                  uint16_t responseTimeoutMs, std::string firmwarePath, PrintFunction print);
    ~IOSmartSensor();

    // Restarts the sensor into its bootloader, ready for firmware.
    void softReset();
    // Routes data-ready and error events to the sensor's interrupt line.
    void registerCallBacks();
    // Checks the image (header, length, CRC) and sends it to the sensor's RAM in chunks.
    void uploadFirmwareToRam(const std::string& path);
    void uploadFirmwareToRam() { uploadFirmwareToRam(firmwarePath_); }
    // Starts the uploaded firmware and waits until it runs.
    void boot();
    // Sets virtual sensor `id` to `rateHz` (0 disables it; the sensor rounds up to the next
    // rate it supports) with events held back at most `latencyMs`.
    void enableVirtualSensor(uint8_t id, float rateHz, uint32_t latencyMs);
    // The latest gyroscope reading.
    GyroSample readGyro();

    bool isRunning();

private:
    IOI2CFile& bus();
    void write(uint8_t reg, std::initializer_list<uint8_t> bytes);
    void write(uint8_t reg, const uint8_t* bytes, size_t length);
    void read(uint8_t reg, uint8_t* bytes, size_t length);
    uint8_t status();
    // Throws UtilsRuntimeError naming what the sensor reports when its ERROR bit is set.
    void throwIfRefused(const std::string& what);
    uint8_t waitForStatus(uint8_t mask, const char* what);
    std::string where() const;
    void print(const std::string& message) const;

    std::string busPath_;
    uint8_t address_;
    int flags_;
    int irqPin_;
    uint16_t responseTimeoutMs_;
    std::string firmwarePath_;
    PrintFunction print_;
    std::unique_ptr<IOI2CFile> bus_;
};

} // namespace utils
