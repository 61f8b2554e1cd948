#pragma once

#include "utils/io/ioregisterfile.h"
#include "utils/regmap/rturegisters.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace utils {

enum class IORTUTriggerMode : uint32_t { manual = 0, continuous = 1 };

// The camera's state as the RTU shows it on the status LED.
enum class IORTUState : uint32_t { off = 1, booting = 2, ready = 3, busy = 4, warning = 5, error = 6 };

// Which image sensor the RTU times exposures for.
enum class IORTUCameraMode : uint32_t { imx296 = 0, imx567 = 1 };

// One parameter of a pin's configuration and the pin it applies to.
struct rtu_pin_param_t {
    uint32_t value = 0;
    uint32_t pin = 0;
};

// The configuration of one digital I/O pin: ten parameters in a fixed order.
struct rtu_pin_config_t {
    enum Index : size_t {
        type,           // 0 npn, 1 pnp, 2 push-pull
        config,         // contact: 0 normally open, 1 normally closed
        func,           // 0 Out, 1 OutIll, 2 In, 3 InTrigIm, 4 InQuadrA, 5 InQuadrB
        invert,         // 0 as is, 1 inverted
        onDelayEnable,  // 0/1
        offDelayEnable, // 0/1
        pulseEnable,    // 0/1
        onDelayTime,    // microseconds
        offDelayTime,   // microseconds
        pulseTime,      // microseconds
        count
    };
    std::array<rtu_pin_param_t, count> entries{};

    rtu_pin_param_t& operator[](Index i) { return entries[i]; }
    const rtu_pin_param_t& operator[](Index i) const { return entries[i]; }
    // Points every parameter at `pin`.
    void setPin(uint32_t pin)
    {
        for (auto& entry : entries)
            entry.pin = pin;
    }
};

// The unit's firmware revision.
struct IORTURevision {
    uint32_t revisionMajor = 0;
    uint32_t revisionMinor = 0;
    uint32_t week = 0;
    uint32_t year = 0;
    uint32_t number = 0;
    uint32_t patch = 0;
};

// The real-time trigger and I/O unit behind its register file (docs/hardware/rtu.md). The
// constructor does not open the device; open() does. Every operation throws IOError naming
// the register and the device when the unit refuses it or cannot be reached.
class IORTU : public IORegisterFile {
public:
    static constexpr unsigned pinCount = 6;

    // Bits of getState().
    static constexpr uint32_t stateReady = rtu_registers::statusReady;
    static constexpr uint32_t stateAcquiring = rtu_registers::statusAcquiring;
    static constexpr uint32_t stateContinuous = rtu_registers::statusContinuous;
    static constexpr uint32_t stateAnalogOutput = rtu_registers::statusAnalogOutput;
    static constexpr uint32_t stateHeartbeatAlive = rtu_registers::statusHeartbeatAlive;

    explicit IORTU(std::string path, int flags = O_RDWR);

    uint32_t getState() const;
    IORTURevision getRevision() const;

    void setExposureTime(unsigned microseconds);
    unsigned getExposureTime() const;
    void setExposureProhibitedTime(unsigned microseconds);
    unsigned getExposureProhibitedTime() const;
    // A signed offset carried in 32 bits.
    void setExposureOffset(unsigned microseconds);
    unsigned getExposureOffset() const;

    // Frames per second in continuous mode; 0 runs the sensor as fast as it can.
    void setFPS(unsigned fps);
    unsigned getFPS() const;
    void setAutoTrigger(IORTUTriggerMode mode);
    IORTUTriggerMode getAutoTrigger() const;
    void manualTrigger();
    void enableAcquisition(bool enable);
    bool getAcquisitionEnabled() const;

    // Each parameter is written to the pin it names.
    void setIOConfig(const rtu_pin_config_t& config);
    // Reads each parameter of the pin it names.
    void getIOConfig(rtu_pin_config_t& config) const;
    void setIOValue(unsigned pin, unsigned value);
    unsigned getIOValue(unsigned pin) const;

    void setAnalogOutputState(bool enabled);
    bool getAnalogOutputState() const;
    // true: current output, false: voltage output.
    void setAnalogOutputType(bool current);
    bool getAnalogOutputType() const;
    // Millivolts and microamperes; the unit keeps 16 bits.
    void setAnalogOutputVoltage(unsigned millivolts);
    unsigned getAnalogOutputVoltage() const;
    void setAnalogOutputCurrent(unsigned microamperes);
    unsigned getAnalogOutputCurrent() const;

    void setStatusLED(unsigned pattern) const;
    unsigned getStatusLED() const;
    void setDeviceState(IORTUState state);
    IORTUState getDeviceState() const;
    void setImageSensor(IORTUCameraMode mode);
    IORTUCameraMode getImageSensor() const;

    void triggerHeartbeat();
    unsigned getHeartbeatCount() const;
    // Degrees Celsius.
    float getInternalTemperature() const;

private:
    // Pins beyond the unit's would alias other registers; refuse them with IOError.
    void checkPin(unsigned pin) const;
};

} // namespace utils
